// `abonent check` against a good channel, against channels with one fault each, and as a program.
#include <QtTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int patienceMs = 60000;
constexpr int runsAtOnce = 8; // most of a run is waiting

struct Answer
{
    int exitCode = -1;
    QByteArray output;
    QStringList failed; // names of checks
    QStringList skipped;
    QHash<QString, QString> texts;
};

Answer check(const QStringList &words, const char *fault = "")
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("FAULT"), QString::fromLatin1(fault));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ABONENT_FILE), QStringList(QStringLiteral("check")) + words);
    Answer answer;
    if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
        return answer;
    answer.exitCode = process.exitCode();
    answer.output = process.readAll();
    const QJsonArray checks =
        QJsonDocument::fromJson(answer.output).object()[QLatin1String("checks")].toArray();
    for (const QJsonValue &each : checks) {
        const QString name = each[QLatin1String("name")].toString();
        const QString result = each[QLatin1String("result")].toString();
        answer.texts[name] = each[QLatin1String("text")].toString();
        if (result == QLatin1String("failed"))
            answer.failed << name;
        else if (result != QLatin1String("passed"))
            answer.skipped << name;
    }
    return answer;
}

/// For channels that are called with any bytes but some.
QStringList recordsOf(const char *file, const QByteArray &silent)
{
    return {QString::fromUtf8(file), QStringLiteral("--abonent-data=00"),
            QStringLiteral("--silent-data=") + QString::fromLatin1(silent.toHex())};
}

Answer checkFaulty(const char *file, const char *fault, const QStringList &more = {})
{
    return check(recordsOf(file, "silent") +
                     QStringList{QStringLiteral("--json"), QStringLiteral("--limit=2500"),
                                 QStringLiteral("--jobs=6"), QStringLiteral("--seed=1")} +
                     more,
                 fault);
}

QStringList listedNames()
{
    QStringList names;
    const QList<QByteArray> lines = check({QStringLiteral("--list")}).output.split('\n');
    for (const QByteArray &line : lines) {
        if (!line.isEmpty())
            names << QString::fromUtf8(line).section(QLatin1Char(' '), 0, 0);
    }
    return names;
}

struct Fault
{
    const char *fault;
    const char *check;
    const char *text; // part of what is said
};

// Every other check has a fault of the same name.
constexpr Fault specialFaults[] = {
    {"incomplete", "entry-points", "instance"},
    {"version-15", "api-version", "версии договора 15, а программе нужна версия 16. Установите"},
    {"version-17", "api-version", "версии договора 17, а программе нужна версия 16. Установите"},
    {"finished-twice", "start-stop", "finished(): 3"},
    {"queries", "queries", "Канал молчит 5000 мс. Последнее действие: hasFreeChannel()"},
    {"garbage-data", "garbage-data", "завершен сигналом 6. Последнее действие: вызов с негодными данными"},
};

} // namespace

class TestValidator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void passesGoodChannels_data();
    void passesGoodChannels();
    void findsExactlyTheFault_data();
    void findsExactlyTheFault();
    void repeatsARandomRun();
    void skipsWhatCannotBeCalled();
    void refusesBadWords_data();
    void refusesBadWords();
    void isDescribedCompletely();

private:
    QHash<QByteArray, Answer> answers; // by fault
};

void TestValidator::passesGoodChannels_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::newRow("our plug-in") << QStringList{QStringLiteral(CHANNEL_FILE)};
    QTest::newRow("faultless") << recordsOf(FAULTY_FILE, "silent");
#ifdef EXAMPLE_FILE
    QTest::newRow("the example") << recordsOf(EXAMPLE_FILE, "refuse");
#endif
}

void TestValidator::passesGoodChannels()
{
    QFETCH(QStringList, words);
    const Answer answer = check(words << QStringLiteral("--json"));
    QCOMPARE(answer.failed, QStringList());
    QCOMPARE(answer.skipped, QStringList());
    QCOMPARE(answer.texts.size(), listedNames().size());
    QCOMPARE(answer.exitCode, 0);
}

void TestValidator::findsExactlyTheFault_data()
{
    QTest::addColumn<QString>("check");
    QTest::addColumn<QString>("text");
    QStringList plain = listedNames();
    plain.removeOne(QStringLiteral("entry-points"));
    plain.removeOne(QStringLiteral("api-version"));
    for (const Fault &each : specialFaults) {
        QTest::newRow(each.fault) << QString::fromLatin1(each.check) << QString::fromUtf8(each.text);
        plain.removeOne(QString::fromLatin1(each.fault));
    }
    for (const QString &name : qAsConst(plain))
        QTest::newRow(qPrintable(name)) << name << QString();

    // All of them, some at a time; the rows look at the answers.
    QList<QByteArray> faults;
    for (const Fault &each : specialFaults)
        faults << each.fault;
    for (const QString &name : qAsConst(plain))
        faults << name.toLatin1();
    std::vector<Answer> found(std::size_t(faults.size()));
    std::atomic<int> next{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < runsAtOnce; ++i) {
        threads.emplace_back([&] {
            for (int k = next++; k < faults.size(); k = next++) {
                const bool isIncomplete = faults.at(k) == "incomplete";
                found[std::size_t(k)] =
                    checkFaulty(isIncomplete ? INCOMPLETE_FILE : FAULTY_FILE, faults.at(k).constData());
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (int k = 0; k < faults.size(); ++k)
        answers[faults.at(k)] = found[std::size_t(k)];
}

void TestValidator::findsExactlyTheFault()
{
    QFETCH(QString, check);
    QFETCH(QString, text);
    const Answer answer = answers.value(QTest::currentDataTag());
    QCOMPARE(answer.failed.join(QLatin1Char(' ')), check);
    QVERIFY2(answer.texts[check].contains(text), qPrintable(answer.texts[check]));
    QCOMPARE(answer.exitCode, 7);
}

void TestValidator::repeatsARandomRun()
{
    const QStringList only{QStringLiteral("--only=random-run")};
    const Answer first = checkFaulty(FAULTY_FILE, "random-run", only);
    const Answer second = checkFaulty(FAULTY_FILE, "random-run", only);
    QVERIFY(first.texts[QStringLiteral("random-run")].contains(QStringLiteral("Зерно 1")));
    QCOMPARE(first.texts, second.texts);
}

void TestValidator::skipsWhatCannotBeCalled()
{
    const Answer answer = check({QStringLiteral(FAULTY_FILE), QStringLiteral("--json")});
    QCOMPARE(answer.exitCode, 0);
    QVERIFY(answer.skipped.contains(QStringLiteral("call-connects")));
    QVERIFY(answer.texts[QStringLiteral("keep-alive")].contains(QStringLiteral("--abonent-data")));
    QVERIFY(!answer.skipped.contains(QStringLiteral("start-stop")));
}

void TestValidator::refusesBadWords_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::newRow("no channel") << QStringList();
    QTest::newRow("no such file") << QStringList{QStringLiteral("/nowhere.so")};
    for (const char *word :
         {"--only=nothing", "--seed=0", "--limit=x", "--abonent-data=0", "--settings=a/b=/etc/passwd",
          "--settings=x=/nowhere", "--unknown", "--only", "second"})
        QTest::newRow(word) << QStringList{QStringLiteral(FAULTY_FILE), QString::fromLatin1(word)};
}

void TestValidator::refusesBadWords()
{
    QFETCH(QStringList, words);
    QCOMPARE(check(words).exitCode, 2);
}

/// The table of the document is the table of the program.
void TestValidator::isDescribedCompletely()
{
    QFile document(QStringLiteral(DOCUMENT_FILE));
    QVERIFY(document.open(QIODevice::ReadOnly));
    QStringList described;
    while (!document.atEnd()) {
        const QString line = QString::fromUtf8(document.readLine());
        if (line.startsWith(QLatin1String("| `")) && line[3] != QLatin1Char('-'))
            described << line.section(QLatin1Char('`'), 1, 1);
    }
    QCOMPARE(described, listedNames());
}

QTEST_GUILESS_MAIN(TestValidator)
#include "tst_validator.moc"
