// The frames of the message protocol: to bytes and back. Pure: no device, no clock, no Qt events.
//
//   offset  size  field
//        0     1  type                FrameType
//        1     3  zero
//        4     4  length n            big-endian; bounded by the type, checked before anything is kept
//        8     n  payload             drawn at each frame below; numbers are big-endian, texts UTF-8
//
// docs/protocol.md tells who sends what when.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <string_view>

enum class FrameType : quint8
{
    Greeting = 1,
    Offer = 2,
    Answer = 3,
    Data = 4,
    Finish = 5,
    Ping = 6,
    Pong = 7,
    Bye = 8,
};

namespace FrameLimits {
constexpr int headerSize = 8;
constexpr int digestSize = 32;
constexpr int nameBytes = 1024;
constexpr int reasonBytes = 512;
constexpr int dataBytes = 256 * 1024;
} // namespace FrameLimits

/// The first frame of each side: who speaks, and in which version.
///
///        0     4  "ABNT"
///        4     2  version, 1
///        6     2  length n of the name, 1 to 1024
///        8     n  name                what follows it is passed over
struct GreetingFrame
{
    static constexpr quint16 currentVersion = 1;

    quint16 version = currentVersion;
    QString name;

    QByteArray toBytes() const;
    static std::optional<GreetingFrame> fromPayload(std::string_view payload);
};

/// "I have this for you."
///
///        0     4  item                number within the connection
///        4     1  kind                ItemKind
///        5     3  zero
///        8     8  size                bytes, 0 to 2^63 - 1
///       16     n  name of the file    0 to 1024 bytes
struct OfferFrame
{
    enum Kind : quint8
    {
        Text = 1,
        File = 2,
    };

    quint32 item = 0;
    Kind kind = Text;
    qint64 size = 0;
    QString name;

    QByteArray toBytes() const;
    static std::optional<OfferFrame> fromPayload(std::string_view payload);
};

/// What the receiver decides about an item: first whether it wants it, in the end whether it has it.
///
///        0     4  item
///        4     1  verdict             Verdict
///        5    32  SHA-256 of what was stored, otherwise zeros
///       37     n  reason for a refusal, 0 to 512 bytes
struct AnswerFrame
{
    enum Verdict : quint8
    {
        Welcome = 0, // send it
        Stored = 1,  // it is safe here
        Refused = 2, // not, or not any more
    };

    quint32 item = 0;
    Verdict verdict = Refused;
    QByteArray digest; // 32 bytes when Stored
    QString reason;

    QByteArray toBytes() const;
    static std::optional<AnswerFrame> fromPayload(std::string_view payload);
};

/// "That was all of it."
///
///        0     4  item
///        4    32  SHA-256 of its bytes
struct FinishFrame
{
    quint32 item = 0;
    QByteArray digest;

    QByteArray toBytes() const;
    static std::optional<FinishFrame> fromPayload(std::string_view payload);
};

/// Ping, Pong (no payload).
QByteArray emptyFrame(FrameType type);

/// Bye: 0 to 512 bytes of text, why the connection ends.
QByteArray byeFrame(const QString &reason);
std::optional<QString> byeReason(std::string_view payload);

/// Makes @a frame a Data frame of @a size bytes, 1 to dataBytes, whose payload is yet to be filled in.
/// @return where the payload goes; @a frame keeps its memory, so one array serves a whole file
char *startDataFrame(QByteArray *frame, int size);

/// A frame, or of a Data frame the next piece. The payload is valid until the next call.
struct FrameView
{
    FrameType type;
    std::string_view payload;
};

/// Cuts a stream of bytes into frames.
///
/// Keeps one short frame at most: the bytes of Data frames are handed through as they come.
class CFrameReader
{
public:
    enum Step
    {
        Ready,     // *frame is filled
        NeedMore,  // feed
        Malformed, // this is not our protocol; it stays so
    };

    /// Takes the bytes that follow; only after NeedMore, everything fed before is used up then.
    void feed(const QByteArray &bytes);

    Step next(FrameView *frame);

private:
    bool collect(int size);
    bool readHeader();

    QByteArray chunk;  // as it came from the channel
    int position = 0;  // of the first byte in it that is not used up
    QByteArray kept;   // the frame under way: header, then payload; never a Data frame's
    int dataLeft = 0;  // bytes of the current Data frame that are still to come
    int frameSize = 0; // header and payload of the frame under way, 0 while the header is incomplete
    bool frameTaken = false;
    bool malformed = false;
};
