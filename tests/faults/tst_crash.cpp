// Processes that die in the middle of a save, and processes that name entries of one directory at once.
#include "common/entrynaming.h"
#include "common/safesaving.h"
#include "tests/support/testinstallation.h"

#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

QByteArray version(int number)
{
    const int size = 1000 + number * 7919 % 60000;
    return QByteArray::number(number) + '\n' + QByteArray(size, static_cast<char>('a' + number % 26));
}

// The number of a whole version, or -1.
int numberOf(const QByteArray &contents)
{
    const int number = contents.left(contents.indexOf('\n')).toInt();
    return contents == version(number) ? number : -1;
}

// Saves versions until it is killed, and tells the last one that is saved for certain.
[[noreturn]] void saveForEver(const QString &target, int number, volatile int *saved)
{
    for (;; *saved = number++) {
        if (!Global::safeSaving(target, version(number)).isNull())
            ::_exit(1);
    }
}

// Creates as the naming header shows, 200 directories and 200 files, and lists what is its own.
void createEntries(const QDir &directory, const QString &list)
{
    QByteArray names;
    int made = 0;
    for (int attempt = 0; attempt < 1000 && made < 200; ++attempt) {
        const QString name = Global::nextMessageDirName(directory);
        if (!name.isEmpty() && directory.mkdir(name) && ++made)
            names += name.toUtf8() + ' ';
    }
    for (int attempt = 0; attempt < 1000 && made < 400; ++attempt) {
        const QString name = Global::nextTaskFileName(directory);
        if (QFile(directory.absoluteFilePath(name)).open(QIODevice::NewOnly) && ++made)
            names += name.toUtf8() + ' ';
    }
    write(list, names);
}

} // namespace

class TestCrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void leavesAWholeVersion();
    void givesNoNameTwice();
};

void TestCrash::initTestCase()
{
    clean();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
}

void TestCrash::leavesAWholeVersion()
{
    const int kills = qEnvironmentVariableIsSet("IPCHANNEL_LONG") ? 3000 : 500;
    // In memory the disk's waiting does not outweigh the moments that matter.
    const QTemporaryDir place(quickTemplate());
    const QString target = place.filePath(QStringLiteral("F"));
    void *const shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *const saved = static_cast<volatile int *>(shared);
    QVERIFY(Global::safeSaving(target, version(0)).isNull());

    int missing = 0;
    for (int kill = 0; kill < kills; ++kill) {
        const int start = *saved + 1;
        const pid_t child = ::fork();
        if (child == 0)
            saveForEver(target, start, saved);
        while (*saved < start) // it is at work
            ::usleep(100);
        ::usleep(QRandomGenerator::global()->bounded(1000u));
        ::kill(child, SIGKILL);
        int status = 0;
        QCOMPARE(::waitpid(child, &status, 0), child);
        QVERIFY(WIFSIGNALED(status)); // no save has failed

        const bool isMissing = !QFile::exists(target);
        missing += isMissing;
        QVERIFY(numberOf(read(isMissing ? target + QLatin1String(".old") : target)) >= 0);
        QVERIFY(Global::recoverSaved(target).isNull());
        const int found = numberOf(read(target));
        QVERIFY2(found >= *saved, "a save that was reported is lost");
        *saved = found;
    }
    std::printf("%d kills, %d versions, target missing %d times\n", kills, *saved, missing);
    ::munmap(shared, 4096);
}

void TestCrash::givesNoNameTwice()
{
    const QTemporaryDir place;
    const QTemporaryDir lists;
    QList<pid_t> children;
    for (const char *list : {"1", "2"}) {
        children += ::fork();
        if (children.last() == 0) {
            createEntries(QDir(place.path()), lists.filePath(QLatin1String(list)));
            ::_exit(0);
        }
    }
    for (const pid_t child : qAsConst(children))
        QCOMPARE(::waitpid(child, nullptr, 0), child);

    QSet<QByteArray> names;
    for (const char *list : {"1", "2"}) {
        for (const QByteArray &name : read(lists.filePath(QLatin1String(list))).trimmed().split(' '))
            names += name;
    }
    QCOMPARE(names.size(), 800);
    QCOMPARE(QDir(place.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), 800);
}

QTEST_GUILESS_MAIN(TestCrash)
#include "tst_crash.moc"
