#include "host/commands/csendwatch.h"

#include "common/global.h"
#include "host/commands/exitcodes.h"
#include "host/console/cconsole.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/conversation/descriptors.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int clockMs = 100;
constexpr std::size_t manyMessages = 8;

} // namespace

CSendWatch::CSendWatch(const COutboxEntry &what, int retries, bool verbose, CConsole &shownOn)
    : entry(what), console(shownOn), isVerbose(verbose), retriesLeft(retries)
{
    const QString path = entry.directory + QLatin1String("/state");
    file.reset(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    watcher.watch({path});
    connect(&watcher, &CLateWatcher::changed, this, &CSendWatch::changed);
    soon.setSingleShot(true);
    connect(&soon, &QTimer::timeout, this, &CSendWatch::look);
    connect(&clock, &QTimer::timeout, this, &CSendWatch::look);
}

void CSendWatch::begin()
{
    elapsed.start();
    sinceLook.start();
    sinceLive.start();
    clock.start(soonMs()); // until the watcher has begun
    look();
}

/// Of many changes together only the last counts.
int CSendWatch::soonMs() const
{
    return entry.messages.size() > manyMessages ? 10 : 2;
}

/// At once when it was quiet.
void CSendWatch::changed()
{
    clock.setInterval(clockMs);
    if (soon.isActive())
        return;
    const qint64 tooEarly = soonMs() - sinceLook.elapsed();
    if (tooEarly <= 0)
        look();
    else
        soon.start(int(tooEarly));
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
    else if (sinceLive.hasExpired(clockMs - 10))
        lookAtLive();
}

void CSendWatch::takeLine(const QString &line)
{
    const QString word = line.section(QLatin1Char(' '), 0, 0);
    const uint number = line.section(QLatin1Char(' '), 1, 1).toUInt();
    const QString detail = line.section(QLatin1Char(' '), 2);
    if (word == QLatin1String("attempt"))
        return takeAttempt(int(number), detail);
    const bool isStored = word == QLatin1String("stored");
    if (number < entry.messages.size() && (isStored || word == QLatin1String("refused")))
        takeOutcome(number, isStored, detail);
}

/// Nothing moves from now on, until the next call.
void CSendWatch::takeAttempt(int code, const QString &reason)
{
    isMoving = false;
    sent.clear();
    meter = CSpeedMeter();
    console.setLiveRows({});
    QJsonObject object = jsonEvent(QStringLiteral("attempt-failed"));
    object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
    object.insert(QStringLiteral("number"), entry.number);
    object.insert(QStringLiteral("code"), exitWord(code));
    object.insert(QStringLiteral("text"), reason);
    console.json(object);
    if (retriesLeft == 0)
        return end(code, reason, true);
    retriesLeft -= retriesLeft > 0;
    console.error(reason);
}

QJsonObject CSendWatch::outcomeObject(const OutgoingMessage &message, bool isStored,
                                      const QString &detail) const
{
    static constexpr const char *kinds[] = {"", "text", "file", "tree"};
    QJsonObject object = jsonEvent(isStored ? QStringLiteral("delivered") : QStringLiteral("refused"));
    object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
    object.insert(QStringLiteral("number"), entry.number);
    object.insert(QStringLiteral("abonent"), entry.abonent);
    object.insert(QStringLiteral("kind"), QLatin1String(kinds[message.offer.kind]));
    object.insert(QStringLiteral("name"), QFile::decodeName(message.offer.name));
    object.insert(QStringLiteral("size"), message.offer.size);
    object.insert(isStored ? QStringLiteral("sha256") : QStringLiteral("text"), detail);
    if (!isStored)
        object.insert(QStringLiteral("code"), exitWord(ExitNotDelivered));
    return object;
}

void CSendWatch::takeOutcome(std::size_t index, bool isStored, const QString &detail)
{
    const OutgoingMessage &message = entry.messages[index];
    const QString size = Global::sizeString(message.offer.size);
    ++(isStored ? stored : refused);
    storedBytes += isStored ? message.offer.size : 0;
    sent.erase(index);
    if (outputStyle() == OutputStyle::Json)
        console.json(outcomeObject(message, isStored, detail));
    if (isStored)
        console.line(QStringLiteral("Доставлено: %1, %2%3")
                         .arg(message.title(), size,
                              isVerbose ? QStringLiteral(", SHA-256 %1").arg(detail) : QString()));
    else
        console.error(QStringLiteral("Не доставлено: %1, %2. %3").arg(message.title(), size, detail));
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

/// What has been sent of what, by the process that delivers.
void CSendWatch::lookAtLive()
{
    sinceLive.start();
    QFile live(entry.directory + QLatin1String("/live"));
    if (!live.open(QIODevice::ReadOnly))
        return;
    const QByteArray text = live.readAll();
    const QList<QByteArray> words = text.simplified().split(' ');
    const std::size_t index = words.value(0).toUInt();
    const qint64 bytes = words.value(1).toLongLong();
    if (text != lastLive && index < entry.messages.size() && bytes > 0) {
        lastLive = text;
        isMoving = true;
        current = index;
        // One is sent after the other: what was sent before is complete now.
        for (auto &[other, done] : sent)
            done = other == index ? done : entry.messages[other].offer.size;
        sent[index] = bytes;
    }
    if (!isMoving)
        return;
    sentNow = storedBytes;
    for (const auto &[other, done] : sent) {
        Q_UNUSED(other)
        sentNow += done;
    }
    meter.add(sentNow, elapsed.elapsed());
    if (console.isTerminal())
        showRows();
    else
        printTenths();
}

/// A row for each message on its way, and one for all of them.
void CSendWatch::showRows()
{
    constexpr int mostRows = 5;
    const int cells = console.rowWidth();
    QStringList rows;
    for (const auto &[index, done] : sent) {
        Progress progress;
        progress.done = done;
        progress.size = entry.messages[index].offer.size;
        progress.speed = index == current ? meter.speed() : 0;
        progress.state = done >= progress.size ? QStringLiteral("ждем ответа")
                         : meter.isResting()   ? QStringLiteral("стоит")
                                               : QStringLiteral("передается");
        progress.name = entry.messages[index].title();
        if (rows.size() < mostRows)
            rows << progressRow(progress, cells);
    }
    if (entry.messages.size() > 1) {
        Progress total;
        total.done = sentNow;
        total.size = entry.size();
        total.speed = meter.speed();
        total.state = QStringLiteral("всего");
        total.abonent = QStringLiteral("доставлено");
        total.name = QStringLiteral("%1 из %2").arg(stored).arg(entry.messages.size());
        rows << progressRow(total, cells);
    }
    console.setLiveRows(rows);
}

/// Without a terminal a line for every tenth of a large message.
void CSendWatch::printTenths()
{
    const OutgoingMessage &message = entry.messages[current];
    const auto found = sent.find(current);
    const int percent = found == sent.end() ? 100 : percentOf(found->second, message.offer.size);
    if (percent >= 100 || (current == tenthsOf && percent / 10 <= printedTenth))
        return;
    tenthsOf = current;
    printedTenth = percent / 10;
    Progress progress;
    progress.done = found->second;
    progress.size = message.offer.size;
    progress.speed = meter.speed();
    progress.state = QStringLiteral("передается");
    progress.name = message.title();
    constexpr int plainCells = 120;
    console.line(progressRow(progress, plainCells));
    QJsonObject object = jsonEvent(QStringLiteral("progress"));
    object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
    object.insert(QStringLiteral("number"), entry.number);
    object.insert(QStringLiteral("name"), progress.name);
    object.insert(QStringLiteral("done"), progress.done);
    object.insert(QStringLiteral("size"), progress.size);
    console.json(object);
}

void CSendWatch::end(int exitCode, const QString &text, bool isKept)
{
    isOver = true;
    clock.stop();
    console.setLiveRows({});
    emit over(exitCode, text, isKept);
}
