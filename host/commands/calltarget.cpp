#include "host/commands/calltarget.h"

#include <arpa/inet.h>

namespace {

bool isIpv6(const QString &host)
{
    in6_addr address{};
    const QByteArray text = host.left(host.indexOf(QLatin1Char('%'))).toLatin1(); // but for the interface
    return ::inet_pton(AF_INET6, text.constData(), &address) == 1;
}

} // namespace

bool CallTarget::setAddress(const QString &text)
{
    QString host = text;
    QString portText;
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (text.startsWith(QLatin1Char('['))) {
        const int bracket = text.indexOf(QLatin1Char(']'));
        if (bracket < 0)
            return false;
        host = text.mid(1, bracket - 1);
        portText = text.mid(bracket + 1);
        if (!portText.isEmpty() && !portText.startsWith(QLatin1Char(':')))
            return false;
        if (portText == QLatin1String(":"))
            return false;
        portText.remove(0, 1);
    } else if (colon >= 0 && text.indexOf(QLatin1Char(':')) == colon) {
        host = text.left(colon);
        portText = text.mid(colon + 1);
        if (portText.isEmpty())
            return false;
    }
    if (host.trimmed().isEmpty() || (host.contains(QLatin1Char(':')) && !isIpv6(host.trimmed())))
        return false;
    if (!portText.isEmpty()) {
        bool isNumber = false;
        const int number = portText.toInt(&isNumber);
        if (!isNumber || number < 1 || number > 65535)
            return false;
        port = number;
    }
    address = host.trimmed();
    return true;
}
