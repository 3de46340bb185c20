// The frames of the message protocol, version 2: to bytes and back. Pure: no device, no clock, no Qt events.
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
    Hello = 1,
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
constexpr int digestSize = 32; // SHA-256
constexpr int checkSize = 16;  // XXH3-128
constexpr int identitySize = 16;
constexpr int nameBytes = 1024;    // of an abonent
constexpr int fileNameBytes = 255; // of a file, as Linux has it
constexpr int programBytes = 64;
constexpr int reasonBytes = 512;
constexpr int dataBytes = 256 * 1024;
constexpr int dataHeaderSize = headerSize + 4;
} // namespace FrameLimits

/// The first frame of each side: who speaks, and in which version.
///
///        0     4  "ABNT"
///        4     2  version, 2
///        6     2  port on which the speaker answers calls, or 0
///        8     2  length n of the name, 1 to 1024
///       10     2  length m of the program's version, 0 to 64
///       12     n  name
///    12 + n    m  version of the program; what follows it is passed over
struct HelloFrame
{
    static constexpr quint16 currentVersion = 2;

    quint16 version = currentVersion;
    quint16 port = 0;
    QString name;
    QString program;

    QByteArray toBytes() const;
    static std::optional<HelloFrame> fromPayload(std::string_view payload);
};

/// "I have this for you."
///
///        0     4  item                number within the connection
///        4     1  kind                ItemKind
///        5     1  flags               1 executable, 2 anew, 4 at once
///        6     2  zero
///        8    16  identity            of the message, random
///       24     8  stamp               of this state of the contents; another stamp, another contents
///       32     8  size                bytes, 0 to 2^63 - 1
///       40     8  time of the last change, ns since 1970, signed
///       48     4  size of the list that a tree begins with, otherwise 0
///       52     n  name of a file or tree, 0 to 255 bytes, as the sender's system has it
struct OfferFrame
{
    enum Kind : quint8
    {
        Text = 1,
        File = 2,
        Tree = 3,
    };

    quint32 item = 0;
    Kind kind = Text;
    bool isExecutable = false;
    bool isAnew = false;   // what the receiver has of it is wrong: from the first byte again
    bool isAtOnce = false; // its bytes follow without waiting for an answer
    QByteArray identity;
    quint64 stamp = 0;
    qint64 size = 0;
    qint64 modifiedNs = 0;
    quint32 listSize = 0;
    QByteArray name;

    QByteArray toBytes() const;
    static std::optional<OfferFrame> fromPayload(std::string_view payload);
};

/// What to call a message to people: "текст", the name of the file, "каталог/".
QString titleOf(const OfferFrame &offer);

/// What the receiver decides about an item: first whether it wants it, in the end whether it has it.
///
///        0     4  item
///        4     1  verdict             Verdict
///        5     3  zero
///        8     8  bytes that the receiver has: Send; otherwise 0
///       16    32  Send: XXH3-128 of these bytes and 16 zeros; Stored: SHA-256 of all of it; otherwise zeros
///       48     n  reason for a refusal, 0 to 512 bytes
struct AnswerFrame
{
    enum Verdict : quint8
    {
        Send = 0,    // the bytes behind those that the receiver has
        Stored = 1,  // it is safe here
        Later = 2,   // not now: no room
        Refused = 3, // not at all
    };

    quint32 item = 0;
    Verdict verdict = Refused;
    qint64 have = 0;
    QByteArray digest; // 16 bytes when Send, 32 when Stored
    QString reason;

    QByteArray toBytes() const;
    static std::optional<AnswerFrame> fromPayload(std::string_view payload);
};

/// "That was all of it."
///
///        0     4  item
///        4    16  XXH3-128 of its bytes
struct FinishFrame
{
    quint32 item = 0;
    QByteArray check;

    QByteArray toBytes() const;
    static std::optional<FinishFrame> fromPayload(std::string_view payload);
};

/// Why the connection ends.
///
///        0     1  code                Code
///        1     n  text for people, 0 to 512 bytes
struct ByeFrame
{
    enum Code : quint8
    {
        Done = 0,       // nothing more to say
        Stopping = 1,   // the program ends
        WrongOne = 2,   // another abonent was called
        Unwelcome = 3,  // the rules of this side do not let the other one in
        Unreadable = 4, // another version, or damaged
        NameTaken = 5,  // the name of the other one belongs to another key here
    };

    Code code = Done;
    QString reason;

    QByteArray toBytes() const;
    static std::optional<ByeFrame> fromPayload(std::string_view payload);
};

/// Ping, Pong (no payload).
QByteArray emptyFrame(FrameType type);

/// Makes @a frame a Data frame of @a size bytes, 1 to dataBytes, whose bytes are yet to be filled in.
///
///        0     4  item
///        4     n  bytes of the item, 1 to 262144
///
/// @return where they go; @a frame keeps its memory, so one array serves a whole file
char *startDataFrame(QByteArray *frame, quint32 item, int size);

/// Version 1 spoke without TLS. What its callers begin with, and how to tell them why it ends.
bool isVersion1(const QByteArray &beginning);
QByteArray version1Farewell(const QString &reason);

/// A frame, or of a Data frame the next piece. The payload is valid until the next call.
struct FrameView
{
    FrameType type;
    std::string_view payload; // of a Data frame without the number of the item
    quint32 item;             // of a Data frame
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

    QByteArray chunk;     // as it came
    int position = 0;     // of the first byte in it that is not used up
    QByteArray kept;      // the frame under way: header, then payload; of a Data frame header and item
    int dataLeft = 0;     // bytes of the current Data frame that are still to come
    quint32 dataItem = 0; // its item
    int frameSize = 0;    // what has to be collected of the frame under way, 0 while the header is incomplete
    bool frameTaken = false;
    bool malformed = false;
};
