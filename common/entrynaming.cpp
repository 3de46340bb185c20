#include "common/entrynaming.h"

#include "common/terminationguard.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRandomGenerator>
#include <QSet>

#include <algorithm>

namespace {

constexpr int nameDigits = 8;
constexpr int messageCandidates = 100;
constexpr int taskCandidates = 99;

using LastNumbers = QMap<QString, qint64>; // by directory: the number given out last

QString numberName(qint64 number)
{
    return QString::number(number).rightJustified(nameDigits, QLatin1Char('0'));
}

bool isMessageDirName(const QString &name)
{
    return name.size() == nameDigits &&
           std::all_of(name.cbegin(), name.cend(), [](QChar c) { return c.isDigit(); });
}

qint64 lastMessageNumber(const QDir &directory)
{
    const QStringList names = directory.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    const auto last = std::find_if(names.crbegin(), names.crend(), isMessageDirName);
    return last == names.crend() ? 0 : last->toInt();
}

qint64 lastTaskNumber(const QDir &directory)
{
    const QStringList names =
        directory.entryList({QStringLiteral("*.task")}, QDir::Files | QDir::NoDotAndDotDot, QDir::Name);
    return names.isEmpty() ? 0 : QFileInfo(names.last()).baseName().toInt();
}

} // namespace

namespace Global {

QString nextMessageDirName(const QDir &directory)
{
    const CTerminationGuard guard;
    static LastNumbers &map = *new LastNumbers;           // threads may still name while the process exits
    static QSet<QString> &overtaken = *new QSet<QString>; // keys whose last call has found no free name

    const QString key = directory.absolutePath();
    qint64 last = map.value(key, 0);
    if (!map.contains(key) || overtaken.remove(key)) // others are far ahead: look where they are
        last = qMax(last, lastMessageNumber(directory));
    for (qint64 number = last + 1; number <= last + messageCandidates; ++number) {
        const QString name = numberName(number);
        if (directory.exists(name))
            continue;
        map.insert(key, number);
        return name;
    }
    overtaken.insert(key);
    return QString();
}

QString nextTaskFileName(const QDir &directory)
{
    const CTerminationGuard guard;
    static LastNumbers &map = *new LastNumbers; // as above

    const QString key = directory.path();
    const auto known = map.constFind(key);
    const qint64 last = known == map.constEnd() ? lastTaskNumber(directory) : *known;
    for (qint64 number = last + 1; number <= last + taskCandidates; ++number) {
        const QString name = numberName(number) + QLatin1String(".task");
        if (directory.exists(name))
            continue;
        map.insert(key, number);
        return name;
    }
    const quint32 random = QRandomGenerator::system()->generate() & 0x7fffffffu;
    return QStringLiteral("_%1.task").arg(random);
}

} // namespace Global
