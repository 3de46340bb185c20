// Frames against bytes drawn by hand: whole, in pieces, cut, and damaged.
#include "host/conversation/messageframe.h"
#include "host/conversation/treelist.h"
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
const QByteArray identity(FrameLimits::identitySize, '\xa5');

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
        std::memcpy(startDataFrame(&data, 7, 3), "abc", 3);
        const QByteArray zeros(64, '0');
        OfferFrame text{7, OfferFrame::Text, false, false, true, identity, 9, 5, -1, 0, {}};
        OfferFrame tree{7, OfferFrame::Tree, true, true, false, identity, 9, qint64(1) << 40, 1, 3, "a"};
        const QPair<QByteArray, QByteArray> frames[] = {
            {HelloFrame{2, 18001, "Я"_s, "3"_s}.toBytes(),
             "01000000 0000000f 41424e54 0002 4651 0002 0001 d0af 33"},
            {text.toBytes(), "02000000 00000034 00000007 01 04 0000" + identity.toHex() +
                                 "0000000000000009 0000000000000005 ffffffffffffffff 00000000"},
            {tree.toBytes(), "02000000 00000035 00000007 03 03 0000" + identity.toHex() +
                                 "0000000000000009 0000010000000000 0000000000000001 00000003 61"},
            {AnswerFrame{7, AnswerFrame::Send, 5, digest, {}}.toBytes(),
             "03000000 00000030 00000007 00 000000 0000000000000005" + digestHex},
            {AnswerFrame{7, AnswerFrame::Later, 0, {}, "n"_s}.toBytes(),
             "03000000 00000031 00000007 02 000000 0000000000000000" + zeros + "6e"},
            {data, "04000000 00000007 00000007 616263"},
            {FinishFrame{7, digest.left(16)}.toBytes(), "05000000 00000014 00000007" + digestHex.left(32)},
            {emptyFrame(FrameType::Ping), "06000000 00000000"},
            {ByeFrame{ByeFrame::WrongOne, "z"_s}.toBytes(), "08000000 00000002 02 7a"},
        };
        for (const auto &[made, drawing] : frames) {
            const QByteArray drawn = hex(drawing);
            QCOMPARE(made.toHex(), drawn.toHex());
            // Twice in a row, so that what a frame leaves behind would show in the next.
            const bool isData = drawn[0] == '\4';
            const QByteArray once =
                ' ' + QByteArray::number(int(drawn[0])) + ':' + drawn.mid(isData ? 12 : 8).toHex();
            const QByteArray twice = once + (isData ? drawn.mid(12).toHex() : once);
            for (const int piece : {1, 1000})
                QCOMPARE(readAll(drawn + drawn, piece), twice);
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
        const quint32 bounds[][3] = {{1, 13, 1100}, {2, 52, 307}, {3, 48, 560}, {4, 5, 262148},
                                     {5, 20, 20},   {6, 0, 0},    {7, 0, 0},    {8, 1, 513}};
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
        for (const char *hello : {"41424e55 0002 0000 0001 0000 61",      // another protocol
                                  "41424e54 0002 0000 0000 0000 61",      // no name
                                  "41424e54 0002 0000 0002 0000 61",      // a name longer than the frame
                                  "41424e54 0002 0000 0001 ffff 61",      // a version likewise
                                  "41424e54 0002 0000 0002 0000 ff61",    // not UTF-8
                                  "41424e54 0002 0000 0003 0000 eda080"}) // half a surrogate pair
            QVERIFY2(!HelloFrame::fromPayload(view(hex(hello))), hello);
        const auto later = HelloFrame::fromPayload(view(hex("41424e54 0003 0000 0001 0001 61 32 0102")));
        QVERIFY(later && later->version == 3 && later->name == "a"_s && later->program == "2"_s); // and more

        const QByteArray fields = identity.toHex() + "0000000000000009";
        const QByteArray good = "00000001 03 00 0000" + fields + "0000000000000005 0000000000000001 00000005";
        QVERIFY(OfferFrame::fromPayload(view(hex(good))));
        const QPair<int, const char *> damages[] = {{4, "00"}, {4, "04"},  {4, "01"}, {5, "08"},
                                                    {7, "01"}, {32, "80"}, {51, "06"}};
        for (const auto &[at, byte] :
             damages) { // kind, flags, zero, size, a list in a text or beyond the size
            QByteArray bytes = hex(good);
            bytes[at] = hex(byte)[0];
            QVERIFY2(!OfferFrame::fromPayload(view(bytes)), byte);
        }
        const QByteArray answer = "0000000000000000" + digest.toHex();
        QVERIFY(!AnswerFrame::fromPayload(view(hex("00000001 04 000000" + answer))));
        QVERIFY(!AnswerFrame::fromPayload(view(hex("00000001 02 000001" + answer))));
        QVERIFY(!AnswerFrame::fromPayload(view(hex("00000001 02 000000" + answer + "ff"))));
        QVERIFY(!ByeFrame::fromPayload(view(hex("06"))));
    }

    void refusesTreesThatLeaveTheirPlace()
    {
        const TreeEntry file{"d/f", false, true, -5, 3};
        const TreeEntry directory{"d", true, false, 7, 0};
        const QByteArray bytes = treeToBytes({directory, file});
        const auto read = treeFromBytes(bytes, 3);
        QVERIFY(read && read->size() == 2 && (*read)[1].path == "d/f" && (*read)[1].isExecutable &&
                (*read)[1].modifiedNs == -5 && (*read)[0].isDirectory);
        QVERIFY(!treeFromBytes(bytes, 2) && !treeFromBytes(bytes, 4));
        for (int size = 1; size < bytes.size(); ++size)
            QVERIFY(size == 20 || !treeFromBytes(bytes.left(size), 3));
        for (const char *path : {"", "/", "/a", "a/", "a//b", "..", "a/../b", ".", "./a", "a/.."})
            QVERIFY2(!treeFromBytes(treeToBytes({{path, false, false, 0, 0}}), 0), path);
        QVERIFY(!treeFromBytes(treeToBytes({{QByteArray("a\0b", 3), false, false, 0, 0}}), 0));
        QVERIFY(!treeFromBytes(treeToBytes({{QByteArray("a/").repeated(100) + 'a', false, false, 0, 0}}), 0));
        QVERIFY(!treeFromBytes(treeToBytes({{"a", false, false, 0, -1}, {"b", false, false, 0, 1}}), 0));
        QVERIFY(!treeFromBytes(treeToBytes({{"a", true, false, 0, 1}}), 1)); // a directory has no bytes
    }

    void cutsLongTextsBetweenCharacters()
    {
        const QString longText(2000, QChar(0x044f)); // two bytes each
        const QByteArray hello = HelloFrame{2, 0, QLatin1Char('a') + longText, {}}.toBytes();
        const auto read = HelloFrame::fromPayload({hello.constData() + 8, std::size_t(hello.size() - 8)});
        QVERIFY(read);
        QCOMPARE(read->name, QLatin1Char('a') + longText.left(511)); // 1023 bytes: 1024 would halve a letter
        QCOMPARE((ByeFrame{ByeFrame::Done, longText}.toBytes().size()), 8 + 1 + 512);
    }
};

QTEST_APPLESS_MAIN(TestMessageFrame)
#include "tst_messageframe.moc"
