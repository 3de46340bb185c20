#include "host/check/checkarguments.h"

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

QString takeOption(const QString &option, const QString &value, CheckArguments *arguments)
{
    if (option == QLatin1String("--only"))
        arguments->only += value.split(QLatin1Char(','), Qt::SkipEmptyParts);
    else if (option == QLatin1String("--child"))
        arguments->child = value.split(QLatin1Char(','));
    else if (option == QLatin1String("--known"))
        arguments->known = value.split(QLatin1Char(','));
    else if (option == QLatin1String("--seed"))
        return parseNumber(value, 1, 0xffffffffLL, &arguments->seed);
    else if (option == QLatin1String("--limit"))
        return parseNumber(value, 100, 600000, &arguments->limitMs);
    else if (option == QLatin1String("--jobs"))
        return parseNumber(value, 1, 64, &arguments->jobs);
    else if (option == QLatin1String("--settings")) {
        arguments->settings << value;
        return checkSetting(value);
    } else if (option == QLatin1String("--abonent-data") || option == QLatin1String("--abonent-file")) {
        arguments->hasAbonentData = true;
        return option.endsWith(QLatin1String("data")) ? parseHex(value, &arguments->abonentData)
                                                      : readRecord(value, &arguments->abonentData);
    } else if (option == QLatin1String("--silent-data")) {
        arguments->hasSilentAbonent = true;
        return parseHex(value, &arguments->silentAbonent);
    } else
        return QStringLiteral("Неизвестный параметр: %1").arg(option);
    return QString();
}

bool takeFlag(const QString &option, CheckArguments *arguments)
{
    bool *flag = option == QLatin1String("--list")       ? &arguments->list
                 : option == QLatin1String("--json")     ? &arguments->json
                 : option == QLatin1String("--verbose")  ? &arguments->verbose
                 : option == QLatin1String("--debugger") ? &arguments->debugger
                                                         : nullptr;
    if (flag)
        *flag = true;
    return flag;
}

} // namespace

CheckArguments parseCheckArguments(const QStringList &words)
{
    CheckArguments arguments;
    QStringList rest = words;
    while (!rest.isEmpty() && arguments.mistake.isNull()) {
        const QString word = rest.takeFirst();
        const QString option = word.section(QLatin1Char('='), 0, 0);
        if (word == QLatin1String("--host")) {
            arguments.host = rest;
            rest.clear();
            if (arguments.host.isEmpty())
                arguments.mistake = QStringLiteral("Не указана программа");
            else
                arguments.host[0] = QFileInfo(arguments.host[0]).absoluteFilePath();
        } else if (!word.startsWith(QLatin1String("--"))) {
            if (!arguments.channel.isEmpty())
                arguments.mistake = QStringLiteral("Лишний аргумент: %1").arg(word);
            arguments.channel = QFileInfo(word).absoluteFilePath(); // no search along library paths
        } else if (!takeFlag(word, &arguments)) {
            if (option == word && rest.isEmpty())
                arguments.mistake = QStringLiteral("Неизвестный параметр или нет его значения: %1").arg(word);
            else
                arguments.mistake =
                    takeOption(option, option == word ? rest.takeFirst() : word.section(QLatin1Char('='), 1),
                               &arguments);
        }
    }
    if (arguments.mistake.isNull() && arguments.channel.isEmpty() && arguments.host.isEmpty() &&
        !arguments.list)
        arguments.mistake = QStringLiteral("Не указан файл модуля канала");
    if (arguments.seed == 0)
        arguments.seed = QRandomGenerator::system()->bounded(1U, 0xffffffffU);
    if (arguments.jobs == 0)
        arguments.jobs = arguments.debugger ? 1 : std::clamp(QThread::idealThreadCount(), 1, 8);
    return arguments;
}
