// The program itself: two installations, two processes, a network of one machine. And strangers, who
// speak to it over a bare socket.
#include "host/messageframe.h"
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

quint16 freePort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

/// An installation of its own with a port of its own.
struct Abonent
{
    explicit Abonent(const QString &ownName) : name(ownName), port(freePort())
    {
        const QString bin = directory.filePath(QStringLiteral("bin/"));
        QDir().mkpath(bin + QStringLiteral("channelPlugins"));
        place(ABONENT_FILE, bin + QStringLiteral("abonent"));
        place(CHANNEL_FILE, bin + QStringLiteral("channelPlugins/libtransportIp.so"));
        run({QStringLiteral("settings"), QStringLiteral("set"), QStringLiteral("port=%1").arg(port)});
    }

    ~Abonent()
    {
        if (listener.state() != QProcess::NotRunning) {
            listener.kill();
            listener.waitForFinished();
        }
    }

    // A hard link counts as a place of its own; between file systems it takes a copy.
    static void place(const char *from, const QString &to)
    {
        if (::link(from, to.toUtf8().constData()) != 0)
            QFile::copy(QString::fromUtf8(from), to);
    }

    QString program() const { return directory.filePath(QStringLiteral("bin/abonent")); }
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(port); }
    QString settingsFile() const { return directory.filePath(QStringLiteral("settings/channelIp.conf")); }

    /// Runs a command to its end. @return its exit code; what it printed is in output
    int run(const QStringList &arguments)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program(), arguments);
        if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        output = QString::fromUtf8(process.readAll());
        return process.exitCode();
    }

    bool listen()
    {
        listener.setProcessChannelMode(QProcess::MergedChannels);
        listener.start(program(), {QStringLiteral("listen"), QStringLiteral("--name"), name});
        return sees(QStringLiteral("TCP сервер успешно запущен на %1 порту").arg(port));
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
        const QDir messages(directory.filePath(QStringLiteral("data/0/messages/") + box));
        return messages.entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

    QByteArray storedFile(const QString &path) const
    {
        return TestInstallation::read(directory.filePath(QStringLiteral("data/0/messages/input/") + path));
    }

    QTemporaryDir directory;
    const QString name;
    const quint16 port;
    QProcess listener;
    QByteArray heard;
    QString output;
};

/// Somebody with a socket of their own.
struct Stranger
{
    explicit Stranger(const Abonent &abonent) : Stranger(abonent.port) {}

    explicit Stranger(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
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

const QByteArray greeting = GreetingFrame{1, QStringLiteral("x")}.toBytes();

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

private Q_SLOTS:
    void worksBesideABrokenLibrary();
    void deliversTextsAndFiles();
    void tellsScriptsHowItEnded();
    void refusesWhatDoesNotMatch();
    void endsOnlyTheStrangersConnection();
    void dropsWhoDoesNotNameItself();
    void leavesNoPartOfAMessageWhenKilled();
    void keepsSettings();
    void endsInOrder();

private:
    Abonent alfa{QStringLiteral("Альфа-1")};
    Abonent beta{QStringLiteral("Бета")};
};

void TestConversation::worksBesideABrokenLibrary()
{
    const QString plugins = alfa.directory.filePath(QStringLiteral("bin/channelPlugins/"));
    QVERIFY(TestInstallation::write(plugins + QStringLiteral("broken.so"), "not a library"));
    Abonent::place(OLD_CHANNEL_FILE, plugins + QStringLiteral("old.so"));
    QVERIFY(alfa.listen());
    QVERIFY(alfa.sees(QStringLiteral("Не удалось загрузить модуль канала broken.so")));
    QVERIFY(alfa.sees(QStringLiteral("old.so сделан для версии договора 15, а программе нужна версия 16")));
}

void TestConversation::deliversTextsAndFiles()
{
    QByteArray contents(5000001, '\0');
    for (int i = 0; i < contents.size(); ++i)
        contents[i] = char(quint32(i) * quint32(i) >> 7);
    const QString file = beta.directory.filePath(QStringLiteral("файл %1.bin"));
    const QString empty = beta.directory.filePath(QStringLiteral("message.txt"));
    QVERIFY(TestInstallation::write(file, contents) && TestInstallation::write(empty, QByteArray()));
    const QString text = QStringLiteral("Привет, %1!\nВторая строка");

    // The name is the same for both sides when only letters and digits count.
    QCOMPARE(beta.run({QStringLiteral("send"), QStringLiteral("альфа1"), alfa.address(), file, empty,
                       QStringLiteral("--text"), text, QStringLiteral("--name"), beta.name}),
             0);
    const QString digest = QString::fromLatin1(sha256(contents).toHex());
    QVERIFY2(beta.output.contains(digest), qPrintable(beta.output));
    QVERIFY(alfa.sees(digest));
    QVERIFY(alfa.sees(QStringLiteral("текст \"Привет, %1!\\u000AВторая строка\"")));
    QVERIFY(!QString::fromUtf8(alfa.heard).contains(QChar(0x1b))); // no terminal, no escapes

    QCOMPARE(alfa.stored(QStringLiteral("incomplete")), QStringList());
    QCOMPARE(alfa.stored(QStringLiteral("input")).join(QLatin1Char(' ')),
             QStringLiteral("00000001 00000002 00000003"));
    QCOMPARE(alfa.storedFile(QStringLiteral("00000001/text.txt")), text.toUtf8());
    QVERIFY(alfa.storedFile(QStringLiteral("00000002/файл %1.bin")) == contents);
    QVERIFY(alfa.storedFile(QStringLiteral("00000002/message.txt")).contains(digest.toUtf8()));
    QVERIFY(alfa.storedFile(QStringLiteral("00000003/message.txt")).contains("_message.txt"));
}

void TestConversation::tellsScriptsHowItEnded()
{
    const QString nobody = QStringLiteral("127.0.0.1:%1").arg(freePort());
    const QStringList text{QStringLiteral("--text"), QStringLiteral("t")};
    QCOMPARE(beta.run(QStringList{QStringLiteral("send"), alfa.name, nobody} + text), 3);
    QCOMPARE(beta.run(QStringList{QStringLiteral("send"), QStringLiteral("Гамма"), alfa.address()} + text),
             4);
    QVERIFY(beta.output.contains(QStringLiteral("Ответил другой абонент: 'Альфа-1'")));
    QCOMPARE(beta.run({QStringLiteral("send"), alfa.name, alfa.address(), QStringLiteral("/no/such/file")}),
             2);
    QCOMPARE(beta.run({QStringLiteral("listen"), QStringLiteral("--name"), QStringLiteral("!!")}), 2);
    QCOMPARE(beta.run({QStringLiteral("fly")}), 2);
}

void TestConversation::refusesWhatDoesNotMatch()
{
    const QStringList before = alfa.stored(QStringLiteral("input"));
    Stranger stranger(alfa);
    stranger.says(greeting + OfferFrame{1, OfferFrame::File, 3, QStringLiteral("f")}.toBytes());
    QVERIFY(stranger.isAnswered(AnswerFrame{1, AnswerFrame::Welcome, {}, {}}.toBytes()));
    stranger.says(dataFrame("abc") + FinishFrame{1, sha256("abd")}.toBytes());
    QVERIFY(stranger.isAnswered(
        AnswerFrame{1, AnswerFrame::Refused, {}, QStringLiteral("Контрольная сумма не совпала")}.toBytes()));
    stranger.says(OfferFrame{2, OfferFrame::File, Q_INT64_C(1) << 60, QStringLiteral("f")}.toBytes());
    QVERIFY(stranger.isAnswered(QStringLiteral("Не хватает места на диске").toUtf8()));

    // The connection is still good for what is right.
    stranger.says(OfferFrame{3, OfferFrame::Text, 3, QString()}.toBytes());
    QVERIFY(stranger.isAnswered(AnswerFrame{3, AnswerFrame::Welcome, {}, {}}.toBytes()));
    QCOMPARE(alfa.stored(QStringLiteral("input")), before);
    stranger.says(dataFrame("a") + dataFrame("bc") + FinishFrame{3, sha256("abc")}.toBytes());
    QVERIFY(stranger.isAnswered(AnswerFrame{3, AnswerFrame::Stored, sha256("abc"), {}}.toBytes()));
    QCOMPARE(alfa.stored(QStringLiteral("input")).size(), before.size() + 1);
}

void TestConversation::endsOnlyTheStrangersConnection()
{
    Stranger guest(alfa);
    QVERIFY(guest.says(greeting).isAnswered(GreetingFrame{1, alfa.name}.toBytes()));

    const QByteArray offer = OfferFrame{1, OfferFrame::File, 2, QStringLiteral("f")}.toBytes();
    const QByteArray attacks[] = {
        "GET / HTTP/1.0\r\n\r\n",
        QByteArray::fromHex("04000000ffffffff"),
        offer,                       // before a greeting
        emptyFrame(FrameType::Ping), // before a greeting
        GreetingFrame{1, QStringLiteral("-!-")}.toBytes(),
        greeting + greeting,
        greeting + dataFrame("abc"), // never offered
        greeting + offer + offer,
        greeting + offer + dataFrame("abc"),                     // more than offered
        greeting + offer + FinishFrame{1, sha256("")}.toBytes(), // less than offered
        greeting + AnswerFrame{1, AnswerFrame::Stored, sha256(""), {}}.toBytes(),
        greeting + OfferFrame{1, OfferFrame::Text, 0, {}}.toBytes().repeated(40), // refused again and again
    };
    for (const QByteArray &attack : attacks) {
        Stranger stranger(alfa);
        QVERIFY2(stranger.says(attack).isCutOff(3000), attack.toHex());
    }
    QVERIFY(guest.says(emptyFrame(FrameType::Ping)).isAnswered(emptyFrame(FrameType::Pong)));
    QCOMPARE(alfa.stored(QStringLiteral("incomplete")), QStringList());
}

void TestConversation::dropsWhoDoesNotNameItself()
{
    QElapsedTimer clock;
    clock.start();
    Stranger silent(alfa);
    Stranger slow(alfa);
    for (int i = 0; i < 4; ++i) {
        slow.says(greeting.mid(i, 1));
        QTest::qWait(1000);
    }
    QCOMPARE(slow.socket.state(), QAbstractSocket::ConnectedState);
    QVERIFY(silent.isCutOff(patienceMs) && slow.isCutOff(patienceMs));
    QVERIFY2(clock.elapsed() > 4900 && clock.elapsed() < 7000, qPrintable(QString::number(clock.elapsed())));
}

void TestConversation::leavesNoPartOfAMessageWhenKilled()
{
    const QStringList before = alfa.stored(QStringLiteral("input"));
    Stranger stranger(alfa);
    stranger.says(greeting + OfferFrame{1, OfferFrame::File, 100, QStringLiteral("f")}.toBytes() +
                  dataFrame("abc"));
    QVERIFY(stranger.isAnswered(AnswerFrame{1, AnswerFrame::Welcome, {}, {}}.toBytes()));
    QCOMPARE(alfa.stored(QStringLiteral("incomplete")).size(), 1);

    // A second process of the installation leaves what is still arriving alone.
    QCOMPARE(alfa.run({QStringLiteral("send"), QStringLiteral("a"), QStringLiteral("127.0.0.1:1"),
                       QStringLiteral("--text"), QStringLiteral("t")}),
             3);
    QCOMPARE(alfa.stored(QStringLiteral("incomplete")).size(), 1);
    QCOMPARE(alfa.interrupt(SIGKILL), -1);
    QCOMPARE(alfa.stored(QStringLiteral("input")), before);
    alfa.heard.clear();
    QVERIFY(alfa.listen());
    QCOMPARE(alfa.stored(QStringLiteral("incomplete")), QStringList());
}

void TestConversation::keepsSettings()
{
    const QStringList set{QStringLiteral("settings"), QStringLiteral("set")};
    const QStringList show{QStringLiteral("settings"), QStringLiteral("show")};
    const QByteArray before = TestInstallation::read(beta.settingsFile());
    for (const char *bad : {"port=0", "port=65536", "port=x", "blockSizeKb=0", "canCheckOnline=maybe",
                            "nosuch=1", "port", "Details/maxWritingTime=99", "Debug/all=2"}) {
        QCOMPARE(beta.run(set + QStringList{QStringLiteral("maxConnections=7"), QString::fromLatin1(bad)}),
                 6);
        QVERIFY2(TestInstallation::read(beta.settingsFile()) == before, bad);
    }
    QCOMPARE(
        beta.run(set + QStringList{QStringLiteral("port=18123"), QStringLiteral("maxConnections=7"),
                                   QStringLiteral("blockSizeKb=128"), QStringLiteral("canCheckOnline=false"),
                                   QStringLiteral("Details/maxWritingTime=1234")}),
        0);
    QCOMPARE(TestInstallation::read(beta.settingsFile()).toHex(),
             QByteArray("000000020000000007000046cb00000080"));

    // A crash in the middle of a save leaves the settings under another name.
    QVERIFY(QFile::rename(beta.settingsFile(), beta.settingsFile() + QStringLiteral(".old")));
    QCOMPARE(beta.run(show), 0);
    QVERIFY2(beta.output.contains(QStringLiteral("18123")) && beta.output.contains(QStringLiteral("1234")),
             qPrintable(beta.output));
}

void TestConversation::endsInOrder()
{
    // A listener takes up a new port by itself, and ends with a connection open.
    const quint16 newPort = freePort();
    QCOMPARE(
        alfa.run({QStringLiteral("settings"), QStringLiteral("set"), QStringLiteral("port=%1").arg(newPort)}),
        0);
    QVERIFY(alfa.sees(QStringLiteral("успешно запущен на %1 порту").arg(newPort)));
    Stranger guest(newPort);
    QVERIFY(guest.says(greeting).isAnswered(GreetingFrame{1, alfa.name}.toBytes()));
    QCOMPARE(alfa.interrupt(SIGINT), 0);
    QVERIFY(guest.isAnswered(byeFrame(QStringLiteral("Абонент завершает работу"))));

    // A sender whose abonent says nothing ends when it is told to.
    QTcpServer mute;
    QVERIFY(mute.listen(QHostAddress::LocalHost));
    QProcess sender;
    sender.start(beta.program(), {QStringLiteral("send"), QStringLiteral("x"),
                                  QStringLiteral("127.0.0.1:%1").arg(mute.serverPort()),
                                  QStringLiteral("--text"), QStringLiteral("t")});
    QVERIFY(QTest::qWaitFor([&] { return mute.hasPendingConnections(); }, patienceMs));
    ::kill(pid_t(sender.processId()), SIGTERM);
    QVERIFY(sender.waitForFinished(5000));
    QCOMPARE(sender.exitCode(), 128 + SIGTERM);
}

QTEST_GUILESS_MAIN(TestConversation)
#include "tst_conversation.moc"
