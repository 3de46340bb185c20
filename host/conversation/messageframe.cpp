#include "host/conversation/messageframe.h"

#include <QFile>
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
    noBounds,                                // 0 is no type
    {12 + 1, 12 + nameBytes + programBytes}, // Hello
    {52, 52 + fileNameBytes},                // Offer
    {48, 48 + reasonBytes},                  // Answer
    {4 + 1, 4 + dataBytes},                  // Data
    {4 + checkSize, 4 + checkSize},          // Finish
    {0, 0},                                  // Ping
    {0, 0},                                  // Pong
    {1, 1 + reasonBytes},                    // Bye
};

enum OfferFlags : quint8
{
    Executable = 1,
    Anew = 2,
    AtOnce = 4,
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

/// Takes a payload of a type apart. @param read fills a frame from the fields; @return whether they are sound
template <typename Frame>
std::optional<Frame> parsed(FrameType type, std::string_view payload, bool (*read)(Fields &, Frame &))
{
    const Bounds &limit = bounds[int(type)];
    if (payload.size() < limit.least || payload.size() > limit.most)
        return std::nullopt;
    Fields fields(payload);
    Frame frame;
    return read(fields, frame) ? std::make_optional(frame) : std::nullopt;
}

/// @return whether @a bytes are UTF-8 through and through; *text then
bool isText(const QByteArray &bytes, QString *text)
{
    *text = QString::fromUtf8(bytes);
    return text->toUtf8() == bytes;
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

QByteArray HelloFrame::toBytes() const
{
    const QByteArray nameText = cutUtf8(name, nameBytes);
    const QByteArray programText = cutUtf8(program, programBytes);
    return Writer(FrameType::Hello)
        .raw(QByteArray(magic, sizeof(magic)))
        .number(version)
        .number(port)
        .number(quint16(nameText.size()))
        .number(quint16(programText.size()))
        .raw(nameText)
        .raw(programText)
        .done();
}

std::optional<HelloFrame> HelloFrame::fromPayload(std::string_view payload)
{
    return parsed<HelloFrame>(FrameType::Hello, payload, [](Fields &fields, HelloFrame &hello) {
        if (fields.raw(sizeof(magic)) != QByteArray(magic, sizeof(magic)))
            return false;
        hello.version = fields.number<quint16>();
        hello.port = fields.number<quint16>();
        const quint16 nameSize = fields.number<quint16>();
        const quint16 programSize = fields.number<quint16>();
        return nameSize > 0 && std::size_t(nameSize) + programSize <= fields.left() &&
               isText(fields.raw(nameSize), &hello.name) && isText(fields.raw(programSize), &hello.program);
    });
}

QByteArray OfferFrame::toBytes() const
{
    const int flags = (isExecutable ? Executable : 0) | (isAnew ? Anew : 0) | (isAtOnce ? AtOnce : 0);
    return Writer(FrameType::Offer)
        .number(item)
        .number(quint8(kind))
        .number(quint8(flags))
        .number(quint16(0))
        .raw(identity)
        .number(stamp)
        .number(size)
        .number(modifiedNs)
        .number(listSize)
        .raw(name.left(fileNameBytes))
        .done();
}

QString titleOf(const OfferFrame &offer)
{
    if (offer.kind == OfferFrame::Text)
        return QStringLiteral("текст");
    const QString name = QFile::decodeName(offer.name);
    return offer.kind == OfferFrame::Tree ? name + QLatin1Char('/') : name;
}

std::optional<OfferFrame> OfferFrame::fromPayload(std::string_view payload)
{
    return parsed<OfferFrame>(FrameType::Offer, payload, [](Fields &fields, OfferFrame &offer) {
        offer.item = fields.number<quint32>();
        const quint8 kindByte = fields.number<quint8>();
        const quint8 flags = fields.number<quint8>();
        const quint16 zero = fields.number<quint16>();
        offer.identity = fields.raw(identitySize);
        offer.stamp = fields.number<quint64>();
        offer.size = fields.number<qint64>();
        offer.modifiedNs = fields.number<qint64>();
        offer.listSize = fields.number<quint32>();
        offer.name = fields.raw(fields.left());
        offer.kind = Kind(kindByte);
        offer.isExecutable = flags & Executable;
        offer.isAnew = flags & Anew;
        offer.isAtOnce = flags & AtOnce;
        const bool isListSound = kindByte == Tree ? offer.listSize <= offer.size : offer.listSize == 0;
        return kindByte >= Text && kindByte <= Tree && flags <= (Executable | Anew | AtOnce) && zero == 0 &&
               offer.size >= 0 && isListSound;
    });
}

QByteArray AnswerFrame::toBytes() const
{
    return Writer(FrameType::Answer)
        .number(item)
        .number(quint8(verdict))
        .raw(QByteArray(3, '\0'))
        .number(have)
        .raw(digest.leftJustified(digestSize, '\0', true))
        .raw(cutUtf8(reason, reasonBytes))
        .done();
}

std::optional<AnswerFrame> AnswerFrame::fromPayload(std::string_view payload)
{
    return parsed<AnswerFrame>(FrameType::Answer, payload, [](Fields &fields, AnswerFrame &answer) {
        answer.item = fields.number<quint32>();
        const quint8 verdictByte = fields.number<quint8>();
        const bool zeros = fields.raw(3) == QByteArray(3, '\0');
        answer.have = fields.number<qint64>();
        answer.digest = fields.raw(digestSize);
        answer.verdict = Verdict(verdictByte);
        if (verdictByte == Send)
            answer.digest.truncate(checkSize);
        return verdictByte <= Refused && zeros && answer.have >= 0 &&
               isText(fields.raw(fields.left()), &answer.reason);
    });
}

QByteArray FinishFrame::toBytes() const
{
    return Writer(FrameType::Finish).number(item).raw(check).done();
}

std::optional<FinishFrame> FinishFrame::fromPayload(std::string_view payload)
{
    return parsed<FinishFrame>(FrameType::Finish, payload, [](Fields &fields, FinishFrame &finish) {
        finish.item = fields.number<quint32>();
        finish.check = fields.raw(checkSize);
        return true;
    });
}

QByteArray ByeFrame::toBytes() const
{
    return Writer(FrameType::Bye).number(quint8(code)).raw(cutUtf8(reason, reasonBytes)).done();
}

std::optional<ByeFrame> ByeFrame::fromPayload(std::string_view payload)
{
    return parsed<ByeFrame>(FrameType::Bye, payload, [](Fields &fields, ByeFrame &bye) {
        const quint8 codeByte = fields.number<quint8>();
        bye.code = Code(codeByte);
        return codeByte <= NameTaken && isText(fields.raw(fields.left()), &bye.reason);
    });
}

QByteArray emptyFrame(FrameType type)
{
    return Writer(type).done();
}

char *startDataFrame(QByteArray *frame, quint32 item, int size)
{
    frame->resize(dataHeaderSize + size);
    char *bytes = frame->data();
    std::memset(bytes, 0, headerSize);
    bytes[0] = char(FrameType::Data);
    qToBigEndian(quint32(4 + size), bytes + 4);
    qToBigEndian(item, bytes + headerSize);
    return bytes + dataHeaderSize;
}

bool isVersion1(const QByteArray &beginning)
{
    static const char greeting[] = {1, 0, 0, 0}; // its first frame; TLS begins with 22
    return beginning.startsWith(QByteArray::fromRawData(greeting, sizeof(greeting)));
}

QByteArray version1Farewell(const QString &reason)
{
    return Writer(FrameType::Bye).raw(cutUtf8(reason, reasonBytes)).done();
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
            *frame = {FrameType::Data, {chunk.constData() + position, std::size_t(size)}, dataItem};
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
        if (FrameType(kept.at(0)) == FrameType::Data) {
            dataItem = qFromBigEndian<quint32>(kept.constData() + headerSize);
            dataLeft = int(qFromBigEndian<quint32>(kept.constData() + 4)) - 4;
            kept.resize(0);
            frameSize = 0;
            continue;
        }
        *frame = {
            FrameType(kept.at(0)), {kept.constData() + headerSize, std::size_t(frameSize - headerSize)}, 0};
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
    frameSize = FrameType(type) == FrameType::Data ? dataHeaderSize : headerSize + int(length);
    return true;
}
