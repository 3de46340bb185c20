// `abonent settings`: what the binary record of the IP channel, settings.ini and generalSettings.ini hold.
#include "host/commands/commands.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/channelsettingsfile.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/delivery/generalsettings.h"
#include "host/text/untrustedtext.h"

#include <QFile>

#include <vector>

namespace {

/// A key of the record channelIp.conf.
struct RecordKey
{
    const char *name;
    int ChannelIpSettings::*number; // null: canCheckOnline
    int min;
    int max;
    const char *meaning;
};

constexpr RecordKey recordKeys[] = {
    {"port", &ChannelIpSettings::port, 1, 65535, "порт TCP, на котором принимаются вызовы"},
    {"maxConnections", &ChannelIpSettings::maxConnections, 1, 100000,
     "сколько соединений считать полной загрузкой канала"},
    {"blockSizeKb", &ChannelIpSettings::blockSizeKb, 1, 1024,
     "сколько КБайт держать в очереди на передачу одного соединения"},
    {"canCheckOnline", nullptr, 0, 1, "можно ли вызывать абонентов только для проверки связи"},
};

QString flagText(int value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

void printRow(const QString &name, const QString &value, const QString &normal, const QString &range,
              const QString &meaning)
{
    printLine(QStringLiteral("  %1 %2 %3 %4 %5")
                  .arg(name.leftJustified(41), value.leftJustified(8), normal.leftJustified(13),
                       range.leftJustified(13), meaning));
}

/// What the files hold and how it is shown: as rows of a table, or as objects.
void printKey(const QString &file, const QString &name, const QString &value, const QString &normal,
              const QString &range, const QString &meaning)
{
    if (outputStyle() != OutputStyle::Json)
        return printRow(name, printable(value), normal, range, meaning);
    QJsonObject object = jsonEvent(QStringLiteral("setting"));
    object.insert(QStringLiteral("file"), file);
    object.insert(QStringLiteral("key"), name);
    object.insert(QStringLiteral("value"), value);
    object.insert(QStringLiteral("default"), normal);
    object.insert(QStringLiteral("range"), range);
    object.insert(QStringLiteral("text"), meaning);
    printJsonLine(object);
}

void printTitle(const QString &path)
{
    if (outputStyle() == OutputStyle::Json)
        return;
    printLine(path);
    printRow(QString(), QStringLiteral("значение"), QStringLiteral("по умолчанию"),
             QStringLiteral("диапазон"), QStringLiteral("смысл"));
}

int recordValue(const ChannelIpSettings &settings, const RecordKey &key)
{
    return key.number ? settings.*key.number : settings.canCheckOnline;
}

QString recordText(const ChannelIpSettings &settings, const RecordKey &key)
{
    const int value = recordValue(settings, key);
    return key.number ? QString::number(value) : flagText(value);
}

int currentValue(CSettings &settings, const SettingsKey &key)
{
    return key.flag ? (settings.*key.flag)() : (settings.*key.number)();
}

int show()
{
    const ChannelSettingsFile file = ChannelSettingsFile::read();
    const ChannelIpSettings normal = ChannelSettingsFile::defaults();
    const QString recordPath = Global::channelIpSettingsFilePath();
    const QString flagRange = QStringLiteral("true, false");
    printTitle(recordPath);
    for (const RecordKey &key : recordKeys) {
        printKey(recordPath, QLatin1String(key.name), recordText(file.settings, key), recordText(normal, key),
                 key.number ? QStringLiteral("%1..%2").arg(key.min).arg(key.max) : flagRange,
                 QString::fromUtf8(key.meaning));
    }
    const QString error = file.error.isNull() ? file.damage : file.error;
    const int code = error.isNull() ? int(ExitDone) : fail(ExitTrouble, error);

    const QString iniPath = Global::internalSettingsFilePath();
    printNote(QString());
    printTitle(iniPath);
    CSettings ini;
    for (const SettingsKey &key : settingsKeys) {
        const int now = currentValue(ini, key);
        const auto textOf = [&key](int value) { return key.flag ? flagText(value) : QString::number(value); };
        printKey(iniPath, QLatin1String(key.name), textOf(now), textOf(key.defaultValue),
                 key.flag ? flagRange : QStringLiteral("%1..%2").arg(key.min).arg(key.max),
                 QString::fromUtf8(key.meaning));
    }

    const QString generalPath = Global::generalSettingsFilePath();
    printNote(QString());
    printTitle(generalPath);
    for (const GeneralSettingsKey &key : generalSettingsKeys())
        printKey(generalPath, key.name, key.value, key.defaultValue, key.range, key.meaning);
    return code;
}

/// Reads a value of either sort. @return null on success, else what is wrong
QString parseValue(const QString &key, bool isFlag, const QString &text, int min, int max, int *value)
{
    const QString word = text.toLower();
    if (isFlag) {
        const bool isTrue = word == QLatin1String("true") || word == QLatin1String("1");
        if (!isTrue && word != QLatin1String("false") && word != QLatin1String("0"))
            return QStringLiteral("%1: нужно true или false, а не '%2'").arg(key, text);
        *value = isTrue;
        return QString();
    }
    bool isNumber = false;
    *value = word.toInt(&isNumber, word.startsWith(QLatin1String("0x")) ? 16 : 10); // 0x7777 as well
    if (!isNumber || *value < min || *value > max)
        return QStringLiteral("%1: нужно число от %2 до %3, а не '%4'")
            .arg(key, QString::number(min), QString::number(max), text);
    return QString();
}

/// Changes that have passed their check, made all together or not at all.
class Changes
{
public:
    /// @return null on success, else what is wrong
    QString add(const QString &assignment)
    {
        const QString name = assignment.section(QLatin1Char('='), 0, 0);
        const QString text = assignment.section(QLatin1Char('='), 1);
        if (!assignment.contains(QLatin1Char('=')))
            return QStringLiteral("Нужно КЛЮЧ=ЗНАЧЕНИЕ, а не '%1'").arg(assignment);
        int value = 0;
        for (const RecordKey &key : recordKeys) {
            if (name != QLatin1String(key.name))
                continue;
            const QString error = parseValue(name, !key.number, text, key.min, key.max, &value);
            record.emplace_back(&key, value);
            return error;
        }
        for (const SettingsKey &key : settingsKeys) {
            if (name != QLatin1String(key.name))
                continue;
            const QString error = parseValue(name, key.flag, text, key.min, key.max, &value);
            ini.insert(name, key.flag ? QVariant(bool(value)) : QVariant(value));
            return error;
        }
        for (const GeneralSettingsKey &key : generalSettingsKeys()) {
            if (name != key.name)
                continue;
            general.emplace_back(name, text);
            return GeneralSettings::refusal(name, text);
        }
        return QStringLiteral("Нет такого ключа: %1. Все ключи показывает abonent settings show").arg(name);
    }

    /// Makes all changes or none.
    /// @param repair whether a damaged record may be replaced
    /// @return null on success, else what is wrong
    QString make(bool repair)
    {
        QFile generalFile(Global::generalSettingsFilePath());
        const bool hadGeneral = generalFile.open(QIODevice::ReadOnly);
        const QByteArray oldGeneral = hadGeneral ? generalFile.readAll() : QByteArray();
        QString error = saveGeneral();
        if (error.isNull())
            error = makeOthers(repair);
        if (!error.isNull() && !general.empty()) {
            if (hadGeneral)
                Global::safeSaving(generalFile.fileName(), oldGeneral);
            else
                generalFile.remove();
        }
        return error;
    }

private:
    QString saveGeneral() const
    {
        for (const auto &[key, text] : general) {
            const QString error = GeneralSettings::set(key, text);
            if (!error.isNull())
                return error;
        }
        return QString();
    }

    QString makeOthers(bool repair)
    {
        const ChannelSettingsFile old = ChannelSettingsFile::read();
        QString error = record.empty() ? QString() : saveRecord(old, repair);
        if (!error.isNull() || ini.isEmpty())
            return error;
        error = CSettings().store(ini);
        if (!error.isNull() && !record.empty() && !putBack(old))
            error += QStringLiteral(". Файл %1 уже изменен").arg(Global::channelIpSettingsFilePath());
        return error;
    }

    QString saveRecord(const ChannelSettingsFile &old, bool repair)
    {
        if (!old.error.isNull())
            return old.error;
        if (!old.damage.isNull() && !repair) {
            return QStringLiteral("%1. Ничего не изменено. С параметром --repair файл записывается заново, "
                                  "и неназванные ключи получают значения по умолчанию")
                .arg(old.damage);
        }
        ChannelIpSettings settings = old.damage.isNull() ? old.settings : ChannelSettingsFile::defaults();
        for (const auto &[key, value] : record) {
            if (key->number)
                settings.*key->number = value;
            else
                settings.canCheckOnline = value;
        }
        return Global::safeSaving(Global::channelIpSettingsFilePath(), settings.toByteArray());
    }

    static bool putBack(const ChannelSettingsFile &old)
    {
        const QString path = Global::channelIpSettingsFilePath();
        return old.exists ? Global::safeSaving(path, old.bytes).isNull() : QFile::remove(path);
    }

    std::vector<std::pair<const RecordKey *, int>> record;
    QHash<QString, QVariant> ini;
    std::vector<std::pair<QString, QString>> general;
};

/// What a file that was made anew holds: nobody has named all of it.
void showRecord()
{
    printNote(QStringLiteral("Файл %1 записан заново:").arg(Global::channelIpSettingsFilePath()));
    const ChannelSettingsFile file = ChannelSettingsFile::read();
    for (const RecordKey &key : recordKeys)
        printNote(
            QStringLiteral("  %1=%2").arg(QString::fromLatin1(key.name), recordText(file.settings, key)));
}

int change(const QStringList &assignments, bool repair)
{
    const bool wasDamaged = !ChannelSettingsFile::read().damage.isNull();
    Changes changes;
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

} // namespace

QStringList settingsCompletions()
{
    QStringList keys;
    for (const RecordKey &key : recordKeys)
        keys << QLatin1String(key.name) + QLatin1Char('=');
    for (const SettingsKey &key : settingsKeys)
        keys << QLatin1String(key.name) + QLatin1Char('=');
    for (const GeneralSettingsKey &key : generalSettingsKeys())
        keys << key.name + QLatin1Char('=');
    return keys;
}

int runSettings(const CommandLine &line)
{
    if (line.operands.first() == QLatin1String("show"))
        return show();
    return change(line.operands.mid(1), line.has("repair"));
}
