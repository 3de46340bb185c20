// The program itself: two installations, two processes, a network of one machine. And strangers, who
// speak to it over a bare socket.
#include "host/conversation/messageframe.h"
#include "tests/support/testinstallation.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int patienceMs = 20000;

QString local(int port)
{
    return "127.0.0.1:%1"_s.arg(port);
}

/// An installation of its own with a port of its own.
struct Abonent
{
    explicit Abonent(const QString &ownName) : name(ownName), port(freePort())
    {
        const QString bin = directory.filePath("bin/"_s);
        QDir().mkpath(bin + "channelPlugins"_s);
        place(ABONENT_FILE, bin + "abonent"_s);
        place(CHANNEL_FILE, bin + "channelPlugins/libtransportIp.so"_s);
        listener.setProcessChannelMode(QProcess::MergedChannels);
        run("settings set port=%1"_s.arg(port));
    }

    // A hard link counts as a place of its own; between file systems it takes a copy.
    static void place(const char *from, const QString &to)
    {
        if (::link(from, to.toUtf8().constData()) != 0)
            QFile::copy(QString::fromUtf8(from), to);
    }

    QString program() const { return directory.filePath("bin/abonent"_s); }
    QString settingsFile() const { return directory.filePath("settings/channelIp.conf"_s); }
    QByteArray settings() const { return TestInstallation::read(settingsFile()); }

    /// Runs a command of words, with more behind it, to its end. @return its exit code; fills output
    int run(const QString &words, const QStringList &more = QStringList())
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program(), words.split(QLatin1Char(' ')) + more);
        if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        output = QString::fromUtf8(process.readAll());
        return process.exitCode();
    }

    bool listen()
    {
        listener.start(program(), {"listen"_s, "--name"_s, name});
        return sees("TCP сервер успешно запущен на %1 порту"_s.arg(port));
    }

    /// Waits until the listener has printed a text.
    bool sees(const QString &text)
    {
        return QTest::qWaitFor(
            [&] {
                heard += listener.readAll();
                return QString::fromUtf8(heard).contains(text);
            },
            patienceMs);
    }

    /// Asks the listener to end. @return its exit code
    int interrupt(int signalNumber)
    {
        ::kill(pid_t(listener.processId()), signalNumber);
        listener.waitForFinished(patienceMs);
        heard += listener.readAll();
        return listener.exitStatus() == QProcess::NormalExit ? listener.exitCode() : -1;
    }

    QStringList stored(const QString &box) const
    {
        const QDir messages(directory.filePath("data/0/messages/"_s + box));
        return messages.entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

    QByteArray storedFile(const QString &path) const
    {
        return TestInstallation::read(directory.filePath("data/0/messages/input/"_s + path));
    }

    QTemporaryDir directory;
    const QString name;
    const int port;
    QProcess listener;
    QByteArray heard;
    QString output;
};

/// Somebody with a socket of their own.
struct Stranger
{
    explicit Stranger(int port)
    {
        socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        socket.waitForConnected(patienceMs);
    }

    Stranger &says(const QByteArray &bytes)
    {
        socket.write(bytes);
        socket.flush();
        return *this;
    }

    bool isAnswered(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return (heard += socket.readAll()).contains(bytes); }, patienceMs);
    }

    bool isCutOff(int withinMs)
    {
        return QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, withinMs);
    }

    QTcpSocket socket;
    QByteArray heard;
};

const QByteArray greeting = GreetingFrame{1, "x"_s}.toBytes();

QByteArray dataFrame(const QByteArray &bytes)
{
    QByteArray frame;
    std::memcpy(startDataFrame(&frame, bytes.size()), bytes.constData(), std::size_t(bytes.size()));
    return frame;
}

QByteArray sha256(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

} // namespace

class TestConversation : public QObject
{
    Q_OBJECT

private:
    Abonent alfa{"Альфа-1"_s};
    Abonent beta{"Бета"_s};

private Q_SLOTS:
    void worksBesideABrokenLibrary()
    {
        const QString plugins = alfa.directory.filePath("bin/channelPlugins/"_s);
        QVERIFY(TestInstallation::write(plugins + "broken.so"_s, "not a library"));
        Abonent::place(FAULTY_FILE, plugins + "old.so"_s); // ends the program when asked for more
        qputenv("FAULT", "entry.apiVersion add -1");
        QVERIFY(alfa.listen());
        QVERIFY(alfa.sees("Не удалось загрузить модуль канала broken.so"_s));
        QVERIFY(alfa.sees("old.so сделан для версии договора 15, а программе нужна версия 16"_s));
    }

    void deliversTextsAndFiles()
    {
        QByteArray contents(5000001, '\0');
        for (int i = 0; i < contents.size(); ++i)
            contents[i] = char(quint32(i) * quint32(i) >> 7);
        const QString file = beta.directory.filePath("файл %1.bin"_s);
        const QString empty = beta.directory.filePath("message.txt"_s);
        QVERIFY(TestInstallation::write(file, contents) && TestInstallation::write(empty, QByteArray()));
        const QString text = "Привет, %1!\nВторая строка"_s;

        // The name is the same for both sides when only letters and digits count.
        QCOMPARE(beta.run("send альфа1 %1 --name Бета --text"_s.arg(local(alfa.port)), {text, file, empty}),
                 0);
        const QString digest = QString::fromLatin1(sha256(contents).toHex());
        QVERIFY2(beta.output.contains(digest), qPrintable(beta.output));
        QVERIFY(alfa.sees(digest));
        QVERIFY(alfa.sees("текст \"Привет, %1!\\u000AВторая строка\""_s));
        QVERIFY(!QString::fromUtf8(alfa.heard).contains(QChar(0x1b))); // no terminal, no escapes

        QCOMPARE(alfa.stored("incomplete"_s), QStringList());
        QCOMPARE(alfa.stored("input"_s).join(QLatin1Char(' ')), "00000001 00000002 00000003"_s);
        QCOMPARE(alfa.storedFile("00000001/text.txt"_s), text.toUtf8());
        QVERIFY(alfa.storedFile("00000002/файл %1.bin"_s) == contents);
        QVERIFY(alfa.storedFile("00000002/message.txt"_s).contains(digest.toUtf8()));
        QVERIFY(alfa.storedFile("00000003/message.txt"_s).contains("_message.txt"));
    }

    void tellsScriptsHowItEnded()
    {
        QCOMPARE(beta.run("send Альфа-1 %1 --text t"_s.arg(local(freePort()))), 3);
        QCOMPARE(beta.run("send Гамма %1 --text t"_s.arg(local(alfa.port))), 4);
        QVERIFY(beta.output.contains("Ответил другой абонент: 'Альфа-1'"_s));
        QCOMPARE(beta.run("send Альфа-1 %1 /no/such/file"_s.arg(local(alfa.port))), 2);
        QCOMPARE(beta.run("listen --name !!"_s), 2);
    }

    void refusesWhatDoesNotMatch()
    {
        const QStringList before = alfa.stored("input"_s);
        Stranger stranger(alfa.port);
        stranger.says(greeting + OfferFrame{1, OfferFrame::File, 3, "f"_s}.toBytes());
        QVERIFY(stranger.isAnswered(AnswerFrame{1, AnswerFrame::Welcome, {}, {}}.toBytes()));
        stranger.says(dataFrame("abc") + FinishFrame{1, sha256("abd")}.toBytes());
        QVERIFY(stranger.isAnswered(
            AnswerFrame{1, AnswerFrame::Refused, {}, "Контрольная сумма не совпала"_s}.toBytes()));
        stranger.says(OfferFrame{2, OfferFrame::File, Q_INT64_C(1) << 60, "f"_s}.toBytes());
        QVERIFY(stranger.isAnswered("Не хватает места на диске"_s.toUtf8()));

        // The connection is still good for what is right.
        stranger.says(OfferFrame{3, OfferFrame::Text, 3, QString()}.toBytes());
        QVERIFY(stranger.isAnswered(AnswerFrame{3, AnswerFrame::Welcome, {}, {}}.toBytes()));
        QCOMPARE(alfa.stored("input"_s), before);
        stranger.says(dataFrame("a") + dataFrame("bc") + FinishFrame{3, sha256("abc")}.toBytes());
        QVERIFY(stranger.isAnswered(AnswerFrame{3, AnswerFrame::Stored, sha256("abc"), {}}.toBytes()));
        QCOMPARE(alfa.stored("input"_s).size(), before.size() + 1);
    }

    void endsOnlyTheStrangersConnection()
    {
        Stranger guest(alfa.port);
        QVERIFY(guest.says(greeting).isAnswered(GreetingFrame{1, alfa.name}.toBytes()));

        const QByteArray offer = OfferFrame{1, OfferFrame::File, 2, "f"_s}.toBytes();
        const QByteArray attacks[] = {
            "GET / HTTP/1.0\r\n\r\n",
            QByteArray::fromHex("04000000ffffffff"),
            offer,                       // before a greeting
            emptyFrame(FrameType::Ping), // before a greeting
            GreetingFrame{1, "-!-"_s}.toBytes(),
            greeting + greeting,
            greeting + dataFrame("abc"), // never offered
            greeting + offer + offer,
            greeting + offer + dataFrame("abc"),                     // more than offered
            greeting + offer + FinishFrame{1, sha256("")}.toBytes(), // less than offered
            greeting + AnswerFrame{1, AnswerFrame::Stored, sha256(""), {}}.toBytes(),
            greeting +
                OfferFrame{1, OfferFrame::Text, 0, {}}.toBytes().repeated(40), // refused again and again
        };
        for (const QByteArray &attack : attacks) {
            Stranger stranger(alfa.port);
            QVERIFY2(stranger.says(attack).isCutOff(3000), attack.toHex());
        }
        QVERIFY(guest.says(emptyFrame(FrameType::Ping)).isAnswered(emptyFrame(FrameType::Pong)));
        QCOMPARE(alfa.stored("incomplete"_s), QStringList());
    }

    void leavesNoPartOfAMessageWhenKilled()
    {
        const QStringList before = alfa.stored("input"_s);
        Stranger stranger(alfa.port);
        stranger.says(greeting + OfferFrame{1, OfferFrame::File, 100, "f"_s}.toBytes() + dataFrame("abc"));
        QVERIFY(stranger.isAnswered(AnswerFrame{1, AnswerFrame::Welcome, {}, {}}.toBytes()));
        QCOMPARE(alfa.stored("incomplete"_s).size(), 1);

        // A second process of the installation leaves what is still arriving alone.
        QCOMPARE(alfa.run("send a 127.0.0.1:1 --text t"_s), 3);
        QCOMPARE(alfa.stored("incomplete"_s).size(), 1);
        QCOMPARE(alfa.interrupt(SIGKILL), -1);
        QCOMPARE(alfa.stored("input"_s), before);
        alfa.heard.clear();
        QVERIFY(alfa.listen());
        QCOMPARE(alfa.stored("incomplete"_s), QStringList());
    }

    void keepsSettings()
    {
        const QString set = "settings set maxConnections=7 "_s;
        const QByteArray before = beta.settings();
        for (const char *bad : {"port=0", "port=65536", "port=x", "blockSizeKb=0", "canCheckOnline=maybe",
                                "nosuch=1", "port", "Details/maxWritingTime=99", "Debug/all=2"}) {
            QCOMPARE(beta.run(set + QLatin1String(bad)), 6);
            QVERIFY2(beta.settings() == before, bad);
        }
        QCOMPARE(
            beta.run(set + "port=18123 blockSizeKb=128 canCheckOnline=false Details/maxWritingTime=1234"_s),
            0);
        QCOMPARE(beta.settings().toHex(), QByteArray("000000020000000007000046cb00000080"));

        // A crash in the middle of a save leaves the settings under another name.
        QVERIFY(QFile::rename(beta.settingsFile(), beta.settingsFile() + ".old"_s));
        QCOMPARE(beta.run("settings show"_s), 0);
        QVERIFY2(beta.output.contains("18123"_s) && beta.output.contains("1234"_s), qPrintable(beta.output));
    }

    void endsInOrder()
    {
        // A listener takes up a new port by itself, and ends with a connection open.
        const int newPort = freePort();
        QCOMPARE(alfa.run("settings set port=%1"_s.arg(newPort)), 0);
        QVERIFY(alfa.sees("успешно запущен на %1 порту"_s.arg(newPort)));
        Stranger guest(newPort);
        QVERIFY(guest.says(greeting).isAnswered(GreetingFrame{1, alfa.name}.toBytes()));
        QCOMPARE(alfa.interrupt(SIGINT), 0);
        QVERIFY(guest.isAnswered(byeFrame("Абонент завершает работу"_s)));

        // A sender whose abonent says nothing ends when it is told to.
        QTcpServer mute;
        QVERIFY(mute.listen(QHostAddress::LocalHost));
        QProcess sender;
        sender.start(beta.program(), {"send"_s, "x"_s, local(mute.serverPort()), "--text"_s, "t"_s});
        QVERIFY(QTest::qWaitFor([&] { return mute.hasPendingConnections(); }, patienceMs));
        ::kill(pid_t(sender.processId()), SIGTERM);
        QVERIFY(sender.waitForFinished(5000));
        QCOMPARE(sender.exitCode(), 128 + SIGTERM);
    }
};

QTEST_GUILESS_MAIN(TestConversation)
#include "tst_conversation.moc"
