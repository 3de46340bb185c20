// Frames against bytes drawn by hand: whole, in pieces, cut, and damaged.
#include "host/conversation/messageframe.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

#include <cstring>

namespace {

QByteArray hex(const QByteArray &text)
{
    return QByteArray::fromHex(text);
}

const QByteArray digest(FrameLimits::digestSize, '\x5a');
const QByteArray digestHex = digest.toHex();

/// What a reader makes of a stream that comes in pieces: "type:payload" of each frame, Data pieces joined.
QByteArray readAll(const QByteArray &stream, int pieceSize)
{
    CFrameReader reader;
    QByteArray seen;
    FrameView frame{};
    bool inData = false;
    for (int at = 0; at < stream.size(); at += pieceSize) {
        reader.feed(stream.mid(at, pieceSize));
        CFrameReader::Step step = CFrameReader::NeedMore;
        while ((step = reader.next(&frame)) == CFrameReader::Ready) {
            if (!inData || frame.type != FrameType::Data)
                seen += ' ' + QByteArray::number(int(frame.type)) + ':';
            inData = frame.type == FrameType::Data;
            seen += QByteArray(frame.payload.data(), int(frame.payload.size())).toHex();
        }
        if (step == CFrameReader::Malformed)
            return seen + " malformed";
    }
    return seen;
}

} // namespace

class TestMessageFrame : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void makesAndReadsTheDrawnBytes()
    {
        QByteArray data;
        std::memcpy(startDataFrame(&data, 3), "abc", 3);
        const QByteArray zeros(64, '0');
        const QPair<QByteArray, QByteArray> frames[] = {
            {GreetingFrame{1, "Я"_s}.toBytes(), "01000000 0000000a 41424e54 0001 0002 d0af"},
            {OfferFrame{7, OfferFrame::Text, 5, QString()}.toBytes(),
             "02000000 00000010 00000007 01 000000 0000000000000005"},
            {OfferFrame{7, OfferFrame::File, qint64(1) << 40, "a"_s}.toBytes(),
             "02000000 00000011 00000007 02 000000 0000010000000000 61"},
            {AnswerFrame{7, AnswerFrame::Welcome, {}, {}}.toBytes(), "03000000 00000025 00000007 00" + zeros},
            {AnswerFrame{7, AnswerFrame::Stored, digest, {}}.toBytes(),
             "03000000 00000025 00000007 01" + digestHex},
            {AnswerFrame{7, AnswerFrame::Refused, {}, "n"_s}.toBytes(),
             "03000000 00000026 00000007 02" + zeros + "6e"},
            {data, "04000000 00000003 616263"},
            {FinishFrame{7, digest}.toBytes(), "05000000 00000024 00000007" + digestHex},
            {emptyFrame(FrameType::Ping), "06000000 00000000"},
            {byeFrame("z"_s), "08000000 00000001 7a"},
        };
        for (const auto &[made, text] : frames) {
            const QByteArray drawn = hex(text);
            QCOMPARE(made.toHex(), drawn.toHex());
            // Twice in a row, so that what a frame leaves behind would show in the next.
            const bool isData = drawn[0] == '\4';
            const QByteArray once = ' ' + QByteArray::number(int(drawn[0])) + ':' + drawn.mid(8).toHex();
            const QByteArray twice = once + (isData ? drawn.mid(8).toHex() : once);
            for (const int piece : {1, 7, 1000})
                QCOMPARE(readAll(drawn + drawn, piece), twice);
            // Cut at each byte: what is missing is waited for, and nothing but Data is handed out early.
            for (int size = 0; size < drawn.size(); ++size) {
                const QByteArray seen = readAll(drawn.left(size), 1000);
                QVERIFY(seen.isEmpty() || (isData && once.startsWith(seen)));
            }
        }
    }

    void checksLengthsBeforeAnythingIsKept()
    {
        const auto isAccepted = [](int type, quint32 length, bool isZeroed = true) {
            QByteArray header(8, '\0');
            header[0] = char(type);
            header[2] = isZeroed ? 0 : 1;
            qToBigEndian(length, header.data() + 4);
            CFrameReader reader;
            FrameView frame{};
            reader.feed(header);
            const bool isMalformed = reader.next(&frame) == CFrameReader::Malformed;
            reader.feed(hex("06000000 00000000")); // a good frame behind a bad one changes nothing
            return !isMalformed || reader.next(&frame) != CFrameReader::Malformed;
        };
        const quint32 bounds[][3] = {{1, 9, 1032}, {2, 16, 1040}, {3, 37, 549}, {4, 1, 262144},
                                     {5, 36, 36},  {6, 0, 0},     {7, 0, 0},    {8, 0, 512}};
        for (const auto &[type, least, most] : bounds) {
            QVERIFY2(isAccepted(int(type), least) && isAccepted(int(type), most),
                     qPrintable(QString::number(type)));
            for (const quint32 length : {least - 1, most + 1, 0x7fffffffu, 0x80000000u, 0xffffffffu})
                QVERIFY2(!isAccepted(int(type), length), qPrintable("%1: %2"_s.arg(type).arg(length)));
        }
        for (const int type : {0, 9, 127, 255})
            QVERIFY(!isAccepted(type, 0));
        QVERIFY(!isAccepted(6, 0, false));
    }

    void refusesDamagedPayloads()
    {
        const auto view = [](const QByteArray &bytes) {
            return std::string_view(bytes.constData(), std::size_t(bytes.size()));
        };
        for (const char *greeting : {"41424e55 0001 0001 61",      // another protocol
                                     "41424e54 0001 0000 61",      // no name
                                     "41424e54 0001 0002 61",      // a name longer than the frame
                                     "41424e54 0001 0002 ff61",    // not UTF-8
                                     "41424e54 0001 0003 eda080"}) // half a surrogate pair
            QVERIFY2(!GreetingFrame::fromPayload(view(hex(greeting))), greeting);
        const auto later =
            GreetingFrame::fromPayload(view(hex("41424e54 0002 0001 61 0102"))); // with more behind it
        QVERIFY(later && later->version == 2 && later->name == QLatin1String("a"));

        for (const char *offer : {"00000001 00 000000 0000000000000001", // no such kind
                                  "00000001 03 000000 0000000000000001",
                                  "00000001 01 000001 0000000000000001",     // not zero
                                  "00000001 02 000000 ffffffffffffffff",     // a negative size
                                  "00000001 02 000000 0000000000000001 c3"}) // half a character
            QVERIFY2(!OfferFrame::fromPayload(view(hex(offer))), offer);
        QVERIFY(!AnswerFrame::fromPayload(view(hex("00000001 03") + digest)));
        QVERIFY(!AnswerFrame::fromPayload(view(hex("00000001 02") + digest + "\xff")));
    }

    void cutsLongTextsBetweenCharacters()
    {
        const QString longText(2000, QChar(0x044f)); // two bytes each
        const QByteArray greeting = GreetingFrame{1, QLatin1Char('a') + longText}.toBytes();
        const auto read =
            GreetingFrame::fromPayload({greeting.constData() + 8, std::size_t(greeting.size() - 8)});
        QVERIFY(read);
        QCOMPARE(read->name, QLatin1Char('a') + longText.left(511)); // 1023 bytes: 1024 would halve a letter
        QCOMPARE(byeFrame(longText).size(), 8 + 512);
    }
};

QTEST_APPLESS_MAIN(TestMessageFrame)
#include "tst_messageframe.moc"
