// `abonent settings`: shows, changes, carries and checks what the three settings files hold.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/commands/findingoutput.h"
#include "host/console/jsonlines.h"
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

void printTitle(const QString &path)
{
    if (outputStyle() == OutputStyle::Json)
        return;
    printLine(path);
    printRow(QString(), QStringLiteral("значение"), QStringLiteral("по умолчанию"),
             QStringLiteral("диапазон"), QStringLiteral("смысл"));
}

void printSetting(const QString &file, const Setting &setting)
{
    if (outputStyle() != OutputStyle::Json)
        return printRow(setting.name, setting.value, setting.defaultValue, setting.range, setting.meaning);
    QJsonObject object = jsonEvent(QStringLiteral("setting"));
    object.insert(QStringLiteral("file"), file);
    object.insert(QStringLiteral("key"), setting.name);
    object.insert(QStringLiteral("value"), setting.value);
    object.insert(QStringLiteral("default"), setting.defaultValue);
    object.insert(QStringLiteral("range"), setting.range);
    object.insert(QStringLiteral("text"), setting.meaning);
    printJsonLine(object);
}

int show()
{
    bool isSound = true;
    bool isFirst = true;
    for (const SettingsOfFile &file : allSettings()) {
        if (!std::exchange(isFirst, false))
            printNote(QString());
        printTitle(file.path);
        for (const Setting &setting : file.settings)
            printSetting(file.path, setting);
        if (!file.trouble.isNull()) {
            fail(ExitTrouble, file.trouble);
            isSound = false;
        }
    }
    return isSound ? ExitDone : ExitTrouble;
}

/// What a file that was made anew holds: nobody has named all of it.
void showRecord()
{
    const SettingsOfFile record = allSettings().front();
    printNote(QStringLiteral("Файл %1 записан заново:").arg(record.path));
    for (const Setting &setting : record.settings)
        printNote(QStringLiteral("  %1=%2").arg(setting.name, setting.value));
}

int change(const QStringList &assignments, bool repair)
{
    const bool wasDamaged = !ChannelSettingsFile::read().damage.isNull();
    CSettingsChanges changes;
    for (const QString &assignment : assignments) {
        const QString error = changes.add(assignment);
        if (!error.isNull())
            return fail(ExitBadValue, error);
    }
    const QString error = changes.make(repair);
    if (!error.isNull())
        return fail(ExitTrouble, error);
    if (wasDamaged && ChannelSettingsFile::read().damage.isNull())
        showRecord();
    printNote(QStringLiteral("Изменено ключей: %1").arg(assignments.size()));
    if (outputStyle() == OutputStyle::Json) {
        QJsonObject object = jsonEvent(QStringLiteral("changed"));
        object.insert(QStringLiteral("count"), assignments.size());
        printJsonLine(object);
    }
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
    return fail(ExitTrouble, trouble + QStringLiteral("\nПодробнее: abonent settings check"));
}

int import(const QString &name, bool repair)
{
    QFile file(name);
    const bool isOpen =
        name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!isOpen)
        return fail(ExitUsage, QStringLiteral("Не удалось прочитать %1. %2").arg(name, file.errorString()));
    QString trouble;
    const QStringList assignments = SettingsText::assignments(file.read(longestText), &trouble);
    if (trouble.isNull())
        return change(ChannelSettingsFile::read().damage.isNull() ? SettingsText::differing(assignments)
                                                                  : assignments,
                      repair);
    return fail(ExitBadValue, trouble);
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
