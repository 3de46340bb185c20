// `abonent check` against good channels, against channels with one fault each, and as a program.
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"
#include "tests/validator/seeds.h"
#include "transportIp/ipsettings.h"

#include <QtTest>

#include <future>
#include <vector>

namespace {

constexpr int patienceMs = 300000;
constexpr int runsAtOnce = 24; // most of a run is waiting

struct Answer
{
    int exitCode = -1;
    QString output;
    QMap<QString, QStringList> by; // result: names of checks
    QMap<QString, QString> texts;  // of checks
};

Answer check(const QStringList &words, const char *fault = "")
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("FAULT"_s, QString::fromUtf8(fault));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ABONENT_FILE), QStringList("check"_s) + words);
    Answer answer;
    if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
        return answer;
    answer.exitCode = process.exitCode();
    answer.output = QString::fromUtf8(process.readAll());
    for (const QJsonValue &each : QJsonDocument::fromJson(answer.output.toUtf8())["checks"_s].toArray()) {
        answer.by[each["result"_s].toString()] << each["name"_s].toString();
        answer.texts[each["name"_s].toString()] = each["text"_s].toString();
    }
    return answer;
}

QString hex(const QByteArray &record)
{
    return QString::fromLatin1(record.toHex());
}

/// For channels that are called with any bytes but some.
QStringList loopback(const char *file)
{
    return {QString::fromUtf8(file), "--abonent-data=00"_s, "--silent-data="_s + hex("refuse")};
}

bool isLong()
{
    return qEnvironmentVariableIsSet("IPCHANNEL_LONG");
}

/// @return the check that a seed is for, and those without which it is not made; all in the long form
QStringList onlyWhatIsNeeded(const Seed &seed)
{
    if (isLong())
        return {};
    static const QStringList withoutCalls{"api-version"_s, "plugin-object"_s, "plugin-threads"_s,
                                          "call-delay"_s,  "meta-object"_s,   "fresh-server"_s,
                                          "start-stop"_s,  "queries"_s};
    const QString name = QString::fromLatin1(seed.check);
    return {"--only"_s, withoutCalls.contains(name) ? name : "call-connects,"_s + name};
}

/// One seed of a channel or of a host.
struct Case
{
    const Seed *seed;
    bool isHost;
};

Answer made(const Case &each, int patience = 1)
{
    QStringList words{"--json"_s, "--limit"_s, QString::number(each.seed->limitMs * patience)};
    if (each.isHost)
        words += {"--host"_s, QStringLiteral(HOST_FILE), QStringLiteral(FAULTY_FILE)};
    else
        words +=
            loopback(FAULTY_FILE) + QStringList{"--jobs=6"_s, "--seed=1"_s} + onlyWhatIsNeeded(*each.seed);
    return check(words, each.seed->fault);
}

/// @return null, or what was not found as it should have been
QString judged(const Case &each, const Answer &answer)
{
    const QString name = QString::fromLatin1(each.seed->check);
    const QStringList failed = answer.by["failed"_s];
    // A fault may have consequences that other checks see as well; in the long form those are made.
    const bool isNamed = isLong() ? failed.contains(name) : failed == QStringList(name);
    const QString text = answer.texts[name];
    if (text.contains("со своим распределителем памяти"_s)) // a sanitizer's: leaks cannot be measured
        return QString();
    if (isNamed && answer.exitCode == (each.isHost ? 1 : 7) &&
        text.contains(QString::fromUtf8(each.seed->text)))
        return QString();
    return "%1: %2 has to fail, but %3 does: %4\n"_s.arg(QString::fromUtf8(each.seed->fault), name,
                                                         failed.join(QLatin1Char(',')), text);
}

} // namespace

class TestValidator : public QObject
{
    Q_OBJECT

private:
    QStringList listed; // names of all checks of channels, then of all rules of hosts
    QStringList unproved;
    int checks = 0;

private Q_SLOTS:
    void initTestCase()
    {
        const QStringList lines = check({"--list"_s}).output.split(QLatin1Char('\n'));
        for (const QString &line : lines) {
            if (!line.isEmpty() && line[0].toLatin1() >= 'a')
                listed << line.section(QLatin1Char(' '), 0, 0);
        }
        unproved = listed;
        checks = listed.indexOf("version-first"_s); // the first of the rules of hosts
        QVERIFY(checks > 0);
    }

    void passesWhatIsGood()
    {
        const QString abonent = QStringLiteral(ABONENT_FILE);
        const QList<QStringList> good{{QStringLiteral(CHANNEL_FILE)},
                                      loopback(LOOPBACK_FILE),
                                      {QStringLiteral(UNIX_FILE), "--abonent-data="_s + hex("unixSocket"),
                                       "--silent-data="_s + hex("nobody")},
                                      loopback(FAULTY_FILE), // without a fault
                                      {"--host"_s, QStringLiteral(HOST_FILE), QStringLiteral(FAULTY_FILE)},
                                      {"--host"_s, QStringLiteral(HOST_FILE), "{}"_s},
                                      {"--host"_s, abonent, "listen"_s, "--name"_s, "Борис"_s},
                                      {"--host"_s, abonent, "send"_s, "Борис"_s, "127.0.0.1"_s, "--name"_s,
                                       "Борис"_s, "--text"_s, "Да"_s}};
        std::atomic<bool> isOver{false};
        std::vector<std::future<void>> load; // both processors are busy in the long form
        for (int i = 0; i < (isLong() ? QThread::idealThreadCount() : 0); ++i)
            load.push_back(std::async(std::launch::async, [&isOver] {
                while (!isOver)
                    ;
            }));
        QStringList troubles[8];
        Forked::inThreads(good.size(), [&](int which) {
            const bool isHost = good[which][0] == "--host"_s;
            const int least = isHost ? 26 : checks - 1; // memory may be skipped
            for (int i = 0; i < (isLong() && !isHost ? 20 : 1); ++i) {
                const Answer answer = check(QStringList("--json"_s) + good[which]);
                if (answer.exitCode != 0 || answer.by["passed"_s].size() < least)
                    troubles[which] << "%1: code %2, %3 passed"_s.arg(good[which].join(QLatin1Char(' ')))
                                           .arg(answer.exitCode)
                                           .arg(answer.by["passed"_s].size());
                for (const QString &name : answer.by["failed"_s])
                    troubles[which] << name + ": "_s + answer.texts[name];
            }
        });
        isOver = true;
        for (const QStringList &each : troubles)
            QVERIFY2(each.isEmpty(), qPrintable(each.join(QLatin1Char('\n'))));
    }

    void namesEveryFault()
    {
        std::vector<Case> cases;
        for (const Seed &seed : hostSeeds) // they take longer
            cases.push_back({&seed, true});
        for (const Seed &seed : seeds)
            cases.push_back({&seed, false});
        QStringList troubles;
        QMutex mutex; // guards the list
        std::atomic<std::size_t> next{0};
        Forked::inThreads(isLong() ? 3 : runsAtOnce, [&](int) {
            for (std::size_t i = next++; i < cases.size(); i = next++) {
                QString trouble = judged(cases[i], made(cases[i]));
                if (!trouble.isNull()) // the limits are short, and the machine may be busy
                    trouble = judged(cases[i], made(cases[i], 10));
                const QMutexLocker locker(&mutex);
                troubles << trouble;
            }
        });
        QVERIFY2(troubles.join(QString()).isEmpty(), qPrintable(troubles.join(QString())));
        for (const Case &each : cases)
            unproved.removeOne(QString::fromLatin1(each.seed->check));
        QCOMPARE(unproved.join(QLatin1Char(',')), "entry-points"_s);
        const Answer incomplete = check(loopback(INCOMPLETE_FILE) + QStringList("--json"_s));
        QCOMPARE(incomplete.by["failed"_s], QStringList("entry-points"_s));
        QVERIFY(incomplete.texts["entry-points"_s].contains("instance"_s));
    }

    void repeatsARandomRun()
    {
        const auto run = [] {
            return check(loopback(FAULTY_FILE) + QStringList{"--json"_s, "--seed=1"_s, "--only=random-run"_s},
                         "server.settings removesOne")
                .texts["random-run"_s];
        };
        const QString text = run();
        QVERIFY2(text.contains("Зерно 1"_s), qPrintable(text));
        QCOMPARE(run(), text);
    }

    void tellsWhatWasNotChecked()
    {
        const Answer partly = check({QStringLiteral(FAULTY_FILE)});
        QCOMPARE(partly.exitCode, 0);
        QVERIFY(partly.output.contains("Пропущено: неизвестно, как вызвать абонента"_s));
        QVERIFY(partly.output.contains("соответствует договору во всем, что проверено"_s));
        const Answer nothing = check({QStringLiteral(FAULTY_FILE), "--only=keep-alive"_s});
        QCOMPARE(nothing.exitCode, 1);
        QVERIFY(nothing.output.contains("Ничего не проверено"_s) &&
                !nothing.output.contains("соответствует"_s));
    }

    /// What it proposes can be given to a shell as it is, and gives the same.
    void tellsHowToRepeat()
    {
        QTemporaryDir directory;
        const QString copy = directory.filePath("a 'file' $HOME.so"_s);
        QVERIFY(QFile::copy(QStringLiteral(FAULTY_FILE), copy));
        QStringList words = loopback("") + QStringList("--limit=2000"_s);
        words[0] = copy;
        const QString output =
            check(words + QStringList{"--only"_s, "call-delay,queries"_s}, "plugin.inc drop").output;
        const QString command = output.section("Повторить: abonent"_s, 1).section(QLatin1Char('\n'), 0, 0);
        QVERIFY2(command.contains("--limit=2000"_s) && command.contains("--abonent-data=00"_s),
                 qPrintable(output));
        QProcess shell;
        shell.start("sh"_s, {"-c"_s, "FAULT='plugin.inc drop' " ABONENT_FILE ""_s + command});
        QVERIFY(shell.waitForFinished());
        const QString again = QString::fromUtf8(shell.readAll());
        QVERIFY2(again.contains("Верно 0, ошибок 1"_s), qPrintable(again));
    }

    /// Where all servers have one address, they do not meet.
    void runsOneAfterAnotherAtAFixedAddress()
    {
        QTemporaryDir directory;
        ChannelIpSettings settings;
        settings.port = freePort() - 20000; // outside of what the system chooses
        AbonentIpSettings abonent;
        abonent.address = "127.0.0.1"_s;
        abonent.port = settings.port;
        const QString file = directory.filePath("conf"_s);
        QVERIFY(TestInstallation::write(file, settings.toByteArray()));
        const Answer answer = check(
            {QStringLiteral(CHANNEL_FILE), "--jobs=6"_s, "--settings=channelIp.conf="_s + file,
             "--abonent-data="_s + hex(abonent.toByteArray()),
             "--only=start-stop,queries,call-connects,many-calls,restart,keep-alive,settings-change"_s});
        QVERIFY2(answer.output.contains("постоянный адрес tcp %1"_s.arg(settings.port)),
                 qPrintable(answer.output));
        QCOMPARE(answer.exitCode, 0);
    }

    void refusesBadWords()
    {
        QCOMPARE(check({}).exitCode, 2);
        QCOMPARE(check({"/nowhere.so"_s}).exitCode, 2);
        for (const char *word :
             {"--only=nothing", "--seed=0", "--limit=x", "--abonent-data=0", "--settings=a/b=/etc/passwd",
              "--settings=x=/nowhere", "--unknown", "--only", "second"})
            QVERIFY2(check({QStringLiteral(FAULTY_FILE), QString::fromLatin1(word)}).exitCode == 2, word);
    }

    /// The table of the document is the table of the program.
    void isDescribedCompletely()
    {
        QStringList described;
        for (const QByteArray &line : TestInstallation::read(QStringLiteral(DOCUMENT_FILE)).split('\n')) {
            if (line.startsWith("| `") && line[3] != '-')
                described << QString::fromUtf8(line.split('`')[1]);
        }
        QCOMPARE(described, listed);
    }
};

QTEST_GUILESS_MAIN(TestValidator)
#include "tst_validator.moc"
