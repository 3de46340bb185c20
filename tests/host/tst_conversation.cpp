// The program itself: two installations, two processes, a network of one machine. Strangers, who speak to it
// over a socket of their own. And a line between the two that does what lines do.
#include "host/conversation/cmessageprotocol.h"
#include "host/conversation/treelist.h"
#include "interfaces/cchannel.h"
#include "tests/support/abonents.h"
#include "tests/support/evilline.h"
#include "tests/support/fakehost.h"
#include "tests/support/forked.h"

#include <QDirIterator>
#include <QRegularExpression>

#include <cmath>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// A caller as the protocol meets it, over no network: it goes through TLS, and then says all it has.
class Tap : public CChannel
{
public:
    Tap(const CIdentity &identity, const QByteArray &words, int *counted)
        : tls(CTlsSession::Calling, identity), unsent(words), given(counted)
    {}

    void disconnectFromAbonent() override { isOpen = false; }
    bool isConnected() override { return isOpen; }
    int idealBlockSize() override { return 65536; }
    void write(const QByteArray &data) override { tls.feed(data); }
    QByteArray read(int maxSize) override
    {
        const bool isSaying = !unsent.isEmpty() && tls.write(unsent);
        if (isSaying)
            unsent.clear();
        const QByteArray bytes = tls.takeOutgoing(maxSize);
        *given += tls.isEstablished() ? bytes.size() : 0;
        return bytes;
    }

private:
    CTlsSession tls;
    QByteArray unsent;
    int *given;
    bool isOpen = true;
};

const QByteArray hello = helloOf("x"_s);

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
        const QString plugins = alfa.path("bin/channelPlugins/"_s);
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
        const QString file = beta.path("файл %1.bin"_s);
        const QString same = beta.path("message.txt"_s);
        const QString tree = beta.path("дерево"_s);
        const QString runnable = tree + "/a/run"_s;
        QVERIFY(TestInstallation::write(file, contents) && TestInstallation::write(same, "m") &&
                TestInstallation::write(runnable, contents));
        QVERIFY(QDir().mkpath(tree + "/пусто"_s) && QDir().mkpath(tree + "/a/b"_s));
        const QByteArray odd = "/a/b/-\n\xff .txt"; // no character of UTF-8
        QFile script(runnable);
        QVERIFY(script.open(QIODevice::ReadWrite));
        QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        QVERIFY(script.setFileTime(QDateTime::fromSecsSinceEpoch(1000000000), QFile::FileModificationTime));
        QCOMPARE(::close(::open((QFile::encodeName(tree) + odd).constData(), O_CREAT | O_WRONLY, 0600)), 0);
        QCOMPARE(::symlink("/etc", QFile::encodeName(tree + "/a/out"_s).constData()), 0);
        const QString text = "Привет, %1!\nВторая строка"_s;

        // The name is the same for both sides when only letters and digits count.
        QCOMPARE(beta.run("send альфа1 %1 --name Бета --verbose --text"_s.arg(local(alfa.port)),
                          {text, file, same, tree, "--text"_s, "два"_s}),
                 0);
        const QString digest = QString::fromLatin1(sha256(contents).toHex());
        for (const QString &line : {digest, "Пропущено, это не файл и не каталог: a/out"_s})
            QVERIFY2(beta.output.contains(line), qPrintable(beta.output));
        QVERIFY(alfa.sees("          Привет, %1!\n          Вторая строка\n"_s));
        QVERIFY(!QString::fromUtf8(alfa.heard).contains(QChar(0x1b))); // no terminal, no escapes

        QCOMPARE(alfa.stored("incomplete"_s) + beta.stored("output"_s), QStringList());
        QCOMPARE(alfa.stored().join(QLatin1Char(' ')), "00000001 00000002 00000003 00000004 00000005"_s);
        QCOMPARE(alfa.storedFile("00000001/text.txt"_s), text.toUtf8());
        QCOMPARE(alfa.storedFile("00000002/text.txt"_s), "два"_s.toUtf8()); // texts do not wait for files
        QString all;
        QString place;
        for (const QString &number : alfa.stored()) {
            const bool isFile = alfa.storedFile(number + "/файл %1.bin"_s) == contents;
            const bool isNamedSo = alfa.storedFile(number + "/message.txt"_s) == "m" &&
                                   alfa.storedFile(number + "/_message.txt"_s).contains("SHA-256");
            all += isFile ? "file "_s : isNamedSo ? "same "_s : QString();
            if (QDir(alfa.storedPath(number + "/дерево"_s)).exists())
                place = alfa.storedPath(number + "/дерево"_s);
        }
        QVERIFY2(all.contains("file"_s) && all.contains("same"_s), qPrintable(all));
        const QFileInfo run(place + "/a/run"_s);
        QVERIFY(TestInstallation::read(run.filePath()) == contents);
        QVERIFY(run.permission(QFile::ExeOwner) && run.lastModified().toSecsSinceEpoch() == 1000000000);
        QVERIFY(QDir(place + "/пусто"_s).exists() && !QFileInfo::exists(place + "/a/out"_s));
        QCOMPARE(::access((QFile::encodeName(place) + odd).constData(), R_OK), 0);
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

        // Somebody else answers, and the output has no reader; there is nothing to send; a name that is none.
        // Under another name than its own the program listens to nobody.
        const QString own = "TCP сервер успешно запущен"_s;
        QCOMPARE(beta.run("send Дельта %1 --text t --verbose"_s.arg(local(alfa.port))), 4);
        QVERIFY(beta.output.contains("Ответил другой абонент: 'Альфа-1'"_s) && beta.output.contains(own));
        QCOMPARE(beta.run("send Дельта %1 --text t --verbose --name Иной"_s.arg(local(alfa.port))), 4);
        QVERIFY2(!beta.output.contains(own), qPrintable(beta.output));
        QCOMPARE(beta.run("outbox remove 1 Дельта"_s), 0);
        QCOMPARE(beta.stored("output"_s), QStringList());
        int before = alfa.stored().size();
        QCOMPARE(
            beta.runShell("\"$0\" send Альфа-1 %1 --text t | true; \"$0\" send nobody %1 --text t >&-"_s.arg(
                local(alfa.port))),
            4);
        QVERIFY(beta.output.contains("Ответил другой абонент"_s));
        QCOMPARE(alfa.stored().size(), before + 1);
        QCOMPARE(beta.run("send Альфа-1 %1 /no/such/file"_s.arg(local(alfa.port))), 2);
        QCOMPARE(beta.run("listen --name !!"_s), 2);

        // What can be delivered is, beside what cannot.
        const QString huge = beta.path("huge"_s);
        QVERIFY(TestInstallation::write(huge, "x") && QFile::resize(huge, Q_INT64_C(1) << 43));
        before = alfa.stored().size();
        QCOMPARE(beta.run("send Альфа-1"_s, {"--text"_s, "раз"_s, "/no/such"_s, huge, "--text"_s, "два"_s,
                                             beta.settingsFile()}),
                 5);
        for (const char *line :
             {"Не передано: Файл /no/such не существует", "От незнакомых абонентов принимаются"})
            QVERIFY2(beta.output.contains(QString::fromUtf8(line)), qPrintable(beta.output));
        QCOMPARE(alfa.stored().size(), before + 3);
        QCOMPARE(beta.run("outbox remove Альфа-1"_s), 0);
        QFile::remove(huge);

        // Input from a pipe, and a look whether it is the right one.
        QCOMPARE(beta.runShell(
                     "n=$(printf 'n\\377'); echo 1 > \"$n\"; echo piped | \"$0\" send Альфа-1 - \"$n\""_s),
                 0);
        const QStringList inbox = alfa.stored();
        QCOMPARE(alfa.storedFile(inbox[inbox.size() - 2] + "/stdin"_s), QByteArray("piped\n"));
        const QByteArray last = QFile::encodeName(alfa.storedPath(inbox.last()));
        QCOMPARE(::access((last + "/n\xff").constData(), R_OK), 0);
        QCOMPARE(beta.run("ping Альфа-1"_s), 0);
        QVERIFY(beta.output.contains("Абонент 'Альфа-1' отвечает"_s));
        QCOMPARE(beta.run("ping Гамма %1"_s.arg(nobody)), 3);
    }

    void storesOnceWhatIsOfferedAgain()
    {
        const int before = alfa.stored().size();
        const QByteArray none = answerOf(1, AnswerFrame::Send, 0, checkOf({}));
        const QByteArray three = answerOf(1, AnswerFrame::Send, 3, checkOf("abc"));
        const QByteArray offer = offering(1, OfferFrame::File, 6, "f").toBytes();
        {
            Stranger stranger(alfa.port);
            QVERIFY(stranger.says(hello + offer).isAnswered(none));
            stranger.says(dataFrame(1, "abc"));
            const QString place = alfa.path("data/0/messages/incomplete/%1/f"_s);
            QVERIFY2(
                QTest::qWaitFor(
                    [&] { return QFileInfo(place.arg(alfa.stored("incomplete"_s).value(0))).size() == 3; },
                    patienceMs),
                "three bytes of the file on disk");
        }
        // It goes on with the fourth byte, also when the receiver was killed, or has the first three wrong.
        QCOMPARE(alfa.interrupt(SIGKILL), -1);
        QVERIFY(alfa.listen());
        Stranger stranger(alfa.port);
        QVERIFY(stranger.says(hello + offer).isAnswered(three));
        Stranger newer(alfa.port); // the same over another connection: the older one ends
        QVERIFY(newer.says(hello + offer).isAnswered(three));
        QVERIFY(stranger.isCutOff());
        newer.says(dataFrame(1, "def") + FinishFrame{1, checkOf("xyzdef")}.toBytes());
        QVERIFY(newer.isAnswered("Контрольная сумма не совпала"_s.toUtf8()));
        newer.says(offering(2, OfferFrame::File, 6, "f").toBytes());
        QVERIFY(newer.isAnswered(answerOf(2, AnswerFrame::Send, 0, checkOf({}))));
        newer.says(wholeOf(2, "abcdef"));
        QVERIFY(newer.isAnswered(answerOf(2, AnswerFrame::Stored, 0, sha256("abcdef"))));
        QCOMPARE(alfa.stored().size(), before + 1);

        // Asked again it says so, after the user has deleted it and the program has been killed.
        QVERIFY(QDir(alfa.storedPath(alfa.stored().last())).removeRecursively());
        QCOMPARE(alfa.interrupt(SIGKILL), -1);
        QVERIFY(alfa.listen());
        Stranger third(alfa.port);
        QVERIFY(third.says(hello + offering(3, OfferFrame::File, 6, "f").toBytes())
                    .isAnswered(answerOf(3, AnswerFrame::Stored, 0, sha256("abcdef"))));
        QCOMPARE(alfa.stored().size(), before);
    }

    void endsOnlyTheStrangersConnection()
    {
        Stranger guest(alfa.port);
        QVERIFY(guest.says(hello).isAnswered(alfa.name.toUtf8()));

        const QByteArray offer = offering(1, OfferFrame::File, 2, "f", 'a').toBytes();
        const QByteArray attacks[] = {
            offer,                       // before a greeting
            emptyFrame(FrameType::Ping), // before a greeting
            helloOf("-!-"_s),
            HelloFrame{3, 0, "x"_s, {}}.toBytes(),
            helloOf(alfa.name) + QByteArray::fromHex("04000000ffffffff"),
            hello + hello,
            hello + dataFrame(1, "abc"), // never offered
            hello + offer + offer,
            hello + offer + dataFrame(1, "abc"),                   // more than offered
            hello + offer + FinishFrame{1, checkOf({})}.toBytes(), // less than offered
            hello + answerOf(1, AnswerFrame::Stored, 0, sha256({})),
            // "Бета" has written before, with another key.
            helloOf("Бета"_s) + offering(1, OfferFrame::Text, 1, {}).toBytes(),
        };
        const int before = alfa.stored().size();
        for (const QByteArray &attack : attacks) {
            Stranger stranger(alfa.port);
            QVERIFY2(stranger.says(attack).isCutOff(), attack.toHex());
            QVERIFY(&attack != std::end(attacks) - 1 || stranger.heard.contains("другим ключом"_s.toUtf8()));
        }
        QCOMPARE(alfa.stored().size(), before);
        // Lists that lead elsewhere; the connection stays.
        Stranger sly(alfa.port);
        quint32 item = 0;
        sly.says(hello);
        for (const char *path : {"../../../../bin/f", "d/../f"}) {
            const QByteArray list = treeToBytes({{path, false, false, 0, 1}});
            OfferFrame tree = offering(++item, OfferFrame::Tree, list.size() + 1, "t", 't');
            tree.listSize = quint32(list.size());
            QVERIFY(sly.says(tree.toBytes()).isAnswered(answerOf(item, AnswerFrame::Send, 0, checkOf({}))));
            QVERIFY(sly.says(dataFrame(item, list + 'x')).isAnswered("Недопустимый перечень"_s.toUtf8()));
        }
        QVERIFY(guest.says(emptyFrame(FrameType::Ping)).isAnswered(emptyFrame(FrameType::Pong)));

        // Those who speak without TLS hear why it ends, or nothing.
        Stranger old(alfa.port);
        old.saysPlainly(QByteArray::fromHex("010000000000000941424e540001000178"));
        QVERIFY(QTest::qWaitFor([&] { return old.carry(), old.plain.contains("обновите программу"); },
                                patienceMs));
        QVERIFY(Stranger(alfa.port).saysPlainly("GET / HTTP/1.0\r\n\r\n").isCutOff());
    }

    // What a caller can make us hold before it has said who it is.
    void holdsLittleForTheUnnamed()
    {
        const QTemporaryDir place;
        CIdentity identity;
        QCOMPARE(identity.prepare(place.filePath("identity.pem"_s)), QString());
        CContacts contacts(place.filePath("abonents.conf"_s));
        Recorder journal;
        CUnnamedCallers callers(1000, 1000);
        CMessageProtocol::Context around;
        around.identity = &identity;
        around.contacts = &contacts;
        around.journal = &journal;
        around.unnamed = &callers;
        around.originOf = [](const QString &) { return QString(); };
        for (char type = 0; type < 10; ++type) {
            for (const quint32 length : {0u, 8u, 0x7fffffffu, 0xffffffffu}) {
                QByteArray header(8, '\0');
                header[0] = type;
                qToBigEndian(length, header.data() + 4);
                int given = 0;
                CMessageProtocol protocol(new Tap(identity, header + QByteArray(1 << 20, 'r'), &given),
                                          around);
                QSignalSpy over(&protocol, &CAbstractProtocol::finished);
                protocol.start();
                for (int turn = 0; turn < 100 && over.isEmpty(); ++turn)
                    QCoreApplication::processEvents();
                QVERIFY2(over.count() == 1 && given <= 32768,
                         header.toHex() + ' ' + QByteArray::number(given));
            }
        }
    }

    // Names that would act on a terminal, forge records of the log, or lead out of the inbox.
    void showsAndStoresHostileNamesHarmlessly()
    {
        Abonent mark("Марк"_s);
        mark.letAllIn();
        QVERIFY(mark.listen());
        const QString escape = "fire-escape"_s;
        const QStringList names{"Имя %1 %2 %99 %%"_s,
                                "\x1b[2J\x1b]0;title\x07\x1b[31m x"_s,
                                "line\n12:00:00.000                 CIpServer    forged"_s,
                                "a\r\n\n\nb\tc\vd\f"_s,
                                "\u202egnp.exe\u2066\u200f \u009b31m\u0085\u2028 x"_s,
                                "..\\..\\"_s + escape,
                                "con.\"'`$(x);|&*?<>"_s,
                                "../../../"_s + escape, // from here on they are no names of files
                                mark.path(escape),
                                "."_s,
                                ".."_s,
                                QString(),
                                "a"_s + QChar(0) + "b"_s};
        const int firstBad = 7;
        for (int i = 0; i < names.size(); ++i) {
            const QByteArray file = names[i].toUtf8();
            Stranger stranger(mark.port);
            stranger.says(helloOf(QString(names[i]).remove(QChar(0)) + " n%1"_s.arg(i)) +
                          offering(1, OfferFrame::File, 3, file, char('a' + i)).toBytes());
            if (i >= firstBad) {
                QVERIFY2(stranger.isAnswered(answerOf(1, AnswerFrame::Refused, 0, {}, "Недопустимое имя"_s)),
                         file);
                continue;
            }
            QVERIFY2(stranger.isAnswered(answerOf(1, AnswerFrame::Send, 0, checkOf({}))), file);
            QVERIFY(stranger.says(wholeOf(1, "abc"))
                        .isAnswered(answerOf(1, AnswerFrame::Stored, 0, sha256("abc"))));
        }
        QByteArray huge = hello + QByteArray(1 << 20, 'L'); // our own writer would cut it
        qToBigEndian(quint32(huge.size() - 8), huge.data() + 4);
        QVERIFY(Stranger(mark.port).says(huge).isCutOff());
        QCOMPARE(mark.interrupt(SIGINT), 0);

        // Log: no line can be taken for a record that is none. Terminal: nothing acts on it.
        QByteArray log;
        QDirIterator logs(mark.path("data/0/log"_s), QDir::Files);
        while (logs.hasNext())
            log += TestInstallation::read(logs.next());
        const QString text = QString::fromUtf8(log);
        const QRegularExpression record("^(\\d\\d:\\d\\d:\\d\\d\\.\\d{3} .{25} {4,}\\S.*| {42,}.*|)$"_s);
        const QStringList lines = text.mid(text.indexOf("\n\n"_s)).split(QLatin1Char('\n'));
        QVERIFY(lines.size() > 2 * names.size());
        for (const QString &line : lines)
            QVERIFY2(record.match(line).hasMatch() && !line.startsWith("12:00:00.000"_s), qPrintable(line));
        const QString shown = QString::fromUtf8(mark.heard).remove(QLatin1Char('\n'));
        for (const QChar each : shown)
            QVERIFY2(each.isPrint(), QByteArray::number(each.unicode(), 16));
        // Files: each message's directory with two in it, and none anywhere else.
        const QString input = mark.storedPath(QString());
        int inside = 0;
        QDirIterator all(mark.path(QString()), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
        while (all.hasNext()) {
            const bool isInside = all.next().startsWith(input);
            inside += isInside;
            QVERIFY2(isInside || !all.fileName().contains(escape), qPrintable(all.filePath()));
        }
        QCOMPARE(inside, 3 * firstBad);
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
        EvilLine line(to.port, 4711);
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
                words << from.path("file%1"_s.arg(number));
                QVERIFY(TestInstallation::write(words.last(), contents));
                ++expected[sha256(contents)];
                payload += size;
            }
            senders.push_back(std::make_unique<QProcess>());
            senders.back()->start(from.program(), words);
            QByteArray said; // the next ones are accepted behind these
            QVERIFY2(QTest::qWaitFor(
                         [&] {
                             return (said += senders.back()->readAllStandardOutput())
                                 .contains("Принято к отправке");
                         },
                         patienceMs),
                     "the sender's word that it has taken the messages");
            for (; killed < kills * (batch + 1) / batches; ++killed) {
                QTest::qWait(isLong ? 3000 : 1500);
                Abonent &victim = killed % 2 == 0 ? to : from;
                victim.interrupt(SIGKILL);
                QVERIFY2(victim.listen(), victim.heard);
                from.run("outbox retry"_s);
            }
        }
        const auto ends = [](QProcess &process) {
            return QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 2 * patienceMs);
        };
        for (auto &sender : senders)
            QVERIFY(ends(*sender));
        from.run("outbox retry"_s);
        QVERIFY2(
            QTest::qWaitFor([&] { return from.stored("output"_s).isEmpty(); }, isLong ? 7200000 : 300000),
            from.heard.right(2000));

        line.isCalm = true;
        QProcess ping; // a slow answer is an answer
        ping.start(from.program(), {"ping"_s, "Получатель"_s, local(line.serverPort())});
        QVERIFY(ends(ping));
        QCOMPARE(ping.exitCode(), 0);

        QMap<QByteArray, int> arrived;
        QStringList order;
        for (const QString &number : to.stored()) {
            const QByteArray text = to.storedFile(number + "/text.txt"_s);
            if (!text.isEmpty())
                order << QString::fromUtf8(text);
            for (const QString &name : QDir(to.storedPath(number)).entryList({"file*"_s}, QDir::Files))
                ++arrived[sha256(to.storedFile(number + QLatin1Char('/') + name))];
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
        // In a process of its own, over whose data a small disk lies. The first file does not fit beside
        // what must stay free; the second finds the disk full while it is written, since what was free
        // when it began has gone.
        Abonent full("Тесный"_s);
        full.letAllIn();
        QVERIFY(QDir().mkpath(full.path("data"_s)));
        const QString file = beta.path("мегабайты"_s);
        const QByteArray contents = contentsOf(8 << 20, 5);
        QVERIFY(TestInstallation::write(file, contents));
        const int result = Forked::run([&] {
            ::alarm(300); // a slow line and a busy machine
            if (!Forked::mountDisk(full.path("data"_s), "size=44m"))
                return 77;
            const QString ballast = full.path("data/ballast"_s);
            const QString where = local(full.port);
            const auto waits = [&](int megabytes, const QString &reason) {
                return TestInstallation::write(ballast, QByteArray(megabytes << 20, 'x')) &&
                       beta.run("send Тесный %1"_s.arg(where), {file, "--text"_s, "t"_s}) == 10 &&
                       beta.output.contains(reason) && QFile::remove(ballast);
            };
            const auto arrives = [&](int messages) {
                return beta.run("outbox retry"_s) == 0 &&
                       QTest::qWaitFor([&] { return full.stored().size() == messages; }, patienceMs);
            };
            const QString part = full.path("data/0/messages/incomplete/%1/мегабайты"_s);
            const auto hasBegun = [&] {
                return QFile::exists(part.arg(full.stored("incomplete"_s).value(0)));
            };
            QProcess sender;
            const auto hasEnded = [&] { return sender.state() == QProcess::NotRunning; };
            EvilLine slow(full.port, 1); // over which the disk gets full in the middle of the file
            slow.isCalm = true;
            QFile rest(ballast);
            const auto fill = [&] {
                while (rest.write(QByteArray(1 << 16, 'x')) > 0) {
                }
                rest.close();
                return true;
            };
            int step = 0;
            bool isWell = true;
            const auto then = [&](bool is) {
                isWell = isWell && is;
                step += isWell;
                return isWell;
            };
            then(full.listen() && beta.listen() && waits(24, "Не хватает места на диске"_s)) &&
                then(full.stored().size() == 1 && arrives(2)) && then(beta.interrupt(SIGINT) == 0) &&
                (sender.start(beta.program(), {"send"_s, "Тесный"_s, local(slow.serverPort()), file}),
                 then(QTest::qWaitFor(hasBegun, patienceMs))) &&
                then(rest.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && fill()) &&
                then(full.sees("Не удалось записать файл: на диске нет места"_s)) &&
                then(QFile::remove(ballast) && QTest::qWaitFor(hasEnded, patienceMs)) &&
                then(beta.listen() && arrives(3)) &&
                then(full.storedFile("00000003/мегабайты"_s) == contents);
            full.interrupt(SIGINT);
            beta.interrupt(SIGINT);
            sender.kill();
            sender.waitForFinished();
            if (!isWell)
                std::fprintf(stderr, "step %d: %s%s", step, qPrintable(beta.output), full.heard.constData());
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
        const QString ini = beta.path("settings/settings.ini"_s);
        const QString both = "settings set port=010000 Details/maxWritingTime=4321"_s;
        const QByteArray iniBefore = TestInstallation::read(ini);
        QCOMPARE(beta.runShell("trap '' XFSZ; ulimit -f 0; exec \"$0\" settings set Debug/journals=false"_s),
                 1);
        QVERIFY(beta.output.contains("settings.ini"_s));
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
        // A listener takes up a new port by itself, also of a file overwritten in place (the port of a
        // damaged one may be somebody else's: then it tries again after half a minute), and ends with a
        // connection open.
        const int newPort = freePort();
        const QString started = "успешно запущен на %1 порту"_s.arg(newPort);
        QCOMPARE(alfa.run("settings set port=%1"_s.arg(newPort)), 0);
        QVERIFY(alfa.sees(started));
        const QByteArray sound = alfa.settings();
        alfa.heard.clear();
        QVERIFY(TestInstallation::write(alfa.settingsFile(), "damaged"));
        QVERIFY(alfa.sees("непригоден: Версия настроек"_s));
        QVERIFY(TestInstallation::write(alfa.settingsFile(), sound));
        QVERIFY(alfa.sees(started));
        Stranger guest(newPort);
        QVERIFY(guest.says(hello).isAnswered(alfa.name.toUtf8()));
        QCOMPARE(alfa.interrupt(SIGINT), 0);
        QVERIFY(guest.isAnswered(ByeFrame{ByeFrame::Stopping, "Абонент завершает работу"_s}.toBytes()));

        // A sender whose abonent says nothing ends when it is told to.
        QTcpServer mute;
        QVERIFY(mute.listen(QHostAddress::LocalHost));
        QProcess sender;
        sender.start(beta.program(), {"send"_s, "x"_s, local(mute.serverPort()), "--text"_s, "t"_s});
        QVERIFY2(QTest::qWaitFor([&] { return mute.hasPendingConnections(); }, patienceMs),
                 "a call that came");
        ::kill(pid_t(sender.processId()), SIGTERM);
        QVERIFY(sender.waitForFinished(patienceMs));
        QCOMPARE(sender.exitCode(), 128 + SIGTERM);
    }
};

QTEST_GUILESS_MAIN(TestConversation)
#include "tst_conversation.moc"
