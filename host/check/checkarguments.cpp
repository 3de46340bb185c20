#include "host/check/checkarguments.h"

#include "host/commands/commandline.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QThread>

#include <algorithm>

namespace {

constexpr qint64 mostRecordBytes = 1024 * 1024;

/// @return null on success, else what is wrong
QString parseHex(const QString &text, QByteArray *bytes)
{
    *bytes = QByteArray::fromHex(text.toLatin1());
    if (QString::fromLatin1(bytes->toHex()) != text.toLower())
        return QStringLiteral("Нужны шестнадцатеричные цифры, по две на байт, а не '%1'").arg(text);
    return QString();
}

QString readRecord(const QString &fileName, QByteArray *bytes)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("Не удалось прочитать %1. %2").arg(fileName, file.errorString());
    *bytes = file.read(mostRecordBytes);
    return QString();
}

template <typename Number>
QString parseNumber(const QString &text, qint64 min, qint64 max, Number *number)
{
    bool isNumber = false;
    const qint64 value = text.toLongLong(&isNumber);
    if (!isNumber || value < min || value > max)
        return QStringLiteral("Нужно число от %1 до %2, а не '%3'")
            .arg(QString::number(min), QString::number(max), text);
    *number = Number(value);
    return QString();
}

QString checkSetting(const QString &assignment)
{
    const QString name = assignment.section(QLatin1Char('='), 0, 0);
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name.startsWith(QLatin1Char('.')) ||
        !QFile::exists(assignment.section(QLatin1Char('='), 1)))
        return QStringLiteral("Нужно ИМЯ=ФАЙЛ, где имя - без каталога, а файл существует: %1")
            .arg(assignment);
    return QString();
}

/// @return null on success, else what is wrong
QString takeAbonents(const CommandLine &line, CheckArguments *arguments)
{
    QString error;
    arguments->hasAbonentData = line.has("abonent-data") || line.has("abonent-file");
    if (line.has("abonent-file"))
        error = readRecord(line.value("abonent-file"), &arguments->abonentData);
    else if (line.has("abonent-data"))
        error = parseHex(line.value("abonent-data"), &arguments->abonentData);
    arguments->hasSilentAbonent = line.has("silent-data");
    if (error.isNull() && arguments->hasSilentAbonent)
        error = parseHex(line.value("silent-data"), &arguments->silentAbonent);
    return error;
}

QString takeNumbers(const CommandLine &line, CheckArguments *arguments)
{
    QString error;
    if (line.has("seed"))
        error = parseNumber(line.value("seed"), 1, 0xffffffffLL, &arguments->seed);
    if (error.isNull() && line.has("limit"))
        error = parseNumber(line.value("limit"), 100, 600000, &arguments->limitMs);
    if (error.isNull() && line.has("jobs"))
        error = parseNumber(line.value("jobs"), 1, 64, &arguments->jobs);
    return error;
}

/// Names that stand behind an option, separated by commas.
QStringList namesOf(const CommandLine &line, const char *option)
{
    return line.values(option).join(QLatin1Char(',')).split(QLatin1Char(','), Qt::SkipEmptyParts);
}

} // namespace

CheckArguments readCheckArguments(const CommandLine &line)
{
    CheckArguments arguments;
    if (line.has("host"))
        arguments.host = line.operands;
    else if (!line.operands.isEmpty())
        arguments.channel = line.operands.first();
    for (QString *file : {&arguments.channel, arguments.host.isEmpty() ? nullptr : &arguments.host.first()}) {
        if (file && !file->isEmpty())
            *file = QFileInfo(*file).absoluteFilePath(); // no search along library paths
    }
    arguments.list = line.has("list");
    arguments.json = line.has("json");
    arguments.verbose = line.has("verbose");
    arguments.debugger = line.has("debugger");
    arguments.child = namesOf(line, "child");
    arguments.known = namesOf(line, "known");
    arguments.only = namesOf(line, "only");
    arguments.settings = line.values("settings");

    if (!line.has("host") && line.operands.size() > 1)
        arguments.mistake = QStringLiteral("Лишний аргумент: %1").arg(line.operands[1]);
    else if (line.has("host") && arguments.host.isEmpty())
        arguments.mistake = QStringLiteral("Не указана программа");
    else if (line.operands.isEmpty() && !arguments.list)
        arguments.mistake = QStringLiteral("Не указан файл модуля канала");
    for (const QString &assignment : qAsConst(arguments.settings)) {
        if (arguments.mistake.isNull())
            arguments.mistake = checkSetting(assignment);
    }
    if (arguments.mistake.isNull())
        arguments.mistake = takeNumbers(line, &arguments);
    if (arguments.mistake.isNull())
        arguments.mistake = takeAbonents(line, &arguments);
    if (arguments.seed == 0)
        arguments.seed = QRandomGenerator::system()->bounded(1U, 0xffffffffU);
    if (arguments.jobs == 0)
        arguments.jobs = arguments.debugger ? 1 : std::clamp(QThread::idealThreadCount(), 1, 8);
    return arguments;
}
