#include "host/conversation/messageframe.h"

#include <QtEndian>

#include <cstring>

using namespace FrameLimits;

namespace {

constexpr char magic[] = {'A', 'B', 'N', 'T'};

struct Bounds
{
    quint32 least;
    quint32 most;
};

// The length of a payload, by type. Nothing is kept or allocated before it has been checked here.
constexpr Bounds noBounds{1, 0};
constexpr Bounds bounds[] = {
    noBounds,                                       // 0 is no type
    {8 + 1, 8 + nameBytes},                         // Greeting
    {16, 16 + nameBytes},                           // Offer
    {5 + digestSize, 5 + digestSize + reasonBytes}, // Answer
    {1, dataBytes},                                 // Data
    {4 + digestSize, 4 + digestSize},               // Finish
    {0, 0},                                         // Ping
    {0, 0},                                         // Pong
    {0, reasonBytes},                               // Bye
};

/// Puts a frame together.
class Writer
{
public:
    explicit Writer(FrameType type) : bytes(headerSize, '\0') { bytes[0] = char(type); }

    template <typename Number>
    Writer &number(Number value)
    {
        char buffer[sizeof(Number)];
        qToBigEndian(value, buffer);
        bytes.append(buffer, int(sizeof(Number)));
        return *this;
    }

    Writer &raw(const QByteArray &value)
    {
        bytes += value;
        return *this;
    }

    QByteArray done()
    {
        qToBigEndian(quint32(bytes.size() - headerSize), bytes.data() + 4);
        return bytes;
    }

private:
    QByteArray bytes;
};

/// Takes a payload apart; the bounds above say that the fixed fields are there.
class Fields
{
public:
    explicit Fields(std::string_view payload) : rest(payload) {}

    template <typename Number>
    Number number()
    {
        const Number value = qFromBigEndian<Number>(rest.data());
        rest.remove_prefix(sizeof(Number));
        return value;
    }

    QByteArray raw(std::size_t size)
    {
        const QByteArray value(rest.data(), int(size));
        rest.remove_prefix(size);
        return value;
    }

    std::size_t left() const { return rest.size(); }

private:
    std::string_view rest;
};

bool fits(FrameType type, std::string_view payload)
{
    const Bounds &limit = bounds[int(type)];
    return payload.size() >= limit.least && payload.size() <= limit.most;
}

/// A text that is UTF-8 through and through.
std::optional<QString> textOf(const QByteArray &bytes)
{
    const QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes)
        return std::nullopt;
    return text;
}

/// At most @a limit bytes of UTF-8, cut between characters.
QByteArray cutUtf8(const QString &text, int limit)
{
    QByteArray bytes = text.toUtf8();
    if (bytes.size() <= limit)
        return bytes;
    while (limit > 0 && (bytes.at(limit) & 0xC0) == 0x80)
        --limit;
    bytes.truncate(limit);
    return bytes;
}

} // namespace

QByteArray GreetingFrame::toBytes() const
{
    const QByteArray nameText = cutUtf8(name, nameBytes);
    return Writer(FrameType::Greeting)
        .raw(QByteArray(magic, sizeof(magic)))
        .number(version)
        .number(quint16(nameText.size()))
        .raw(nameText)
        .done();
}

std::optional<GreetingFrame> GreetingFrame::fromPayload(std::string_view payload)
{
    if (!fits(FrameType::Greeting, payload))
        return std::nullopt;
    Fields fields(payload);
    if (fields.raw(sizeof(magic)) != QByteArray(magic, sizeof(magic)))
        return std::nullopt;
    GreetingFrame greeting;
    greeting.version = fields.number<quint16>();
    const quint16 size = fields.number<quint16>();
    if (size == 0 || size > fields.left())
        return std::nullopt;
    const std::optional<QString> name = textOf(fields.raw(size));
    if (!name)
        return std::nullopt;
    greeting.name = *name;
    return greeting;
}

QByteArray OfferFrame::toBytes() const
{
    return Writer(FrameType::Offer)
        .number(item)
        .number(quint8(kind))
        .raw(QByteArray(3, '\0'))
        .number(size)
        .raw(cutUtf8(name, nameBytes))
        .done();
}

std::optional<OfferFrame> OfferFrame::fromPayload(std::string_view payload)
{
    if (!fits(FrameType::Offer, payload))
        return std::nullopt;
    Fields fields(payload);
    OfferFrame offer;
    offer.item = fields.number<quint32>();
    const quint8 kind = fields.number<quint8>();
    const bool zeros = fields.raw(3) == QByteArray(3, '\0');
    offer.size = fields.number<qint64>();
    const std::optional<QString> name = textOf(fields.raw(fields.left()));
    if ((kind != Text && kind != File) || !zeros || offer.size < 0 || !name)
        return std::nullopt;
    offer.kind = Kind(kind);
    offer.name = *name;
    return offer;
}

QByteArray AnswerFrame::toBytes() const
{
    return Writer(FrameType::Answer)
        .number(item)
        .number(quint8(verdict))
        .raw(digest.size() == digestSize ? digest : QByteArray(digestSize, '\0'))
        .raw(cutUtf8(reason, reasonBytes))
        .done();
}

std::optional<AnswerFrame> AnswerFrame::fromPayload(std::string_view payload)
{
    if (!fits(FrameType::Answer, payload))
        return std::nullopt;
    Fields fields(payload);
    AnswerFrame answer;
    answer.item = fields.number<quint32>();
    const quint8 verdict = fields.number<quint8>();
    answer.digest = fields.raw(digestSize);
    const std::optional<QString> reason = textOf(fields.raw(fields.left()));
    if (verdict > Refused || !reason)
        return std::nullopt;
    answer.verdict = Verdict(verdict);
    answer.reason = *reason;
    return answer;
}

QByteArray FinishFrame::toBytes() const
{
    return Writer(FrameType::Finish).number(item).raw(digest).done();
}

std::optional<FinishFrame> FinishFrame::fromPayload(std::string_view payload)
{
    if (!fits(FrameType::Finish, payload))
        return std::nullopt;
    Fields fields(payload);
    FinishFrame finish;
    finish.item = fields.number<quint32>();
    finish.digest = fields.raw(digestSize);
    return finish;
}

QByteArray emptyFrame(FrameType type)
{
    return Writer(type).done();
}

QByteArray byeFrame(const QString &reason)
{
    return Writer(FrameType::Bye).raw(cutUtf8(reason, reasonBytes)).done();
}

std::optional<QString> byeReason(std::string_view payload)
{
    return fits(FrameType::Bye, payload) ? textOf(QByteArray(payload.data(), int(payload.size())))
                                         : std::nullopt;
}

char *startDataFrame(QByteArray *frame, int size)
{
    frame->resize(headerSize + size);
    char *bytes = frame->data();
    std::memset(bytes, 0, headerSize);
    bytes[0] = char(FrameType::Data);
    qToBigEndian(quint32(size), bytes + 4);
    return bytes + headerSize;
}

void CFrameReader::feed(const QByteArray &bytes)
{
    Q_ASSERT_X(position == chunk.size(), "CFrameReader::feed", "bytes are left from before");
    chunk = bytes;
    position = 0;
}

CFrameReader::Step CFrameReader::next(FrameView *frame)
{
    if (frameTaken) {
        kept.resize(0);
        frameSize = 0;
        frameTaken = false;
    }
    while (!malformed) {
        if (dataLeft > 0) {
            const int size = qMin(dataLeft, chunk.size() - position);
            if (size == 0)
                return NeedMore;
            *frame = {FrameType::Data, {chunk.constData() + position, std::size_t(size)}};
            position += size;
            dataLeft -= size;
            return Ready;
        }
        if (frameSize == 0) {
            if (!collect(headerSize))
                return NeedMore;
            malformed = !readHeader();
            continue;
        }
        if (!collect(frameSize))
            return NeedMore;
        *frame = {FrameType(kept.at(0)),
                  {kept.constData() + headerSize, std::size_t(frameSize - headerSize)}};
        frameTaken = true;
        return Ready;
    }
    return Malformed;
}

/// Brings the frame under way to @a size bytes, as far as the chunk goes.
bool CFrameReader::collect(int size)
{
    const int taken = qMin(size - kept.size(), chunk.size() - position);
    kept.append(chunk.constData() + position, taken);
    position += taken;
    return kept.size() == size;
}

bool CFrameReader::readHeader()
{
    const quint8 type = quint8(kept.at(0));
    const quint32 length = qFromBigEndian<quint32>(kept.constData() + 4);
    if (type >= std::size(bounds) || kept.at(1) != 0 || kept.at(2) != 0 || kept.at(3) != 0)
        return false;
    if (length < bounds[type].least || length > bounds[type].most)
        return false;
    if (FrameType(type) == FrameType::Data) {
        dataLeft = int(length);
        kept.resize(0);
    } else {
        frameSize = headerSize + int(length);
    }
    return true;
}
