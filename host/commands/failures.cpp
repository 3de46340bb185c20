#include "host/commands/failures.h"

#include "host/commands/exitcodes.h"
#include "host/console/cconsole.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"

namespace {

QJsonObject failure(int code, const QString &why)
{
    QJsonObject object = jsonEvent(QStringLiteral("failed"));
    object.insert(QStringLiteral("code"), exitWord(code));
    object.insert(QStringLiteral("text"), why);
    return object;
}

} // namespace

int fail(int code, const QString &why)
{
    const QStringList lines = why.split(QLatin1Char('\n')); // line feeds are ours, the rest may not be
    for (const QString &line : lines)
        printError(line);
    if (outputStyle() == OutputStyle::Json)
        printJsonLine(failure(code, why));
    return code;
}

int fail(CConsole &console, int code, const QString &why)
{
    console.error(why);
    console.json(failure(code, why));
    return code;
}
