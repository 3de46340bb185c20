// Saves of many sizes on disks that are full, have no more inodes, or allow no longer files.
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sys/resource.h>

using namespace TestInstallation;

namespace {

const char *const writeFails =
    "Не удалось записать все данные в файл за отведенное время. No space left on device";
const char *const openFails = "Не удалось открыть файл для записи. No space left on device.";
const char *const tooLarge = "Не удалось записать все данные в файл за отведенное время. File too large";

// Fills the disk but for @a left bytes.
void fill(const QString &name, int left)
{
    QFile file(name);
    file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    while (file.write(QByteArray(4096, 'f')) == 4096) {
    }
    file.resize(file.size() - left);
}

} // namespace

class TestFullDisk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void keepsTheOldContents_data();
    void keepsTheOldContents();
};

void TestFullDisk::initTestCase()
{
    clean();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
}

void TestFullDisk::keepsTheOldContents_data()
{
    QTest::addColumn<QByteArray>("disk"); // options of its mount, or empty: this disk, and a limit
    QTest::addColumn<int>("fits");        // the largest size that does
    QTest::addColumn<QString>("text");
    const auto row = [](const char *name, const char *disk, int fits, const char *text) {
        QTest::newRow(name) << QByteArray(disk) << fits << QString::fromUtf8(text);
    };
    row("full", "size=256k", 0, writeFails);
    row("16 KiB left", "size=256k", 16384, writeFails);
    row("no inodes", "size=4m,nr_inodes=3", -1, openFails);
    row("limited", "", 8192, tooLarge);
}

void TestFullDisk::keepsTheOldContents()
{
    QFETCH(QByteArray, disk);
    QFETCH(int, fits);
    QFETCH(QString, text);
    const QTemporaryDir place;
    const QString target = place.filePath(QStringLiteral("F"));
    const auto save = [&](int size) -> QString {
        if (!disk.isEmpty() && !Forked::mountDisk(place.path(), disk.constData()))
            return QStringLiteral("no mount");
        Global::safeSaving(target, QByteArray("first")); // and what is read once per process
        if (!disk.isEmpty())
            fill(place.filePath(QStringLiteral("filler")), qMax(fits, 0));
        const struct rlimit limit = {static_cast<rlim_t>(fits), RLIM_INFINITY};
        if (disk.isEmpty())
            ::setrlimit(RLIMIT_FSIZE, &limit);

        const QByteArray data(size, 'x');
        const QString result = Global::safeSaving(target, data);
        const bool fine = size <= fits ? result.isNull() && read(target) == data
                                       : result == text && read(target) == "first";
        const bool tidy = QDir(place.path()).count() <= 4; // the target, the filler, . and ..
        return fine && tidy ? QStringLiteral("fine") : QStringLiteral("size %1: '%2'").arg(size).arg(result);
    };
    for (const int size : {0, 1, 8192, 16383, 16384, 16385, 1 << 20}) {
        const QString result = Forked::text([&] { return save(size); });
        if (result == QLatin1String("no mount"))
            QSKIP("no disk can be mounted here; the row with a limit covers the writing");
        QCOMPARE(result, QStringLiteral("fine"));
    }
}

QTEST_GUILESS_MAIN(TestFullDisk)
#include "tst_fulldisk.moc"
