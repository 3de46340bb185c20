#include "host/commands/csendwatch.h"

#include "common/global.h"
#include "host/commands/exitcodes.h"
#include "host/console/cconsole.h"
#include "host/conversation/descriptors.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int clockMs = 100;
constexpr int soonMs = 2;
constexpr int soonOfManyMs = 30;
constexpr std::size_t manyMessages = 8;

} // namespace

CSendWatch::CSendWatch(const COutboxEntry &what, int retries, CConsole &shownOn)
    : entry(what), console(shownOn), retriesLeft(retries)
{
    const QString path = entry.directory + QLatin1String("/state");
    file.reset(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    watcher.addPath(path);
    connect(&watcher, &QFileSystemWatcher::fileChanged, this, &CSendWatch::changed);
    soon.setSingleShot(true);
    connect(&soon, &QTimer::timeout, this, &CSendWatch::look);
    connect(&clock, &QTimer::timeout, this, &CSendWatch::look);
}

void CSendWatch::begin()
{
    elapsed.start();
    sinceLook.start();
    clock.start(clockMs);
    look();
}

/// At once when it was quiet; of many changes together only the last counts.
void CSendWatch::changed()
{
    if (soon.isActive())
        return;
    if (sinceLook.elapsed() > soonOfManyMs)
        look();
    else
        soon.start(entry.messages.size() > manyMessages ? soonOfManyMs : soonMs);
}

void CSendWatch::look()
{
    sinceLook.start();
    struct stat status
    {};
    // First whether it is gone, then what it says: so nothing can come in between.
    const bool isGone = !file.isOpen() || ::fstat(file.get(), &status) != 0 || status.st_nlink == 0;
    char bytes[4096];
    for (qint64 count = 0; !isOver && (count = readUpTo(file, bytes, sizeof(bytes))) > 0;)
        rest.append(bytes, int(count));
    for (int at = 0; !isOver && (at = rest.indexOf('\n')) >= 0; rest.remove(0, at + 1))
        takeLine(QString::fromUtf8(rest.left(at)));
    if (isOver)
        return;
    if (stored + refused == int(entry.messages.size()))
        end(refused == 0 ? ExitDone : ExitNotDelivered, summary(), false);
    else if (isGone)
        end(ExitNotDelivered, QStringLiteral("Сообщение %1 отозвано").arg(entry.number), false);
    else
        showProgress();
}

void CSendWatch::takeLine(const QString &line)
{
    const QString word = line.section(QLatin1Char(' '), 0, 0);
    const uint number = line.section(QLatin1Char(' '), 1, 1).toUInt();
    const QString detail = line.section(QLatin1Char(' '), 2);
    if (word == QLatin1String("attempt")) {
        if (retriesLeft == 0)
            return end(int(number), detail, true);
        retriesLeft -= retriesLeft > 0;
        return console.error(detail);
    }
    if (number >= entry.messages.size())
        return;
    const OutgoingMessage &message = entry.messages[number];
    const QString size = Global::sizeString(message.offer.size);
    if (word == QLatin1String("stored")) {
        ++stored;
        storedBytes += message.offer.size;
        console.line(QStringLiteral("Доставлено: %1, %2, SHA-256 %3").arg(message.title(), size, detail));
    } else if (word == QLatin1String("refused")) {
        ++refused;
        console.error(QStringLiteral("Не доставлено: %1, %2. %3").arg(message.title(), size, detail));
    }
}

QString CSendWatch::summary() const
{
    if (stored == 0)
        return QString();
    const qint64 ms = qMax<qint64>(elapsed.elapsed(), 1);
    const QString noun = Global::declension(stored, QStringLiteral("сообщение"), QStringLiteral("сообщения"),
                                            QStringLiteral("сообщений"));
    return QStringLiteral("Передано и подтверждено: %1 %2, %3 за %4, %5")
        .arg(QString::number(stored), noun, Global::sizeString(storedBytes), Global::timeStringSec(ms / 1000),
             Global::speedString(storedBytes * 1000 / ms));
}

/// One live row on a terminal; elsewhere a line for every tenth of a large message.
void CSendWatch::showProgress()
{
    QFile live(entry.directory + QLatin1String("/live"));
    if (!live.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> words = live.readAll().simplified().split(' ');
    const std::size_t index = words.value(0).toUInt();
    const qint64 sent = words.value(1).toLongLong();
    if (index >= entry.messages.size() || sent <= 0)
        return;
    const OutgoingMessage &message = entry.messages[index];
    const bool isNew = index != shownIndex;
    if (isNew)
        beginMs = elapsed.elapsed();
    const qint64 speed = sent * 1000 / qMax<qint64>(elapsed.elapsed() - beginMs, clockMs);
    const qint64 left = speed > 0 ? (message.offer.size - sent) / speed : 0;
    const int percent = int(double(sent) * 100 / double(message.offer.size));
    const QString text = QStringLiteral("%1: %2 % (%3 из %4), %5, осталось %6")
                             .arg(message.title(), QString::number(percent), Global::sizeString(sent),
                                  Global::sizeString(message.offer.size), Global::speedString(speed),
                                  Global::timeStringSec(left));
    if (console.isTerminal())
        console.setLiveRows({text});
    else if (isNew || percent / 10 > shownTenth)
        console.line(text);
    shownIndex = index;
    shownTenth = percent / 10;
}

void CSendWatch::end(int exitCode, const QString &text, bool isKept)
{
    isOver = true;
    clock.stop();
    console.setLiveRows({});
    emit over(exitCode, text, isKept);
}
