#include "host/console/jsonlines.h"

#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

#include <QJsonObject>

void printJsonLine(const QJsonObject &object)
{
    printLine(jsonLine(object));
}
