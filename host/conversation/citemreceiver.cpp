#include "host/conversation/citemreceiver.h"

#include "common/global.h"
#include "host/text/localtime.h"
#include "host/text/untrustedtext.h"

namespace {

constexpr qint64 mostTextBytes = 1024 * 1024;
constexpr int mostRefusals = 16; // who goes on offering what we cannot take is not worth a connection
constexpr int shownTextBytes = 2048;
constexpr int shownTextLength = 500;

CItemReceiver::Reaction fault(const QString &how)
{
    CItemReceiver::Reaction reaction;
    reaction.fault = how;
    return reaction;
}

} // namespace

CItemReceiver::Reaction CItemReceiver::takeOffer(const OfferFrame &offer, const QString &sender)
{
    if (isOpen && message)
        return fault(QStringLiteral("предложение посреди передачи"));
    current = offer;
    from = sender;
    arrived = 0;
    beginning.clear();
    sha.take();
    isOpen = false;
    message.reset();
    if (offer.kind == OfferFrame::Text && (offer.size == 0 || offer.size > mostTextBytes))
        return refuse(QStringLiteral("Недопустимая длина текста"));

    QString error;
    const QString name = offer.name.isNull() ? QString(QLatin1String("")) : offer.name;
    message = store->begin(offer.kind == OfferFrame::Text ? QString() : name, offer.size, &error);
    if (!message)
        return refuse(error);
    isOpen = true;
    Reaction reaction;
    reaction.reply = AnswerFrame{offer.item, AnswerFrame::Welcome, {}, {}}.toBytes();
    return reaction;
}

CItemReceiver::Reaction CItemReceiver::takeData(std::string_view bytes)
{
    if (!isOpen || qint64(bytes.size()) > current.size - arrived)
        return fault(QStringLiteral("данных больше, чем объявлено"));
    arrived += qint64(bytes.size());
    if (!message)
        return {}; // refused meanwhile; the sender may not have heard yet
    sha.add(bytes);
    if (current.kind == OfferFrame::Text && beginning.size() < shownTextBytes)
        beginning.append(bytes.data(), qMin(int(bytes.size()), shownTextBytes - beginning.size()));
    const QString error = message->append(bytes);
    return error.isNull() ? Reaction() : refuse(error);
}

CItemReceiver::Reaction CItemReceiver::takeFinish(const FinishFrame &finish)
{
    if (!isOpen || finish.item != current.item || (message && arrived != current.size))
        return fault(QStringLiteral("конец передачи не ко времени"));
    isOpen = false;
    if (!message)
        return {};
    const QByteArray digest = sha.take();
    if (digest != finish.digest)
        return refuse(QStringLiteral("Контрольная сумма не совпала"));

    QString directory;
    const QString error = message->finish(description(digest), &directory);
    if (!error.isNull())
        return refuse(error);
    message.reset();

    Reaction reaction;
    reaction.stored = true;
    reaction.reply = AnswerFrame{current.item, AnswerFrame::Stored, digest, {}}.toBytes();
    reaction.event = QStringLiteral("Принято от '%1': %2, %3, SHA-256 %4, каталог %5")
                         .arg(from, title(), Global::sizeString(current.size),
                              QString::fromLatin1(digest.toHex()), directory);
    return reaction;
}

/// The item is lost, the connection goes on.
CItemReceiver::Reaction CItemReceiver::refuse(const QString &reason)
{
    message.reset();
    if (++refusals > mostRefusals)
        return fault(QStringLiteral("слишком много отказов"));
    Reaction reaction;
    reaction.reply = AnswerFrame{current.item, AnswerFrame::Refused, {}, reason}.toBytes();
    reaction.error = QStringLiteral("Не принято от '%1': %2. %3").arg(from, title(), reason);
    return reaction;
}

QString CItemReceiver::title() const
{
    if (current.kind == OfferFrame::File)
        return QStringLiteral("файл '%1'").arg(current.name);
    return QStringLiteral("текст \"%1\"").arg(Global::cut(QString::fromUtf8(beginning), shownTextLength));
}

QByteArray CItemReceiver::description(const QByteArray &digest) const
{
    const bool isText = current.kind == OfferFrame::Text;
    return QStringLiteral("От: %1\nПринято: %2\nВид: %3\nФайл: %4\nРазмер: %5\nSHA-256: %6\n")
        .arg(printable(from), localTime("%Y-%m-%d %H:%M:%S %z"),
             isText ? QStringLiteral("текст") : QStringLiteral("файл"), message->fileName(),
             QString::number(current.size), QString::fromLatin1(digest.toHex()))
        .toUtf8();
}
