// `abonent check` against a good channel, against channels with one fault each, and as a program.
#include <QtTest>

namespace {

constexpr int patienceMs = 60000;

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

Answer checkFaulty(const char *file, const char *fault, const QStringList &more = {})
{
    return check(QStringList{QString::fromUtf8(file), QStringLiteral("--json"),
                             QStringLiteral("--abonent-data"), QStringLiteral("00"),
                             QStringLiteral("--silent-data=73696c656e74"), QStringLiteral("--limit=1500"),
                             QStringLiteral("--jobs=8"), QStringLiteral("--seed=1")} +
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
};

void TestValidator::passesGoodChannels_data()
{
    QTest::addColumn<bool>("isIp");
    QTest::newRow("our plug-in") << true;
    QTest::newRow("the channel in memory") << false;
}

void TestValidator::passesGoodChannels()
{
    QFETCH(bool, isIp);
    const Answer answer =
        isIp ? check({QStringLiteral(CHANNEL_FILE), QStringLiteral("--json")}) : checkFaulty(FAULTY_FILE, "");
    QCOMPARE(answer.failed, QStringList());
    QCOMPARE(answer.skipped, QStringList());
    QCOMPARE(answer.texts.size(), listedNames().size());
    QCOMPARE(answer.exitCode, 0);
}

void TestValidator::findsExactlyTheFault_data()
{
    QTest::addColumn<QString>("check");
    QTest::addColumn<QString>("text"); // part of what is said
    const auto row = [](const char *fault, const char *name, const char *text) {
        QTest::newRow(fault) << QString::fromLatin1(name) << QString::fromUtf8(text);
    };
    row("incomplete", "entry-points", "instance");
    row("version-15", "api-version", "версии договора 15, а программе нужна версия 16. Установите");
    row("version-17", "api-version", "версии договора 17, а программе нужна версия 16. Установите");
    row("finished-twice", "start-stop", "finished(): 3");
    row("queries", "queries", "Канал молчит 3000 мс. Последнее действие: hasFreeChannel()");
    row("garbage-data", "garbage-data", "завершен сигналом 6. Последнее действие: вызов с негодными данными");
    const QStringList special{QStringLiteral("entry-points"), QStringLiteral("api-version"),
                              QStringLiteral("queries"), QStringLiteral("garbage-data")};
    const QStringList names = listedNames(); // every check has its fault, of the same name
    for (const QString &name : names) {
        if (!special.contains(name))
            QTest::newRow(qPrintable(name)) << name << QString();
    }
}

void TestValidator::findsExactlyTheFault()
{
    QFETCH(QString, check);
    QFETCH(QString, text);
    const QByteArray fault = QTest::currentDataTag();
    const Answer answer =
        checkFaulty(fault == "incomplete" ? INCOMPLETE_FILE : FAULTY_FILE, fault.constData());
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
        if (line.startsWith(QLatin1String("| `")))
            described << line.section(QLatin1Char('`'), 1, 1);
    }
    QCOMPARE(described, listedNames());
}

QTEST_GUILESS_MAIN(TestValidator)
#include "tst_validator.moc"
