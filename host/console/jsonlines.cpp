#include "host/console/jsonlines.h"

#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

void printJsonLine(const QJsonObject &object)
{
    printLine(jsonLine(object));
}

QJsonObject jsonEvent(const QString &event)
{
    return {{QStringLiteral("event"), event}};
}

QString jsonTime(const QDateTime &time)
{
    // The offset is spelt out only when it is the time's own.
    return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}
