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
    if (state == Nothing && openNext())
        return offer();
    if (state != Sending)
        return frame;
    if (done == item->size)
        return finish();
    makeData(room);
    return frame;
}

/// Opens the next item that can be opened; those before it have failed.
bool CItemSender::openNext()
{
    for (int index = delivery.beginNext(); index >= 0; index = delivery.beginNext()) {
        item = &delivery.items()[std::size_t(index)];
        if (openItem())
            return true;
        delivery.failItem(spoiled);
        closeFile();
    }
    state = Over;
    return false;
}

bool CItemSender::openItem()
{
    done = 0;
    spoiled = QString();
    sha.take(); // of an item that was broken off
    if (item->isText)
        return true;
    file = ::open(QFile::encodeName(item->path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status
    {};
    if (file < 0 || ::fstat(file, &status) != 0)
        spoiled = qt_error_string(errno);
    else if (!S_ISREG(status.st_mode) || status.st_size != item->size)
        spoiled = QStringLiteral("файл изменился");
    return spoiled.isNull();
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
    if (item->isText)
        std::memcpy(payload, item->text.constData() + done, std::size_t(size));
    else
        fillFromFile(payload, size);
    sha.add({payload, std::size_t(size)});
    done += size;
    delivery.addSent(size);
}

void CItemSender::fillFromFile(char *payload, int size)
{
    int filled = 0;
    while (filled < size && spoiled.isNull()) {
        const ssize_t count = ::read(file, payload + filled, std::size_t(size - filled));
        if (count == 0)
            spoiled = QStringLiteral("файл изменился");
        else if (count < 0 && errno != EINTR)
            spoiled = qt_error_string(errno);
        filled += int(qMax<ssize_t>(count, 0));
    }
    std::memset(payload + filled, 0, std::size_t(size - filled));
}

QByteArray CItemSender::finish()
{
    digest = sha.take();
    if (!spoiled.isNull())
        digest.fill('\0');
    state = Finished;
    closeFile();
    return FinishFrame{number, digest}.toBytes();
}

QString CItemSender::takeAnswer(const AnswerFrame &answer, QString *event)
{
    if (state == Nothing || state == Over || answer.item != number)
        return QStringLiteral("ответ без вопроса");
    if (answer.verdict == AnswerFrame::Refused) {
        delivery.failItem(spoiled.isNull() ? QStringLiteral("абонент не принял: %1").arg(answer.reason)
                                           : spoiled);
        endItem();
    } else if (state == Offered && answer.verdict == AnswerFrame::Welcome) {
        state = Sending;
    } else if (state == Finished && answer.verdict == AnswerFrame::Stored) {
        if (answer.digest != digest)
            return QStringLiteral("подтверждена чужая контрольная сумма");
        *event = QStringLiteral("Абонент сохранил: %1, %2, SHA-256 %3")
                     .arg(item->title, Global::sizeString(item->size), QString::fromLatin1(digest.toHex()));
        delivery.confirm();
        endItem();
    } else {
        return QStringLiteral("ответ не ко времени");
    }
    return QString();
}

void CItemSender::endItem()
{
    state = Nothing;
    closeFile();
}

void CItemSender::closeFile()
{
    if (file >= 0)
        ::close(file);
    file = -1;
}
