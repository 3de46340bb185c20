// Sequence numbers for message directories and task files.
#include "common/entrynaming.h"

#include <QTemporaryDir>
#include <QtTest>

class TestEntryNaming : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void continues_data();
    void continues();
    void givesUpAfterItsCandidates();
    void keepsCountingByTheKey();
};

// Entries of a directory, a slash behind those that are directories, and the first names given in it.
void TestEntryNaming::continues_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QString>("task");
    const auto row = [](const char *name, const char *entries, const char *messages, const char *task) {
        QTest::newRow(name) << QString::fromUtf8(entries).split(QLatin1Char(' '), Qt::SkipEmptyParts)
                            << QString::fromLatin1(messages).split(QLatin1Char(' '))
                            << QString::fromLatin1(task);
    };
    row("empty", "", "00000001 00000002", "00000001.task");
    row("after the last", "00000001/ 00000007/ 00000003.task", "00000008 00000009", "00000004.task");
    row("others are not seen", "123456789/ abc/ 0000000a/", "00000001 00000002", "00000001.task");
    row("a file is taken, not seen", "00000003/ 00000004 99999999", "00000005 00000006", "00000001.task");
    row("nine digits", "99999999/ 99999999.task", "100000000 100000001", "100000000.task");
    row("a word comes last", "00000003.task _16838.task", "00000001 00000002", "00000001.task");
    row("any letter case", "00000041.TASK", "00000001 00000002", "00000042.task");
    row("to the first point", "00000005.x.task", "00000001 00000002", "00000006.task");
    row("the largest int", "2147483647.task", "00000001 00000002", "2147483648.task");
    row("digits of any script", "٠٠٠٠٠٠٠٩/ 00000004/", "00000001 00000002", "00000001.task");
}

void TestEntryNaming::continues()
{
    QFETCH(QStringList, entries);
    QFETCH(QStringList, messages);
    QFETCH(QString, task);
    QTemporaryDir place;
    const QDir directory(place.path());
    for (const QString &entry : entries) {
        QFile file(directory.absoluteFilePath(entry));
        QVERIFY(entry.endsWith(QLatin1Char('/')) ? directory.mkdir(entry) : file.open(QIODevice::WriteOnly));
    }
    for (const QString &name : messages)
        QCOMPARE(Global::nextMessageDirName(directory), name);
    QCOMPARE(Global::nextTaskFileName(directory), task);
}

void TestEntryNaming::givesUpAfterItsCandidates()
{
    QTemporaryDir place;
    const QDir directory(place.path());
    for (int number = 1; number <= 101; ++number) { // files, which the scan for directories does not see
        for (const char *pattern : {"%1", "%1.task"}) {
            const QString name = QString::fromLatin1(pattern).arg(number, 8, 10, QLatin1Char('0'));
            QVERIFY(QFile(directory.absoluteFilePath(name)).open(QIODevice::WriteOnly));
        }
    }
    QVERIFY(directory.mkdir(QStringLiteral("0.task"))); // and one that the scan for files does not see
    QVERIFY(Global::nextMessageDirName(directory).isNull());
    QVERIFY(QFile::remove(directory.absoluteFilePath(QStringLiteral("00000100"))));
    QCOMPARE(Global::nextMessageDirName(directory), QStringLiteral("00000100")); // the hundredth and last

    QCOMPARE(Global::nextTaskFileName(directory), QStringLiteral("00000102.task"));
    QTemporaryDir other;
    const QDir tasks(other.path());
    for (int number = 1; number <= 100; ++number)
        QVERIFY(tasks.mkdir(QStringLiteral("%1.task").arg(number, 8, 10, QLatin1Char('0'))));
    QVERIFY(QRegExp(QStringLiteral("_\\d+\\.task")).exactMatch(Global::nextTaskFileName(tasks)));
    QVERIFY(tasks.rmdir(QStringLiteral("00000099.task")));
    QCOMPARE(Global::nextTaskFileName(tasks), QStringLiteral("00000099.task")); // the last of 99
}

void TestEntryNaming::keepsCountingByTheKey()
{
    QTemporaryDir place;
    QVERIFY(QDir::setCurrent(place.path()));
    const QDir relative(QStringLiteral("."));
    const QDir absolute(QDir::currentPath());
    QCOMPARE(Global::nextMessageDirName(relative), QStringLiteral("00000001"));
    QCOMPARE(Global::nextMessageDirName(absolute), QStringLiteral("00000002")); // one absolute path
    QCOMPARE(Global::nextTaskFileName(relative), QStringLiteral("00000001.task"));
    QCOMPARE(Global::nextTaskFileName(absolute), QStringLiteral("00000001.task")); // two paths as written
    QVERIFY(absolute.mkdir(QStringLiteral("00000050")));
    QCOMPARE(Global::nextMessageDirName(absolute), QStringLiteral("00000003")); // no second scan
    for (int number = 4; number <= 103; ++number)
        absolute.mkdir(QStringLiteral("%1").arg(number, 8, 10, QLatin1Char('0')));
    QVERIFY(Global::nextMessageDirName(absolute).isNull());
    QCOMPARE(Global::nextMessageDirName(absolute), QStringLiteral("00000104")); // but when overtaken
}

QTEST_GUILESS_MAIN(TestEntryNaming)
#include "tst_entrynaming.moc"
