#include "host/conversation/citemsender.h"

#include "common/global.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

CItemSender::CItemSender(CDelivery &ofDelivery) : delivery(ofDelivery)
{
    frame.reserve(FrameLimits::headerSize + FrameLimits::dataBytes); // a reserved array keeps its memory
}

CItemSender::~CItemSender()
{
    closeFile();
}

QByteArray CItemSender::nextFrame(int room)
{
    frame.resize(0);
    if (state == Nothing) {
        const int index = delivery.takeUp();
        item = index >= 0 ? &delivery.items()[std::size_t(index)] : nullptr;
        if (!item)
            state = Over;
        else if (openItem())
            return offer();
    } else if (state == Sending && done < item->size) {
        makeData(room);
    } else if (state == Sending) {
        digest = sha.take();
        state = Finished;
        closeFile();
        return FinishFrame{number, digest}.toBytes();
    }
    return frame;
}

bool CItemSender::openItem()
{
    done = 0;
    sha.take(); // of an item that was broken off
    if (item->isText)
        return true;
    file = ::open(QFile::encodeName(item->path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status
    {};
    if (file < 0 || ::fstat(file, &status) != 0)
        giveUp(CDelivery::Unreadable, qt_error_string(errno));
    else if (!S_ISREG(status.st_mode) || status.st_size != item->size)
        giveUp(CDelivery::Unreadable, QStringLiteral("файл изменился"));
    return state != Over;
}

QByteArray CItemSender::offer()
{
    OfferFrame question;
    question.item = ++number;
    question.kind = item->isText ? OfferFrame::Text : OfferFrame::File;
    question.size = item->size;
    question.name = item->isText ? QString() : item->title;
    state = Offered;
    return question.toBytes();
}

void CItemSender::makeData(int room)
{
    const qint64 wanted = qBound(1, room - FrameLimits::headerSize, FrameLimits::dataBytes);
    const int size = int(qMin(wanted, item->size - done));
    char *payload = startDataFrame(&frame, size);
    if (item->isText) {
        std::memcpy(payload, item->text.constData() + done, std::size_t(size));
    } else {
        for (int filled = 0; filled < size;) {
            const ssize_t count = ::read(file, payload + filled, std::size_t(size - filled));
            if (count == 0 || (count < 0 && errno != EINTR)) {
                frame.resize(0);
                giveUp(CDelivery::Unreadable, count == 0 ? QStringLiteral("файл изменился")
                                                         : qt_error_string(errno));
                return;
            }
            filled += int(qMax<ssize_t>(count, 0));
        }
    }
    sha.add({payload, std::size_t(size)});
    done += size;
    delivery.addSent(size);
}

QString CItemSender::takeAnswer(const AnswerFrame &answer, QString *event)
{
    if (state == Nothing || state == Over || answer.item != number)
        return QStringLiteral("ответ без вопроса");
    if (answer.verdict == AnswerFrame::Refused) {
        giveUp(CDelivery::Refused, answer.reason);
    } else if (state == Offered && answer.verdict == AnswerFrame::Welcome) {
        state = Sending;
    } else if (state == Finished && answer.verdict == AnswerFrame::Stored) {
        if (answer.digest != digest)
            return QStringLiteral("подтверждена чужая контрольная сумма");
        *event = QStringLiteral("Абонент сохранил: %1, %2, SHA-256 %3")
                     .arg(item->title, Global::sizeString(item->size), QString::fromLatin1(digest.toHex()));
        delivery.confirm();
        state = Nothing;
    } else {
        return QStringLiteral("ответ не ко времени");
    }
    return QString();
}

void CItemSender::giveUp(CDelivery::State reason, const QString &trouble)
{
    delivery.fail(reason, QStringLiteral("%1: %2").arg(item->title, trouble));
    state = Over;
    closeFile();
}

void CItemSender::closeFile()
{
    if (file >= 0)
        ::close(file);
    file = -1;
}
