// Saves on disks that are full, have no more inodes or allow no longer files; processes that die in the
// middle of a save, and processes that name entries of one directory at once.
#include "common/entrynaming.h"
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/mman.h>
#include <sys/resource.h>
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

// Creates as the naming header shows, 200 directories and 200 files, and lists what is its own.
static void createEntries(const QDir &directory, const QString &list)
{
    QByteArray names;
    for (int attempt = 0, made = 0; attempt < 2000 && made < 400; ++attempt) {
        const QString name =
            made < 200 ? Global::nextMessageDirName(directory) : Global::nextTaskFileName(directory);
        const bool isMade = made < 200 ? !name.isEmpty() && directory.mkdir(name)
                                       : QFile(directory.absoluteFilePath(name)).open(QIODevice::NewOnly);
        made += isMade;
        names += isMade ? name.toUtf8() + ' ' : QByteArray();
    }
    write(list, names);
}

// Saves in a fork on a disk that has room for some. @return whether the old or the new is whole, as told
static bool keeps(const char *disk, int fits, const QString &text, int size)
{
    const QTemporaryDir place;
    const QString target = place.filePath("F"_s);
    const auto save = [&]() -> int {
        if (disk && !Forked::mountDisk(place.path(), disk))
            return 0;
        Global::safeSaving(target, QByteArray("first")); // and what is read once per process
        QFile filler(place.filePath("filler"_s));
        const rlimit limit = {static_cast<rlim_t>(fits), RLIM_INFINITY};
        if (!disk) {
            ::setrlimit(RLIMIT_FSIZE, &limit);
        } else if (filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
            while (filler.write(QByteArray(4096, 'f')) == 4096) {
            }
            filler.resize(filler.size() - qMax(fits, 0));
        }
        const QByteArray data(size, 'x');
        const QString result = Global::safeSaving(target, data);
        const bool isTidy = QDir(place.path()).count() <= 4; // the target, the filler, . and ..
        return isTidy && (size <= fits ? result.isNull() && read(target) == data
                                       : result == text && read(target) == "first");
    };
    return Forked::run(save) == 1;
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

    void keepsTheOldContents()
    {
        const QString writing = "Не удалось записать все данные в файл за отведенное время. "_s;
        const QString full = writing + "No space left on device"_s;
        const struct
        {
            const char *disk; // options of its mount; or none: this disk, and a limit on file sizes
            int fits;         // the largest size that does
            QString text;
        } rows[] = {
            {"size=256k", 0, full},
            {"size=256k", 16384, full},
            {"size=4m,nr_inodes=3", -1, "Не удалось открыть файл для записи. No space left on device."_s},
            {nullptr, 8192, writing + "File too large"_s},
        };
        const bool mayMount = Forked::run([] { return Forked::mountDisk(path(), "") ? 1 : 0; }) == 1;
        for (const auto &[disk, fits, text] : rows) {
            if (disk && !mayMount) {
                std::puts("no disk can be mounted here: only the limit is tried");
                continue;
            }
            for (const int size : {0, 1, 8192, 16383, 16384, 16385, 1 << 20})
                QVERIFY2(keeps(disk, fits, text, size), qPrintable("%1 %2"_s.arg(text).arg(size)));
        }
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

    void givesNoNameTwice()
    {
        const QTemporaryDir place;
        const QTemporaryDir lists;
        const auto work = [&](int number) {
            while (!QFile::exists(lists.filePath("go"_s)))
                ::usleep(10);
            createEntries(QDir(place.path()), lists.filePath(QString::number(number)));
            return 0;
        };
        QCOMPARE(Forked::failures(2, work, [&] { write(lists.filePath("go"_s), "both at once"); }), 0);
        const QList<QByteArray> names =
            (read(lists.filePath("0"_s)) + read(lists.filePath("1"_s))).trimmed().split(' ');
        QCOMPARE(names.size(), 800);
        QCOMPARE(QSet<QByteArray>(names.cbegin(), names.cend()).size(), 800);
    }
};

QTEST_GUILESS_MAIN(TestSaves)
#include "tst_saves.moc"
