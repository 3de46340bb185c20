#include "host/screen/coutboxview.h"

#include "common/directorylayout.h"

#include <QDirIterator>
#include <QSet>

namespace {

constexpr std::size_t mostGone = 300;
constexpr int shownTitles = 3;
constexpr int arrivingSeconds = 10; // without a byte it has been broken off
constexpr qint64 shownTextBytes = 16 * 1024;
constexpr qint64 mostOfferBytes = 64 * 1024;

int percentOf(qint64 part, qint64 whole)
{
    return whole > 0 ? int(double(qBound<qint64>(0, part, whole)) * 100 / double(whole)) : 0;
}

QString textOf(const COutboxEntry &entry, const OutgoingMessage &message)
{
    QByteArray bytes(int(qMin(message.offer.size, shownTextBytes)), '\0');
    COutgoingReader reader(entry.directory, message);
    if (reader.read(bytes.data(), bytes.size()) != COutgoingReader::Good)
        return QString();
    return QString::fromUtf8(bytes) +
           (message.offer.size > shownTextBytes ? QStringLiteral("...") : QString());
}

ScreenMessage messageOf(const COutboxEntry &entry, const OutgoingMessage &outgoing)
{
    ScreenMessage message;
    message.identity = QString::fromLatin1(outgoing.offer.identity.toHex());
    message.abonent = entry.abonent;
    message.date = entry.created;
    message.state = ScreenMessage::Waiting;
    message.kind = outgoing.offer.kind;
    message.size = outgoing.offer.size;
    if (message.kind == OfferFrame::Text)
        message.text = textOf(entry, outgoing);
    else
        message.name = outgoing.title();
    return message;
}

/// All that is known of an entry, in one row.
ScreenTransfer transferOf(const COutboxEntry &entry, const std::vector<ScreenMessage> &messages, qint64 sent)
{
    ScreenTransfer transfer;
    transfer.number = entry.number;
    transfer.abonent = entry.abonent;
    transfer.state = ScreenMessage::Refused; // unless one of them is not
    QStringList titles;
    qint64 done = sent;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const ScreenMessage &message = messages[i];
        if (int(i) < shownTitles)
            titles << entry.messages[i].title();
        transfer.size += message.size;
        done += message.state == ScreenMessage::Delivered ? message.size : 0;
        if (message.state == ScreenMessage::Sending)
            transfer.state = ScreenMessage::Sending;
        else if (message.state == ScreenMessage::Waiting && transfer.state != ScreenMessage::Sending)
            transfer.state = ScreenMessage::Waiting;
        if (!message.reason.isEmpty() && message.state != ScreenMessage::Delivered)
            transfer.reason = message.reason;
    }
    const int more = int(messages.size()) - shownTitles;
    transfer.title =
        titles.join(QStringLiteral(", ")) + (more > 0 ? QStringLiteral(" и еще %1").arg(more) : QString());
    transfer.percent = percentOf(done, transfer.size);
    return transfer;
}

struct Arrived
{
    qint64 bytes = 0;
    QDateTime last; // when the latest of them came
};

Arrived arrivedIn(const QString &directory)
{
    Arrived arrived;
    QDirIterator walk(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        arrived.bytes += walk.fileInfo().size();
        arrived.last = qMax(arrived.last, walk.fileInfo().lastModified());
    }
    return arrived;
}

} // namespace

COutboxView::COutboxView(int ofLevel) : level(ofLevel), incomplete(Global::incompleteMessagesDir(ofLevel)) {}

bool COutboxView::look()
{
    const QStringList numbers = Outbox::numbers(level);
    for (const QString &number : numbers) {
        if (entries.count(number) == 0)
            takeNew(number);
    }
    const QSet<QString> there(numbers.begin(), numbers.end());
    for (auto entry = entries.begin(); entry != entries.end();) {
        readState(&entry->second);
        if (there.contains(entry->first)) {
            readLive(&entry->second);
            ++entry;
        } else {
            settleGone(&entry->second);
            entry = entries.erase(entry);
        }
    }
    shownMessages = gone;
    shownTransfers.clear();
    for (const auto &[number, entry] : entries) {
        shownMessages.insert(shownMessages.end(), entry.messages.begin(), entry.messages.end());
        shownTransfers.push_back(transferOf(*entry.entry, entry.messages, entry.sent));
    }
    const std::vector<ScreenTransfer> coming = arriving();
    shownTransfers.insert(shownTransfers.end(), coming.begin(), coming.end());

    QByteArray now = numbers.join(QLatin1Char(' ')).toLatin1();
    for (const auto &[number, entry] : entries)
        now += number.toLatin1() + entry.stateText + QByteArray::number(entry.sent) + '\n';
    for (const ScreenTransfer &transfer : coming)
        now += transfer.title.toUtf8() + QByteArray::number(transfer.percent) + char('0' + transfer.state);
    const bool isChanged = now != lastLook;
    lastLook = now;
    return isChanged;
}

QStringList COutboxView::stateFiles() const
{
    QStringList files;
    for (const auto &[number, entry] : entries)
        files << entry.state->fileName();
    return files;
}

void COutboxView::takeNew(const QString &number)
{
    Entry made;
    made.entry = COutboxEntry::load(Outbox::directory(level), number);
    if (!made.entry)
        return; // it is being made
    made.state = std::make_unique<QFile>(made.entry->directory + QStringLiteral("/state"));
    made.state->open(QIODevice::ReadOnly);
    for (const OutgoingMessage &message : made.entry->messages)
        made.messages.push_back(messageOf(*made.entry, message));
    entries.emplace(number, std::move(made));
}

/// A line: "stored INDEX DIGEST", "refused INDEX REASON", "waiting INDEX" or "attempt CODE REASON".
void COutboxView::readState(Entry *entry)
{
    if (!entry->state->isOpen() || !entry->state->seek(0))
        return;
    entry->stateText = entry->state->readAll();
    const QStringList lines = QString::fromUtf8(entry->stateText).split(QLatin1Char('\n'));
    QString attempt;
    for (const QString &line : lines) {
        const QString word = line.section(QLatin1Char(' '), 0, 0);
        const QString detail = line.section(QLatin1Char(' '), 2);
        const std::size_t index = line.section(QLatin1Char(' '), 1, 1).toUInt();
        if (word == QLatin1String("attempt"))
            attempt = detail;
        else if (index < entry->messages.size() && !word.isEmpty()) {
            ScreenMessage &message = entry->messages[index];
            message.state = word == QLatin1String("stored")    ? ScreenMessage::Delivered
                            : word == QLatin1String("refused") ? ScreenMessage::Refused
                                                               : ScreenMessage::Waiting;
            message.reason = message.state == ScreenMessage::Refused ? detail : QString();
        }
    }
    for (ScreenMessage &message : entry->messages) {
        if (message.state == ScreenMessage::Sending)
            message.state = ScreenMessage::Waiting;
        if (message.state == ScreenMessage::Waiting)
            message.reason = attempt;
    }
}

void COutboxView::readLive(Entry *entry)
{
    QFile live(entry->entry->directory + QStringLiteral("/live"));
    entry->sent = 0;
    if (!live.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> words = live.readLine(64).simplified().split(' ');
    const std::size_t index = words.value(0).toUInt();
    const qint64 sent = words.value(1).toLongLong();
    if (index >= entry->messages.size() || sent <= 0 ||
        entry->messages[index].state != ScreenMessage::Waiting)
        return;
    ScreenMessage &message = entry->messages[index];
    message.state = ScreenMessage::Sending;
    message.percent = percentOf(sent, message.size);
    entry->sent = sent;
}

/// What was neither stored nor refused has been taken back.
void COutboxView::settleGone(Entry *entry)
{
    for (ScreenMessage &message : entry->messages) {
        if (message.state != ScreenMessage::Delivered)
            message.state = ScreenMessage::Withdrawn;
        message.reason.clear();
        gone.push_back(message);
    }
    if (gone.size() > mostGone)
        gone.erase(gone.begin(), gone.end() - mostGone);
}

std::vector<ScreenTransfer> COutboxView::arriving() const
{
    std::vector<ScreenTransfer> result;
    const QStringList offers = incomplete.entryList({QStringLiteral("*.offer")}, QDir::Files, QDir::Name);
    for (const QString &name : offers) {
        QFile file(incomplete.absoluteFilePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray bytes = file.read(mostOfferBytes).mid(FrameLimits::headerSize);
        const auto offer = OfferFrame::fromPayload({bytes.constData(), std::size_t(bytes.size())});
        if (!offer)
            continue;
        ScreenTransfer transfer;
        transfer.number = name;
        transfer.title =
            offer->kind == OfferFrame::Text ? QStringLiteral("текст") : QFile::decodeName(offer->name);
        transfer.size = offer->size;
        const Arrived arrived = arrivedIn(incomplete.absoluteFilePath(name.section(QLatin1Char('.'), 0, 0)));
        const bool isGoingOn = arrived.last.secsTo(QDateTime::currentDateTime()) < arrivingSeconds;
        transfer.state = isGoingOn ? ScreenMessage::Received : ScreenMessage::Event;
        transfer.percent = percentOf(arrived.bytes, offer->size);
        result.push_back(transfer);
    }
    return result;
}
