// Processes that die in the middle of a save.
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

static QByteArray version(int number)
{
    const int size = 1000 + number * 7919 % 60000;
    return QByteArray::number(number) + '\n' + QByteArray(size, static_cast<char>('a' + number % 26));
}

// The number of a whole version, or -1.
static int numberOf(const QByteArray &contents)
{
    const int number = contents.left(contents.indexOf('\n')).toInt();
    return contents == version(number) ? number : -1;
}

class TestSaves : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        clean();
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
    }

    void leavesAWholeVersion()
    {
        const int kills = qEnvironmentVariableIsSet("IPCHANNEL_LONG") ? 3000 : 500;
        // In memory the disk's waiting does not outweigh the moments that matter.
        const QTemporaryDir place(quickTemplate());
        const QString target = place.filePath("F"_s);
        void *const shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto *const saved = static_cast<volatile int *>(shared); // the last version that is saved for certain
        QVERIFY(Global::safeSaving(target, version(0)).isNull());

        int missing = 0;
        for (int kill = 0; kill < kills; ++kill) {
            const int start = *saved + 1;
            const pid_t child = ::fork();
            if (child == 0) {
                for (int number = start; Global::safeSaving(target, version(number)).isNull(); ++number)
                    *saved = number;
                ::_exit(1);
            }
            for (int wait = 0; *saved < start && wait < 50000; ++wait) // until it is at work
                ::usleep(100);
            ::usleep(QRandomGenerator::global()->bounded(1000u));
            ::kill(child, SIGKILL);
            int status = 0;
            QCOMPARE(::waitpid(child, &status, 0), child);
            QVERIFY(WIFSIGNALED(status)); // no save has failed

            const bool isMissing = !QFile::exists(target);
            missing += isMissing;
            QVERIFY(numberOf(read(isMissing ? target + ".old"_s : target)) >= 0);
            QVERIFY(Global::recoverSaved(target).isNull());
            const int found = numberOf(read(target));
            QVERIFY2(found >= *saved, "a save that was reported is lost");
            *saved = found;
        }
        std::printf("%d kills, %d versions, target missing %d times\n", kills, *saved, missing);
        ::munmap(shared, 4096);
    }
};

QTEST_GUILESS_MAIN(TestSaves)
#include "tst_saves.moc"
