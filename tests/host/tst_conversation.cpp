// The program itself: two installations, two processes, a network of one machine. Strangers, who speak to it
// over a socket of their own. And a line between the two that does what lines do.
#include "host/conversation/messageframe.h"
#include "host/conversation/treelist.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/ctlssession.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace {

constexpr int patienceMs = 20000; // the limit of one wait; nothing is judged by the time it takes

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

    ~Abonent()
    {
        listener.kill();
        listener.waitForFinished();
        std::error_code ignored;
        std::filesystem::remove_all(directory.path().toStdString(), ignored); // Qt cannot name all files
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

    bool listen(const QStringList &more = QStringList())
    {
        heard.clear();
        listener.start(program(), QStringList{"listen"_s, "--name"_s, name} + more);
        return sees("TCP сервер успешно запущен на %1 порту"_s.arg(port));
    }

    /// Strangers may send as much as they like.
    void letAllIn() { run("settings set Contacts/policy=all"_s); }

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

/// Somebody with a socket and a key of their own.
struct Stranger
{
    explicit Stranger(int port)
    {
        static const QTemporaryDir place;
        identity.prepare(place.filePath("identity.pem"_s));
        tls = std::make_unique<CTlsSession>(CTlsSession::Calling, identity);
        socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        socket.waitForConnected(patienceMs);
    }

    Stranger &says(const QByteArray &bytes)
    {
        unsent += bytes;
        carry();
        return *this;
    }

    /// Without TLS.
    Stranger &saysPlainly(const QByteArray &bytes)
    {
        socket.write(bytes);
        socket.flush();
        return *this;
    }

    bool isAnswered(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return carry().contains(bytes); }, patienceMs);
    }

    bool isCutOff(int withinMs)
    {
        return QTest::qWaitFor([&] { return carry(), socket.state() == QAbstractSocket::UnconnectedState; },
                               withinMs);
    }

    QByteArray &carry()
    {
        const QByteArray bytes = socket.readAll();
        plain += bytes;
        if (!bytes.isEmpty())
            tls->feed(bytes);
        if (!unsent.isEmpty() && tls->write(unsent))
            unsent.clear();
        socket.write(tls->takeOutgoing(tls->outgoingSize()));
        socket.flush();
        return heard += tls->takePlain(1 << 20);
    }

    CIdentity identity;
    std::unique_ptr<CTlsSession> tls;
    QTcpSocket socket;
    QByteArray unsent;
    QByteArray heard;
    QByteArray plain; // as it came
};

/// A line that delays, stalls, resets connections after some megabytes, or leaves them half open.
class Line : public QTcpServer
{
public:
    Line(int toPort, quint32 seed) : port(toPort), random(seed)
    {
        clock.start();
        tick.start(5);
        connect(&tick, &QTimer::timeout, this, [this] { carry(); });
        listen(QHostAddress::LocalHost);
    }

    /// From now on nothing goes wrong any more.
    void calmDown() { isCalm = true; }

    qint64 carried = 0; // bytes that have reached the called side
    int broken = 0;
    int connections = 0;

private:
    static constexpr int delayMs = 100; // each way
    static constexpr int stallMs = 3000;
    static constexpr int mostUnderWay = 512 * 1024;

    struct Way
    {
        QTcpSocket *from;
        QTcpSocket *to;
        std::deque<std::pair<qint64, QByteArray>> underWay;
        int bytes = 0;
    };
    struct Pair
    {
        std::unique_ptr<QTcpSocket> caller;
        std::unique_ptr<QTcpSocket> called;
        Way ways[2];
        qint64 left;        // until it breaks
        bool isCut = false; // half open: nobody hears of it
    };

    void incomingConnection(qintptr descriptor) override
    {
        ++connections;
        auto pair = std::make_unique<Pair>();
        pair->caller = std::make_unique<QTcpSocket>();
        pair->called = std::make_unique<QTcpSocket>();
        pair->caller->setSocketDescriptor(descriptor);
        connect(pair->called.get(), &QTcpSocket::bytesWritten, this,
                [this](qint64 size) { carried += size; });
        pair->called->connectToHost(QHostAddress::LocalHost, quint16(port));
        pair->ways[0] = {pair->caller.get(), pair->called.get(), {}, 0};
        pair->ways[1] = {pair->called.get(), pair->caller.get(), {}, 0};
        for (QTcpSocket *socket : {pair->caller.get(), pair->called.get()})
            socket->setReadBufferSize(mostUnderWay);
        pair->left = 1000000 + qint64(random.bounded(4000000));
        pairs.push_back(std::move(pair));
    }

    void carry()
    {
        const qint64 now = clock.elapsed();
        if (!isCalm && now > nextStall) {
            stalledUntil = now + stallMs;
            nextStall = now + 25000;
        }
        for (auto &pair : pairs) {
            bool isOpen = true;
            for (Way &way : pair->ways)
                isOpen = carry(way, pair.get(), now) && isOpen;
            if (!isCalm && !pair->isCut && pair->left < 0) {
                ++broken;
                pair->isCut = broken % 6 == 1;
                isOpen = pair->isCut;
            }
            if (!isOpen && !pair->isCut) {
                pair->caller->abort();
                pair->called->abort();
            }
        }
        pairs.erase(std::remove_if(pairs.begin(), pairs.end(),
                                   [](const auto &pair) {
                                       return pair->caller->state() == QAbstractSocket::UnconnectedState &&
                                              pair->called->state() == QAbstractSocket::UnconnectedState;
                                   }),
                    pairs.end());
    }

    /// @return false when the connection is over and everything has come through
    bool carry(Way &way, Pair *pair, qint64 now)
    {
        if (pair->isCut)
            return true;
        if (way.bytes < mostUnderWay) {
            const QByteArray bytes = way.from->read(mostUnderWay - way.bytes);
            if (!bytes.isEmpty())
                way.underWay.emplace_back(now + delayMs, bytes);
            way.bytes += bytes.size();
        }
        if (way.to->state() < QAbstractSocket::ConnectedState &&
            way.to->state() != QAbstractSocket::UnconnectedState)
            return true;
        while (now > stalledUntil && !way.underWay.empty() && way.underWay.front().first <= now) {
            const QByteArray bytes = way.underWay.front().second;
            way.underWay.pop_front();
            way.to->write(bytes);
            way.bytes -= bytes.size();
            pair->left -= bytes.size();
        }
        return !way.underWay.empty() || way.from->state() != QAbstractSocket::UnconnectedState;
    }

    const int port;
    QRandomGenerator random;
    QElapsedTimer clock;
    QTimer tick;
    qint64 nextStall = 10000;
    qint64 stalledUntil = 0;
    bool isCalm = false;
    std::vector<std::unique_ptr<Pair>> pairs;
};

const QByteArray hello = HelloFrame{2, 0, "x"_s, {}}.toBytes();

QByteArray offerOf(quint32 item, OfferFrame::Kind kind, qint64 size, const QByteArray &name, char mark = '1')
{
    OfferFrame offer;
    offer.item = item;
    offer.kind = kind;
    offer.size = size;
    offer.name = name;
    offer.identity = QByteArray(FrameLimits::identitySize, mark);
    return offer.toBytes();
}

QByteArray dataFrame(quint32 item, const QByteArray &bytes)
{
    QByteArray frame;
    std::memcpy(startDataFrame(&frame, item, bytes.size()), bytes.constData(), std::size_t(bytes.size()));
    return frame;
}

QByteArray answerOf(quint32 item, AnswerFrame::Verdict verdict, qint64 have, const QByteArray &digest,
                    const QString &reason = QString())
{
    return AnswerFrame{item, verdict, have, digest, reason}.toBytes();
}

/// Bytes that do not repeat.
QByteArray contentsOf(int size, quint32 seed)
{
    QByteArray bytes(size + 4, Qt::Uninitialized);
    QRandomGenerator random(seed);
    for (int at = 0; at < size; at += 4)
        qToLittleEndian(random.generate(), bytes.data() + at);
    bytes.chop(4);
    return bytes;
}

QByteArray sha256(const QByteArray &bytes = QByteArray())
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

    void deliversTextsFilesAndTrees()
    {
        const QByteArray contents = contentsOf(5000001, 1);
        const QString file = beta.directory.filePath("файл %1.bin"_s);
        const QString same = beta.directory.filePath("message.txt"_s);
        const QString tree = beta.directory.filePath("дерево"_s);
        QVERIFY(TestInstallation::write(file, contents) && TestInstallation::write(same, "m"));
        QVERIFY(QDir().mkpath(tree + "/пусто"_s) && QDir().mkpath(tree + "/a/b"_s));
        const QByteArray odd = QFile::encodeName(tree) + "/a/b/-\n\xff .txt"; // no character of UTF-8
        QFile script(tree + "/a/run"_s);
        QVERIFY(script.open(QIODevice::WriteOnly) && script.write(contents) == contents.size());
        QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        QVERIFY(script.setFileTime(QDateTime::fromSecsSinceEpoch(1000000000), QFile::FileModificationTime));
        script.close();
        QCOMPARE(::close(::open(odd.constData(), O_CREAT | O_WRONLY, 0600)), 0);
        QCOMPARE(::symlink("/etc", QFile::encodeName(tree + "/a/out"_s).constData()), 0);
        const QString text = "Привет, %1!\nВторая строка"_s;

        // The name is the same for both sides when only letters and digits count.
        QCOMPARE(beta.run("send альфа1 %1 --name Бета --verbose --text"_s.arg(local(alfa.port)),
                          {text, file, same, tree, "--text"_s, "два"_s}),
                 0);
        const QString digest = QString::fromLatin1(sha256(contents).toHex());
        QVERIFY2(beta.output.contains(digest) &&
                     beta.output.contains("Пропущено, это не файл и не каталог: a/out"_s),
                 qPrintable(beta.output));
        QVERIFY(alfa.sees("          Привет, %1!\n          Вторая строка\n"_s));
        QVERIFY(!QString::fromUtf8(alfa.heard).contains(QChar(0x1b))); // no terminal, no escapes

        QCOMPARE(alfa.stored("incomplete"_s), QStringList());
        QCOMPARE(beta.stored("output"_s), QStringList());
        QCOMPARE(alfa.stored("input"_s).join(QLatin1Char(' ')),
                 "00000001 00000002 00000003 00000004 00000005"_s);
        QCOMPARE(alfa.storedFile("00000001/text.txt"_s), text.toUtf8());
        QCOMPARE(alfa.storedFile("00000002/text.txt"_s), "два"_s.toUtf8()); // texts do not wait for files
        QVERIFY(alfa.storedFile("00000003/файл %1.bin"_s) == contents ||
                alfa.storedFile("00000004/файл %1.bin"_s) == contents);
        bool isSame = false;
        QString place;
        for (const QString &number : alfa.stored("input"_s)) {
            isSame |= alfa.storedFile(number + "/message.txt"_s) == "m" &&
                      alfa.storedFile(number + "/_message.txt"_s).contains("SHA-256");
            const QString tried = alfa.directory.filePath("data/0/messages/input/%1/дерево"_s.arg(number));
            place = QDir(tried).exists() ? tried : place;
        }
        QVERIFY(isSame);
        const QFileInfo run(place + "/a/run"_s);
        QVERIFY(TestInstallation::read(run.filePath()) == contents);
        QVERIFY(run.permission(QFile::ExeOwner) && run.lastModified().toSecsSinceEpoch() == 1000000000);
        QVERIFY(QDir(place + "/пусто"_s).exists() && !QFileInfo::exists(place + "/a/out"_s));
        QCOMPARE(::access((QFile::encodeName(place) + "/a/b/-\n\xff .txt").constData(), R_OK), 0);
    }

    void keepsWhatCannotBeDelivered()
    {
        // Nobody answers: it stays, whoever looks; what was asked for now does not.
        const QString nobody = local(freePort());
        QCOMPARE(beta.run("send Гамма %1 --text раз"_s.arg(nobody)), 3);
        QVERIFY2(beta.output.contains("остается в исходящих"_s), qPrintable(beta.output));
        QCOMPARE(beta.run("send Гамма %1 --now --text два"_s.arg(nobody)), 3);
        QCOMPARE(beta.stored("output"_s), QStringList("00000001"_s));
        QCOMPARE(beta.run("outbox list"_s), 0);
        QVERIFY2(beta.output.contains("'Гамма'"_s) && beta.output.contains("не отвечает"_s),
                 qPrintable(beta.output));

        // Somebody else answers; there is nothing to send; a name that is none.
        QCOMPARE(beta.run("send Дельта %1 --text t"_s.arg(local(alfa.port))), 4);
        QVERIFY(beta.output.contains("Ответил другой абонент: 'Альфа-1'"_s));
        QCOMPARE(beta.run("outbox remove 1 Дельта"_s), 0);
        QCOMPARE(beta.stored("output"_s), QStringList());
        QCOMPARE(beta.run("send Альфа-1 %1 /no/such/file"_s.arg(local(alfa.port))), 2);
        QCOMPARE(beta.run("listen --name !!"_s), 2);

        // What can be delivered is, beside what cannot.
        const QString huge = beta.directory.filePath("huge"_s);
        QVERIFY(TestInstallation::write(huge, "x") && QFile::resize(huge, Q_INT64_C(1) << 43));
        const int before = alfa.stored("input"_s).size();
        QCOMPARE(beta.run("send Альфа-1"_s, {"--text"_s, "раз"_s, "/no/such"_s, huge, "--text"_s, "два"_s,
                                             beta.settingsFile()}),
                 5);
        for (const char *line :
             {"Не передано: Файл /no/such не существует", "От незнакомых абонентов принимаются"})
            QVERIFY2(beta.output.contains(QString::fromUtf8(line)), qPrintable(beta.output));
        QCOMPARE(alfa.stored("input"_s).size(), before + 3);
        QCOMPARE(beta.run("outbox remove Альфа-1"_s), 0);
        QFile::remove(huge);

        // Input from a pipe, and a look whether it is the right one.
        QProcess shell;
        shell.setWorkingDirectory(beta.directory.path());
        shell.start("sh"_s,
                    {"-c"_s,
                     "n=$(printf 'n\\377'); echo 1 > \"$n\"; echo piped | \"$0\" send Альфа-1 - \"$n\""_s,
                     beta.program()});
        QVERIFY(shell.waitForFinished(patienceMs));
        const QStringList inbox = alfa.stored("input"_s);
        QCOMPARE(alfa.storedFile(inbox[inbox.size() - 2] + "/stdin"_s), QByteArray("piped\n"));
        const QString last = alfa.directory.filePath("data/0/messages/input/"_s + inbox.last());
        QCOMPARE(::access((QFile::encodeName(last) + "/n\xff").constData(), R_OK), 0);
        QCOMPARE(beta.run("ping Альфа-1"_s), 0);
        QVERIFY(beta.output.contains("Абонент 'Альфа-1' отвечает"_s));
        QCOMPARE(beta.run("ping Гамма %1"_s.arg(nobody)), 3);
    }

    void losesOnlyTheOutputWithItsReader()
    {
        const int before = alfa.stored("input"_s).size();
        QProcess shell;
        shell.start("sh"_s,
                    {"-c"_s, "\"$1\" send Альфа-1 $2 --text t | true; \"$1\" send nobody $2 --text t >&-"_s,
                     "sh"_s, beta.program(), local(alfa.port)});
        QVERIFY(shell.waitForFinished(patienceMs));
        QCOMPARE(shell.exitCode(), 4);
        QVERIFY(shell.readAllStandardError().contains("Ответил другой абонент"));
        QCOMPARE(alfa.stored("input"_s).size(), before + 1);
    }

    void storesOnceWhatIsOfferedAgain()
    {
        const int before = alfa.stored("input"_s).size();
        {
            Stranger stranger(alfa.port);
            stranger.says(hello + offerOf(1, OfferFrame::File, 6, "f"));
            QVERIFY(stranger.isAnswered(answerOf(1, AnswerFrame::Send, 0, sha256())));
            stranger.says(dataFrame(1, "abc"));
            QVERIFY(QTest::qWaitFor(
                [&] {
                    const QString message = alfa.stored("incomplete"_s).value(0);
                    return QFileInfo(
                               alfa.directory.filePath("data/0/messages/incomplete/"_s + message + "/f"_s))
                               .size() == 3;
                },
                patienceMs));
        }
        // It goes on with the fourth byte, also when the receiver was killed, or has the first three wrong.
        QCOMPARE(alfa.interrupt(SIGKILL), -1);
        QVERIFY(alfa.listen());
        Stranger stranger(alfa.port);
        stranger.says(hello + offerOf(1, OfferFrame::File, 6, "f"));
        QVERIFY(stranger.isAnswered(answerOf(1, AnswerFrame::Send, 3, sha256("abc"))));
        Stranger newer(alfa.port); // the same over another connection: the older one ends
        newer.says(hello + offerOf(1, OfferFrame::File, 6, "f"));
        QVERIFY(newer.isAnswered(answerOf(1, AnswerFrame::Send, 3, sha256("abc"))));
        QVERIFY(stranger.isCutOff(patienceMs));
        newer.says(dataFrame(1, "def") + FinishFrame{1, sha256("xyzdef")}.toBytes());
        QVERIFY(newer.isAnswered("Контрольная сумма не совпала"_s.toUtf8()));
        newer.says(offerOf(2, OfferFrame::File, 6, "f"));
        QVERIFY(newer.isAnswered(answerOf(2, AnswerFrame::Send, 0, sha256())));
        newer.says(dataFrame(2, "abcdef") + FinishFrame{2, sha256("abcdef")}.toBytes());
        const QByteArray stored = answerOf(3, AnswerFrame::Stored, 0, sha256("abcdef"));
        QVERIFY(newer.isAnswered(answerOf(2, AnswerFrame::Stored, 0, sha256("abcdef"))));
        QCOMPARE(alfa.stored("input"_s).size(), before + 1);

        // Asked again it says so, after the user has deleted it and the program has been killed.
        QDir input(alfa.directory.filePath("data/0/messages/input"_s));
        QVERIFY(QDir(input.filePath(alfa.stored("input"_s).last())).removeRecursively());
        QCOMPARE(alfa.interrupt(SIGKILL), -1);
        QVERIFY(alfa.listen());
        Stranger third(alfa.port);
        QVERIFY(third.says(hello + offerOf(3, OfferFrame::File, 6, "f")).isAnswered(stored));
        QCOMPARE(alfa.stored("input"_s).size(), before);
    }

    void endsOnlyTheStrangersConnection()
    {
        Stranger guest(alfa.port);
        QVERIFY(guest.says(hello).isAnswered(alfa.name.toUtf8()));

        const QByteArray offer = offerOf(1, OfferFrame::File, 2, "f", 'a');
        const QByteArray attacks[] = {
            QByteArray::fromHex("04000000ffffffff"),
            offer,                       // before a greeting
            emptyFrame(FrameType::Ping), // before a greeting
            HelloFrame{2, 0, "-!-"_s, {}}.toBytes(),
            HelloFrame{3, 0, "x"_s, {}}.toBytes(),
            HelloFrame{2, 0, alfa.name, {}}.toBytes() + QByteArray::fromHex("04000000ffffffff"),
            hello + hello,
            hello + dataFrame(1, "abc"), // never offered
            hello + offer + offer,
            hello + offer + dataFrame(1, "abc"),                // more than offered
            hello + offer + FinishFrame{1, sha256()}.toBytes(), // less than offered
            hello + answerOf(1, AnswerFrame::Stored, 0, sha256()),
        };
        for (const QByteArray &attack : attacks) {
            Stranger stranger(alfa.port);
            QVERIFY2(stranger.says(attack).isCutOff(patienceMs), attack.toHex());
        }
        // Names and lists that lead elsewhere; the connection stays.
        Stranger sly(alfa.port);
        quint32 item = 0;
        sly.says(hello);
        for (const QByteArray &name : QList<QByteArray>{"../f", "/f", "a/f", "", ".", "..", {"a\0b", 3}}) {
            sly.says(offerOf(++item, OfferFrame::File, 1, name));
            QVERIFY2(sly.isAnswered(answerOf(item, AnswerFrame::Refused, 0, {}, "Недопустимое имя"_s)), name);
        }
        for (const char *path : {"../../../../bin/f", "d/../f"}) {
            const QByteArray list = treeToBytes({{path, false, false, 0, 1}});
            OfferFrame tree{++item, OfferFrame::Tree,
                            false,  false,
                            false,  QByteArray(FrameLimits::identitySize, 't'),
                            7,      list.size() + 1,
                            0,      quint32(list.size()),
                            "t"};
            QVERIFY(sly.says(tree.toBytes()).isAnswered(answerOf(item, AnswerFrame::Send, 0, sha256())));
            QVERIFY(sly.says(dataFrame(item, list + 'x')).isAnswered("Недопустимый перечень"_s.toUtf8()));
        }
        QVERIFY(guest.says(emptyFrame(FrameType::Ping)).isAnswered(emptyFrame(FrameType::Pong)));

        // Those who speak without TLS hear why it ends, or nothing.
        Stranger old(alfa.port);
        old.saysPlainly(QByteArray::fromHex("010000000000000941424e540001000178"));
        QVERIFY(QTest::qWaitFor([&] { return old.carry(), old.plain.contains("обновите программу"); },
                                patienceMs));
        QVERIFY(Stranger(alfa.port).saysPlainly("GET / HTTP/1.0\r\n\r\n").isCutOff(patienceMs));
    }

    void letsNobodySpeakUnderAnothersName()
    {
        const int before = alfa.stored("input"_s).size();
        Stranger impostor(alfa.port); // "Бета" has written before, with another key
        impostor.says(HelloFrame{2, 0, "Бета"_s, {}}.toBytes() + offerOf(1, OfferFrame::Text, 1, {}));
        QVERIFY(impostor.isAnswered("другим ключом"_s.toUtf8()));
        QVERIFY(impostor.isCutOff(patienceMs));
        QCOMPARE(alfa.stored("input"_s).size(), before);
    }

    void survivesAnEvilLine()
    {
        const bool isLong = qEnvironmentVariableIsSet("IPCHANNEL_LONG");
        const int files = isLong ? 200 : 20;
        const int texts = isLong ? 2000 : 200;
        const int kills = isLong ? 100 : 10;
        const int largest = isLong ? 64 << 20 : 4 << 20;
        const int batches = 10;

        Abonent from("Отправитель"_s);
        Abonent to("Получатель"_s);
        to.letAllIn();
        Line line(to.port, 4711);
        QVERIFY(from.listen() && to.listen());
        QMap<QByteArray, int> expected; // digests
        qint64 payload = 0;
        std::vector<std::unique_ptr<QProcess>> senders;
        int killed = 0;
        for (int batch = 0; batch < batches; ++batch) {
            QStringList words{"send"_s, "Получатель"_s, local(line.serverPort())};
            for (int i = 0; i < texts / batches; ++i)
                words << "--text"_s << QString::number(batch * (texts / batches) + i);
            for (int i = 0; i < files / batches; ++i) {
                const int number = batch * (files / batches) + i;
                const int size =
                    number == 0 ? 0 : int(std::pow(double(largest), double(number) / (files - 1)));
                const QByteArray contents = contentsOf(size, quint32(number));
                words << from.directory.filePath("file%1"_s.arg(number));
                QVERIFY(TestInstallation::write(words.last(), contents));
                ++expected[sha256(contents)];
                payload += size;
            }
            senders.push_back(std::make_unique<QProcess>());
            senders.back()->start(from.program(), words);
            for (; killed < kills * (batch + 1) / batches; ++killed) {
                QTest::qWait(isLong ? 3000 : 1500);
                Abonent &victim = killed % 2 == 0 ? to : from;
                victim.interrupt(SIGKILL);
                QVERIFY2(victim.listen(), victim.heard);
                from.run("outbox retry"_s);
            }
        }
        for (auto &sender : senders)
            QVERIFY(QTest::qWaitFor([&] { return sender->state() == QProcess::NotRunning; }, 6 * patienceMs));
        from.run("outbox retry"_s);
        QVERIFY2(
            QTest::qWaitFor([&] { return from.stored("output"_s).isEmpty(); }, isLong ? 3600000 : 120000),
            from.heard.right(2000));

        line.calmDown();
        QProcess ping; // a slow answer is an answer
        ping.start(from.program(), {"ping"_s, "Получатель"_s, local(line.serverPort())});
        QVERIFY(QTest::qWaitFor([&] { return ping.state() == QProcess::NotRunning; }, patienceMs));
        QCOMPARE(ping.exitCode(), 0);

        QMap<QByteArray, int> arrived;
        QStringList order;
        for (const QString &number : to.stored("input"_s)) {
            const QDir message(to.directory.filePath("data/0/messages/input/"_s + number));
            const QByteArray text = to.storedFile(number + "/text.txt"_s);
            if (!text.isEmpty())
                order << QString::fromUtf8(text);
            for (const QString &name : message.entryList({"file*"_s}, QDir::Files))
                ++arrived[sha256(TestInstallation::read(message.filePath(name)))];
        }
        QVERIFY(arrived == expected);
        QCOMPARE(order.size(), texts);
        for (int i = 0; i < texts; ++i)
            QCOMPARE(order[i].toInt(), i);
        qInfo("%d connections broken; %lld bytes of %lld carried", line.broken, line.carried, payload);
        const qint64 overhead = 4096 * line.connections + 512 * (texts + files); // handshakes and frames
        QVERIFY(line.broken > 0 && line.carried < payload + payload / 20 + overhead);
    }

    void waitsForRoomOnTheDisk()
    {
        // In a process of its own, over whose data a small disk lies.
        Abonent full("Тесный"_s);
        full.letAllIn();
        QVERIFY(QDir().mkpath(full.directory.filePath("data"_s)));
        const QString file = beta.directory.filePath("мегабайты"_s);
        QVERIFY(TestInstallation::write(file, contentsOf(6 << 20, 5)));
        const int result = Forked::run([&] {
            if (!Forked::mountDisk(full.directory.filePath("data"_s), "size=26m"))
                return 77;
            const QString ballast = full.directory.filePath("data/ballast"_s);
            const QString where = local(full.port);
            const bool isWell =
                full.listen() && beta.listen() && TestInstallation::write(ballast, contentsOf(8 << 20, 6)) &&
                beta.run("send Тесный %1"_s.arg(where), {file, "--text"_s, "t"_s}) == 10 &&
                beta.output.contains("Не хватает места на диске"_s) && full.stored("input"_s).size() == 1 &&
                QFile::remove(ballast) && beta.run("outbox retry"_s) == 0 &&
                QTest::qWaitFor([&] { return full.stored("input"_s).size() == 2; }, patienceMs);
            full.interrupt(SIGINT);
            beta.interrupt(SIGINT);
            std::fputs(isWell ? "" : qPrintable(beta.output), stderr);
            return isWell ? 0 : 1;
        });
        if (result == 77)
            QSKIP("no disk of one's own here");
        QCOMPARE(result, 0);
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
        const QByteArray after = QByteArray::fromHex("000000020000000007000046cb00000080");
        QCOMPARE(beta.settings().toHex(), after.toHex());

        // All changes or none: what one file refuses the other does not keep.
        const QString ini = beta.directory.filePath("settings/settings.ini"_s);
        const QString both = "settings set port=010000 Details/maxWritingTime=4321"_s;
        const QByteArray iniBefore = TestInstallation::read(ini);
        QProcess full;
        full.start("sh"_s,
                   {"-c"_s, "trap '' XFSZ; ulimit -f 0; exec \"$0\" settings set Debug/journals=false"_s,
                    beta.program()});
        QVERIFY(full.waitForFinished(patienceMs));
        QCOMPARE(full.exitCode(), 1);
        QVERIFY(full.readAllStandardError().contains("settings.ini"));
        QCOMPARE(TestInstallation::read(ini), iniBefore);
        QVERIFY(QFile::remove(ini) && QDir().mkdir(ini));
        QCOMPARE(beta.run(both), 1);
        QCOMPARE(beta.settings().toHex(), after.toHex());
        QVERIFY(QDir().rmdir(ini));
        QCOMPARE(beta.run(both), 0);
        QCOMPARE(beta.settings().mid(9, 4).toHex(), QByteArray("00002710"));

        // A damaged record is kept until the user says otherwise.
        QVERIFY(TestInstallation::write(beta.settingsFile(), after.left(11)));
        QCOMPARE(beta.run("settings set maxConnections=9"_s), 1);
        QCOMPARE(beta.settings(), after.left(11));
        QCOMPARE(beta.run("settings set maxConnections=9 --repair"_s), 0);
        QVERIFY2(beta.output.contains("port=18001"_s), qPrintable(beta.output));
        QCOMPARE(beta.run("settings set port=18123 Details/maxWritingTime=1234"_s), 0);

        // A crash in the middle of a save leaves the settings under another name, beside new ones.
        QVERIFY(QFile::rename(beta.settingsFile(), beta.settingsFile() + ".old"_s) &&
                TestInstallation::write(beta.settingsFile() + ".new"_s, "x"));
        QCOMPARE(beta.run("settings show"_s), 0);
        QVERIFY2(beta.output.contains("18123"_s) && beta.output.contains("1234"_s), qPrintable(beta.output));
    }

    void endsInOrder()
    {
        // A listener takes up a new port by itself, also of a file overwritten in place, and ends with a
        // connection open.
        const int newPort = freePort();
        QCOMPARE(alfa.run("settings set port=%1"_s.arg(newPort)), 0);
        QVERIFY(alfa.sees("успешно запущен на %1 порту"_s.arg(newPort)));
        const QByteArray sound = alfa.settings();
        alfa.heard.clear();
        QVERIFY(TestInstallation::write(alfa.settingsFile(), "damaged"));
        QVERIFY(alfa.sees("непригоден: Версия настроек"_s));
        QVERIFY(TestInstallation::write(alfa.settingsFile(), sound));
        QVERIFY(alfa.sees("успешно запущен на %1 порту"_s.arg(newPort)));
        Stranger guest(newPort);
        QVERIFY(guest.says(hello).isAnswered(alfa.name.toUtf8()));
        QCOMPARE(alfa.interrupt(SIGINT), 0);
        QVERIFY(guest.isAnswered(ByeFrame{ByeFrame::Stopping, "Абонент завершает работу"_s}.toBytes()));

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
