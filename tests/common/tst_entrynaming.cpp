// Sequence numbers for message directories and task files.
#include "common/entrynaming.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

using Global::nextMessageDirName;
using Global::nextTaskFileName;

static QString numbered(int number)
{
    return "%1"_s.arg(number, 8, 10, QLatin1Char('0'));
}

class TestEntryNaming : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void continues()
    {
        // Entries of a directory, a slash behind those that are directories; the first names given in it.
        const QPair<QString, QString> rows[] = {
            {""_s, "00000001 00000002 00000001.task"_s},
            {"00000001/ 00000007/ 00000003.task"_s, "00000008 00000009 00000004.task"_s},
            {"123456789/ abc/ 0000000a/"_s, "00000001 00000002 00000001.task"_s}, // others are not seen
            {"00000003/ 00000004 99999999"_s,
             "00000005 00000006 00000001.task"_s}, // a file is taken, not seen
            {"99999999/ 99999999.task"_s, "100000000 100000001 100000000.task"_s},
            {"00000003.task _16838.task"_s, "00000001 00000002 00000001.task"_s}, // a word comes last
            {"00000041.TASK"_s, "00000001 00000002 00000042.task"_s},
            {"00000005.x.task"_s, "00000001 00000002 00000006.task"_s}, // to the first point
            {"2147483647.task"_s, "00000001 00000002 2147483648.task"_s},
            {"٠٠٠٠٠٠٠٩/ 00000004/"_s, "00000001 00000002 00000001.task"_s}, // digits of any script
        };
        for (const auto &[entries, names] : rows) {
            const QTemporaryDir place;
            const QDir directory(place.path());
            TestInstallation::plant(place.path(), entries);
            const QStringList given{nextMessageDirName(directory), nextMessageDirName(directory),
                                    nextTaskFileName(directory)};
            QCOMPARE(given.join(QLatin1Char(' ')), names);
        }
    }

    void givesUpAfterItsCandidates()
    {
        const QTemporaryDir messages;
        const QTemporaryDir tasks;
        for (int number = 1; number <= 101; ++number) { // of the kind that the scan does not see
            QVERIFY(TestInstallation::write(messages.filePath(numbered(number)), ""));
            QVERIFY(QDir(tasks.path()).mkdir(numbered(number) + ".task"_s));
        }
        QVERIFY(nextMessageDirName(QDir(messages.path())).isNull());
        QVERIFY(QFile::remove(messages.filePath(numbered(100))));
        QCOMPARE(nextMessageDirName(QDir(messages.path())), numbered(100)); // the last of 100
        QVERIFY(QRegExp("_\\d+\\.task"_s).exactMatch(nextTaskFileName(QDir(tasks.path()))));
        QVERIFY(QDir(tasks.path()).rmdir("00000099.task"_s));
        QCOMPARE(nextTaskFileName(QDir(tasks.path())), "00000099.task"_s); // the last of 99
    }

    void keepsCountingByTheKey()
    {
        const QTemporaryDir place;
        QVERIFY(QDir::setCurrent(place.path()));
        const QDir relative("."_s);
        const QDir absolute(QDir::currentPath());
        QCOMPARE(nextMessageDirName(relative), "00000001"_s);
        QCOMPARE(nextMessageDirName(absolute), "00000002"_s); // one absolute path
        QCOMPARE(nextTaskFileName(relative), "00000001.task"_s);
        QCOMPARE(nextTaskFileName(absolute), "00000001.task"_s); // two paths as written
        for (int number = 4; number <= 103; ++number)
            QVERIFY(absolute.mkdir(numbered(number)));
        QCOMPARE(nextMessageDirName(absolute), "00000003"_s); // no second scan
        QVERIFY(nextMessageDirName(absolute).isNull());
        QCOMPARE(nextMessageDirName(absolute), "00000104"_s); // but when overtaken
    }
};

QTEST_GUILESS_MAIN(TestEntryNaming)
#include "tst_entrynaming.moc"
