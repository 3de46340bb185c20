#include "host/commands/findingoutput.h"

#include "common/global.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

namespace {

struct SignName
{
    const char *forScripts;
    const char *forPeople;
};

constexpr SignName signNames[] = {{"ok", "верно"}, {"attention", "внимание"}, {"error", "ОШИБКА"}};
constexpr int signWidth = 8;
constexpr int titleWidth = 14;

void dropMessage(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

FindingOutput::FindingOutput(bool asJson) : isJson(asJson)
{
    qInstallMessageHandler(dropMessage);
}

FindingOutput::~FindingOutput()
{
    qInstallMessageHandler(nullptr);
}

void FindingOutput::add(const char *check, const char *title, const Finding &finding)
{
    ++counts[finding.sign];
    const SignName &sign = signNames[finding.sign];
    if (isJson) {
        QJsonObject object{{QStringLiteral("event"), QStringLiteral("finding")},
                           {QStringLiteral("check"), QLatin1String(check)},
                           {QStringLiteral("sign"), QLatin1String(sign.forScripts)},
                           {QStringLiteral("code"), finding.code},
                           {QStringLiteral("text"), finding.text}};
        if (!finding.advice.isNull())
            object.insert(QStringLiteral("advice"), finding.advice);
        printJsonLine(object);
        return;
    }
    printLine(QStringLiteral("%1  %2  %3")
                  .arg(QString::fromUtf8(sign.forPeople).leftJustified(signWidth),
                       QString::fromUtf8(title).leftJustified(titleWidth), printable(finding.text)));
    if (!finding.advice.isNull())
        printLine(QString(signWidth + 2 + titleWidth + 2, QLatin1Char(' ')) + QStringLiteral("-> ") +
                  printable(finding.advice));
}

void FindingOutput::sum()
{
    const int attentions = counts[Finding::Attention];
    if (isJson)
        printJsonLine({{QStringLiteral("event"), QStringLiteral("summary")},
                       {QStringLiteral("errors"), errors()},
                       {QStringLiteral("attentions"), attentions}});
    else
        printLine(errors() + attentions == 0
                      ? QStringLiteral("Замечаний нет")
                      : QStringLiteral("Ошибок: %1, требует внимания: %2").arg(errors()).arg(attentions));
}
