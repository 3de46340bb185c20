// `abonent check` against good channels, against channels with one fault each, and as a program.
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

#include <vector>

namespace {

constexpr int patienceMs = 60000;
constexpr int runsAtOnce = 8; // most of a run is waiting

struct Answer
{
    int exitCode = -1;
    QByteArray output;
    QMap<QString, QStringList> by; // result: names of checks
    QMap<QString, QString> texts;  // of checks
};

Answer check(const QStringList &words, const char *fault = "")
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("FAULT"_s, QString::fromLatin1(fault));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ABONENT_FILE), QStringList("check"_s) + words);
    Answer answer;
    if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
        return answer;
    answer.exitCode = process.exitCode();
    answer.output = process.readAll();
    for (const QJsonValue &each : QJsonDocument::fromJson(answer.output)["checks"_s].toArray()) {
        answer.by[each["result"_s].toString()] << each["name"_s].toString();
        answer.texts[each["name"_s].toString()] = each["text"_s].toString();
    }
    return answer;
}

/// For channels that are called with any bytes but some.
QStringList recordsOf(const char *file, const QByteArray &silent)
{
    return {QString::fromUtf8(file), "--abonent-data=00"_s,
            "--silent-data="_s + QLatin1String(silent.toHex())};
}

Answer checkFaulty(const char *fault, const QString &more = "--json"_s)
{
    const bool isIncomplete = qstrcmp(fault, "incomplete") == 0;
    return check(recordsOf(isIncomplete ? INCOMPLETE_FILE : FAULTY_FILE, "silent") +
                     QStringList{"--json"_s, "--limit=2500"_s, "--jobs=6"_s, "--seed=1"_s, more},
                 fault);
}

struct Fault
{
    QByteArray fault;
    QString check;
    QString text; // part of what is said
};

} // namespace

class TestValidator : public QObject
{
    Q_OBJECT

private:
    QStringList names; // of all checks

private Q_SLOTS:
    void initTestCase()
    {
        for (const QByteArray &line : check({"--list"_s}).output.trimmed().split('\n'))
            names << QString::fromUtf8(line).section(QLatin1Char(' '), 0, 0);
        QVERIFY(names.size() > 1);
    }

    void passesGoodChannels()
    {
        const QStringList channels[] = {{QStringLiteral(CHANNEL_FILE)},
#ifdef EXAMPLE_FILE
                                        recordsOf(EXAMPLE_FILE, "refuse"),
#endif
                                        recordsOf(FAULTY_FILE, "silent")};
        for (const QStringList &words : channels) {
            const Answer answer = check(words + QStringList("--json"_s));
            QCOMPARE(answer.by.keys(), QStringList("passed"_s));
            QCOMPARE(answer.by.first().size(), names.size());
            QCOMPARE(answer.exitCode, 0);
        }
    }

    void findsExactlyTheFault()
    {
        QList<Fault> faults{
            {"incomplete", "entry-points"_s, "instance"_s},
            {"version-15", "api-version"_s, "версии договора 15, а программе нужна версия 16. Установите"_s},
            {"version-17", "api-version"_s, "версии договора 17, а программе нужна версия 16. Установите"_s},
            {"finished-twice", "start-stop"_s, "finished(): 3"_s},
            {"queries", "queries"_s, "Канал молчит 5000 мс. Последнее действие: hasFreeChannel()"_s},
            {"garbage-data", "garbage-data"_s,
             "завершен сигналом 6. Последнее действие: вызов с негодными данными"_s}};
        for (const QString &name : qAsConst(names)) { // every other check has a fault of the same name
            if (!QStringList{"entry-points"_s, "api-version"_s, "queries"_s, "garbage-data"_s}.contains(name))
                faults.append({name.toLatin1(), name, {}});
        }
        std::vector<Answer> answers(std::size_t(faults.size()));
        Forked::inThreads(runsAtOnce, [&](int first) {
            for (int i = first; i < faults.size(); i += runsAtOnce)
                answers[std::size_t(i)] = checkFaulty(faults.at(i).fault.constData());
        });
        for (int i = 0; i < faults.size(); ++i) {
            const auto &[fault, check, text] = faults.at(i);
            const Answer &answer = answers[std::size_t(i)];
            QVERIFY2(answer.by["failed"_s] == QStringList(check), fault + answer.output);
            QVERIFY2(answer.texts[check].contains(text) && answer.exitCode == 7, fault + answer.output);
        }
    }

    void repeatsARandomRun()
    {
        const Answer first = checkFaulty("random-run", "--only=random-run"_s);
        QVERIFY(first.texts["random-run"_s].contains("Зерно 1"_s));
        QCOMPARE(checkFaulty("random-run", "--only=random-run"_s).texts, first.texts);
    }

    void skipsWhatCannotBeCalled()
    {
        const Answer answer = check({QStringLiteral(FAULTY_FILE), "--json"_s});
        QCOMPARE(answer.exitCode, 0);
        QVERIFY(answer.by["passed"_s].contains("start-stop"_s));
        QVERIFY(!answer.by["passed"_s].contains("call-connects"_s));
        QVERIFY(answer.texts["keep-alive"_s].contains("--abonent-data"_s));
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
        QCOMPARE(described, names);
    }
};

QTEST_GUILESS_MAIN(TestValidator)
#include "tst_validator.moc"
