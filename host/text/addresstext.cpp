#include "host/text/addresstext.h"

QString addressText(const QString &host, int port)
{
    const bool isIpv6 = host.contains(QLatin1Char(':'));
    return (isIpv6 ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2")).arg(host, QString::number(port));
}
