// `abonent settings`: shows, changes, carries and checks what the three settings files hold.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/findingoutput.h"
#include "host/console/printing.h"
#include "host/health/checks.h"
#include "host/settings/csettingschanges.h"
#include "host/settings/settingstable.h"
#include "host/settings/settingstext.h"
#include "host/text/untrustedtext.h"

#include <QFile>

#include <cstdio>

namespace {

constexpr qint64 longestText = 1024 * 1024;

void printRow(const QString &name, const QString &value, const QString &normal, const QString &range,
              const QString &meaning)
{
    printLine(QStringLiteral("  %1 %2 %3 %4 %5")
                  .arg(name.leftJustified(41), printable(value).leftJustified(8), normal.leftJustified(13),
                       range.leftJustified(13), meaning));
}

int show()
{
    bool isSound = true;
    bool isFirst = true;
    for (const SettingsOfFile &file : allSettings()) {
        if (!std::exchange(isFirst, false))
            printLine(QString());
        printLine(file.path);
        printRow(QString(), QStringLiteral("значение"), QStringLiteral("по умолчанию"),
                 QStringLiteral("диапазон"), QStringLiteral("смысл"));
        for (const Setting &setting : file.settings)
            printRow(setting.name, setting.value, setting.defaultValue, setting.range, setting.meaning);
        if (!file.trouble.isNull()) {
            printError(file.trouble);
            isSound = false;
        }
    }
    return isSound ? ExitDone : ExitTrouble;
}

/// What a file that was made anew holds: nobody has named all of it.
void showRecord()
{
    const SettingsOfFile record = allSettings().front();
    printLine(QStringLiteral("Файл %1 записан заново:").arg(record.path));
    for (const Setting &setting : record.settings)
        printLine(QStringLiteral("  %1=%2").arg(setting.name, setting.value));
}

int change(const QStringList &assignments, bool repair)
{
    const bool wasDamaged = !ChannelSettingsFile::read().damage.isNull();
    CSettingsChanges changes;
    for (const QString &assignment : assignments) {
        const QString error = changes.add(assignment);
        if (!error.isNull()) {
            printError(error);
            return ExitBadValue;
        }
    }
    const QString error = changes.make(repair);
    if (!error.isNull()) {
        printError(error);
        return ExitTrouble;
    }
    if (wasDamaged && ChannelSettingsFile::read().damage.isNull())
        showRecord();
    printLine(QStringLiteral("Изменено ключей: %1").arg(assignments.size()));
    return ExitDone;
}

int exportAll()
{
    QString trouble;
    const QByteArray text = SettingsText::exported(&trouble);
    if (trouble.isNull()) {
        printLine(QString::fromUtf8(text.chopped(1)));
        return ExitDone;
    }
    printError(trouble);
    printError(QStringLiteral("Подробнее: abonent settings check"));
    return ExitTrouble;
}

int import(const QString &name, bool repair)
{
    QFile file(name);
    const bool isOpen =
        name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!isOpen) {
        printError(QStringLiteral("Не удалось прочитать %1. %2").arg(name, file.errorString()));
        return ExitUsage;
    }
    QString trouble;
    const QStringList assignments = SettingsText::assignments(file.read(longestText), &trouble);
    if (trouble.isNull())
        return change(ChannelSettingsFile::read().damage.isNull() ? SettingsText::differing(assignments)
                                                                  : assignments,
                      repair);
    printError(trouble);
    return ExitBadValue;
}

int check(bool isJson)
{
    FindingOutput output(isJson);
    bool isDamaged = false;
    bool isRefused = false;
    for (const Finding &finding : Checks::settings(HealthContext::look())) {
        output.add("settings", "настройки", finding);
        isDamaged |= finding.code == QLatin1String("settings-damaged") ||
                     finding.code == QLatin1String("settings-unreadable");
        isRefused |= finding.code == QLatin1String("out-of-range") ||
                     finding.code == QLatin1String("unknown-key") ||
                     finding.code == QLatin1String("odd-switch");
    }
    output.sum();
    return isDamaged ? ExitTrouble : isRefused ? ExitBadValue : ExitDone;
}

} // namespace

int runSettings(const CommandLine &line)
{
    const QString action = line.operands.first();
    if (action == QLatin1String("set"))
        return change(line.operands.mid(1), line.has("repair"));
    if (action == QLatin1String("export"))
        return exportAll();
    if (action == QLatin1String("import"))
        return import(line.operands[1], line.has("repair"));
    return action == QLatin1String("check") ? check(line.has("json")) : show();
}
