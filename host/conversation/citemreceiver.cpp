#include "host/conversation/citemreceiver.h"

#include "common/global.h"
#include "host/conversation/treelist.h"
#include "host/text/localtime.h"
#include "host/text/untrustedtext.h"

#include <QFile>

namespace {

constexpr qint64 mostTextBytes = 1024 * 1024;
constexpr int mostRefusals = 1000; // who goes on offering what we cannot take is not worth a connection
constexpr int mostToldRefusals = 16;
constexpr std::size_t mostItems = 1024;
constexpr qint64 mostListBytes = 2 * TreeLimits::listBytes; // they are kept in memory
constexpr int shownTextBytes = 16 * 1024;
constexpr qint64 caughtUpAtOnce = 8 * 1024 * 1024;

CItemReceiver::Reaction fault(const QString &how)
{
    CItemReceiver::Reaction reaction;
    reaction.fault = how;
    return reaction;
}

CItemReceiver::Reaction answer(const AnswerFrame &frame)
{
    CItemReceiver::Reaction reaction;
    reaction.reply = frame.toBytes();
    return reaction;
}

} // namespace

CItemReceiver::CItemReceiver(CInbox &inbox, const Sender &sender, std::function<void()> onSuperseded)
    : box(inbox), from(sender), session(inbox, sender.key, std::move(onSuperseded))
{}

/// @return null when it may come, else why not
QString CItemReceiver::unacceptable(const OfferFrame &offer) const
{
    if (offer.kind == OfferFrame::Text && (offer.size == 0 || offer.size > mostTextBytes))
        return QStringLiteral("Недопустимая длина текста");
    if (offer.kind != OfferFrame::Text && !isFileName(offer.name))
        return QStringLiteral("Недопустимое имя");
    if (offer.listSize > quint32(TreeLimits::listBytes) ||
        (offer.isAtOnce && (offer.kind == OfferFrame::Tree || offer.size > FrameLimits::dataBytes)))
        return QStringLiteral("Каталог слишком велик");
    return from.isStranger ? quotaRefusal(from.quotas, StrangerUsage(), offer.size) : QString();
}

/// @return null when a stranger has not used up what it may send, else why it has to wait
QString CItemReceiver::overQuota(const OfferFrame &offer)
{
    if (!from.isStranger)
        return QString();
    StrangerUsage usage;
    usage.messagesToday = from.messagesToday + taken;
    usage.bytesOnDisk = box.strangerBytes(false);
    if (quotaRefusal(from.quotas, usage, offer.size).isNull())
        return QString();
    usage.bytesOnDisk = box.strangerBytes(true); // the user may have tidied up
    return quotaRefusal(from.quotas, usage, offer.size);
}

CItemReceiver::Reaction CItemReceiver::takeOffer(const OfferFrame &offer)
{
    if (offer.item <= last || items.size() >= mostItems)
        return fault(QStringLiteral("предложение не ко времени"));
    qint64 listBytes = offer.listSize;
    for (const auto &[number, under] : items) {
        Q_UNUSED(number)
        listBytes += offer.listSize > 0 ? qint64(under.offer.listSize) : 0;
    }
    if (listBytes > mostListBytes)
        return fault(QStringLiteral("слишком много каталогов сразу"));
    last = offer.item;
    Item &item = items[offer.item];
    item.offer = offer;
    const QString reason = unacceptable(offer);
    if (!reason.isNull())
        return refuse(item, AnswerFrame::Refused, reason);
    if (offer.kind == OfferFrame::Text && !heldTexts.isNull())
        return refuse(item, AnswerFrame::Later, heldTexts);

    CInboxSession::Begun begun = session.begin(offer);
    if (begun.verdict == AnswerFrame::Stored) {
        const AnswerFrame frame{offer.item, AnswerFrame::Stored, 0, begun.digest, {}};
        if (!offer.isAtOnce)
            items.erase(offer.item);
        return answer(frame);
    }
    if (begun.verdict != AnswerFrame::Send)
        return refuse(item, begun.verdict, begun.reason);
    const QString quota = overQuota(offer);
    if (!quota.isNull())
        return refuse(item, AnswerFrame::Later, quota);
    ++taken;
    item.message = std::move(begun.message);
    if (!offer.isAtOnce) {
        catchingUp.push_back(offer.item);
        return work();
    }
    const QString trouble = box.roomTrouble(offer.size);
    return trouble.isNull() ? Reaction() : refuse(item, AnswerFrame::Later, trouble);
}

CItemReceiver::Reaction CItemReceiver::work()
{
    if (catchingUp.empty())
        return {};
    const quint32 number = catchingUp.front();
    Item &item = items[number];
    if (!item.message->catchUp(caughtUpAtOnce))
        return {};
    catchingUp.erase(catchingUp.begin());
    item.arrived = item.message->have();
    item.isAnswered = true;
    const QString trouble = box.roomTrouble(item.offer.size - item.arrived);
    if (!trouble.isNull())
        return refuse(item, AnswerFrame::Later, trouble);
    return answer({number, AnswerFrame::Send, item.arrived, item.message->check(), {}});
}

CItemReceiver::Reaction CItemReceiver::takeData(quint32 number, std::string_view bytes)
{
    const auto found = items.find(number);
    if (found == items.end())
        return number <= last ? Reaction() : fault(QStringLiteral("данные без предложения")); // given up
    Item &item = found->second;
    if (!item.digest.isEmpty() || qint64(bytes.size()) > item.offer.size - item.arrived ||
        (item.message && !item.offer.isAtOnce && !item.isAnswered))
        return fault(QStringLiteral("данных больше, чем объявлено"));
    item.arrived += qint64(bytes.size());
    show(item);
    if (!item.message)
        return {}; // refused meanwhile; the sender may not have heard yet
    if (item.offer.kind == OfferFrame::Text && item.beginning.size() < shownTextBytes)
        item.beginning.append(bytes.data(), qMin(int(bytes.size()), shownTextBytes - item.beginning.size()));
    const QString error = item.message->append(bytes);
    if (error.isNull())
        return {};
    const bool isBad = item.message->isBad();
    if (isBad)
        item.message->discard();
    return refuse(item, isBad ? AnswerFrame::Refused : AnswerFrame::Later, error);
}

/// What comes in one piece is not worth a row.
void CItemReceiver::show(Item &item)
{
    if (!item.shown && item.message && from.board && item.arrived < item.offer.size)
        item.shown = from.board->putUp(true, from.name, titleOf(item.offer), item.offer.size);
    if (item.shown)
        item.shown->done.store(item.arrived, std::memory_order_relaxed);
}

std::vector<CItemReceiver::Begun> CItemReceiver::begun() const
{
    std::vector<Begun> result;
    for (const auto &[number, item] : items) {
        Q_UNUSED(number)
        if (item.message && item.arrived > 0)
            result.push_back({item.offer, item.arrived});
    }
    return result;
}

CItemReceiver::Reaction CItemReceiver::takeFinish(const FinishFrame &finish)
{
    const auto found = items.find(finish.item);
    if (found == items.end())
        return finish.item <= last ? Reaction() : fault(QStringLiteral("конец без предложения"));
    Item &item = found->second;
    if (!item.message) {
        items.erase(found);
        return {};
    }
    if (!item.digest.isEmpty() || item.arrived != item.offer.size)
        return fault(QStringLiteral("конец передачи не ко времени"));
    item.digest = item.message->digest();
    if (item.message->check() != finish.check) {
        item.message->discard();
        return refuse(item, AnswerFrame::Later, QStringLiteral("Контрольная сумма не совпала"));
    }
    const QString error = item.message->finish(description(item));
    if (!error.isNull())
        return refuse(item, AnswerFrame::Later, error);
    finished.push_back(finish.item);
    return {};
}

CItemReceiver::Reaction CItemReceiver::settle()
{
    if (finished.empty())
        return {};
    std::vector<CIncomingMessage *> messages;
    for (const quint32 number : finished)
        messages.push_back(items[number].message.get());
    const std::vector<CInboxSession::Outcome> outcomes = session.commit(messages);

    Reaction reaction;
    for (std::size_t i = 0; i < finished.size(); ++i) {
        const auto found = items.find(finished[i]);
        Item &item = found->second;
        if (!outcomes[i].error.isNull()) {
            const Reaction refusal = refuse(item, AnswerFrame::Later, outcomes[i].error);
            reaction.reply += refusal.reply;
            reaction.notices.insert(reaction.notices.end(), refusal.notices.begin(), refusal.notices.end());
        } else {
            reaction.reply += AnswerFrame{finished[i], AnswerFrame::Stored, 0, item.digest, {}}.toBytes();
            reaction.notices.push_back({true, item.offer, item.digest, QString::fromUtf8(item.beginning),
                                        outcomes[i].directory, outcomes[i].trouble});
            if (from.isStranger)
                box.addStrangerBytes(item.offer.size);
        }
        items.erase(found);
    }
    finished.clear();
    return reaction;
}

/// The message does not come now, the connection goes on. What has arrived of it may stay on the disk.
CItemReceiver::Reaction CItemReceiver::refuse(Item &item, AnswerFrame::Verdict verdict, const QString &reason)
{
    if (verdict == AnswerFrame::Later && item.offer.kind == OfferFrame::Text)
        heldTexts = reason;
    if (++refusals > mostRefusals)
        return fault(QStringLiteral("слишком много отказов"));
    item.message.reset();
    item.shown.reset();
    Reaction reaction = answer({item.offer.item, verdict, 0, {}, reason});
    if (refusals <= mostToldRefusals)
        reaction.notices.push_back({false, item.offer, {}, {}, {}, reason});
    return reaction;
}

QByteArray CItemReceiver::description(const Item &item) const
{
    const char *kinds[] = {"", "текст", "файл", "каталог"};
    const QString name =
        item.offer.kind == OfferFrame::Text ? QStringLiteral("text.txt") : QFile::decodeName(item.offer.name);
    QString text =
        QStringLiteral(
            "От: %1\nПринято: %2\nВид: %3\nФайл: %4\nРазмер: %5\nSHA-256: %6\nКлюч: %7\nСообщение: %8\n")
            .arg(printable(from.name), localTime("%Y-%m-%d %H:%M:%S %z"),
                 QString::fromUtf8(kinds[item.offer.kind]), printable(name), QString::number(item.offer.size),
                 QString::fromLatin1(item.digest.toHex()), QString::fromLatin1(from.key.toHex()),
                 QString::fromLatin1(item.offer.identity.toHex()));
    if (from.isStranger)
        text += CInbox::strangerMark() + QLatin1Char('\n');
    return text.toUtf8();
}
