// Saves of many sizes on disks that are full, have no more inodes, or allow no longer files.
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sys/resource.h>

using namespace TestInstallation;

class TestFullDisk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { clean(); }
    void keepsTheOldContents_data()
    {
        QTest::addColumn<QByteArray>("disk"); // options of its mount; or none: this disk, and a limit
        QTest::addColumn<int>("fits");        // the largest size that does
        QTest::addColumn<QString>("text");
        const QString writing = "Не удалось записать все данные в файл за отведенное время. "_s;
        QTest::newRow("full") << QByteArray("size=256k") << 0 << writing + "No space left on device"_s;
        QTest::newRow("16 KiB left") << QByteArray("size=256k") << 16384
                                     << writing + "No space left on device"_s;
        QTest::newRow("no inodes") << QByteArray("size=4m,nr_inodes=3") << -1
                                   << "Не удалось открыть файл для записи. No space left on device."_s;
        QTest::newRow("limited") << QByteArray() << 8192 << writing + "File too large"_s;
    }

    void keepsTheOldContents()
    {
        QFETCH(QByteArray, disk);
        QFETCH(int, fits);
        QFETCH(QString, text);
        const QTemporaryDir place;
        const QString target = place.filePath("F"_s);
        const auto save = [&](int size) -> QString {
            if (!disk.isEmpty() && !Forked::mountDisk(place.path(), disk.constData()))
                return "no mount"_s;
            qInstallMessageHandler(
                [](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
            Global::safeSaving(target, QByteArray("first")); // and what is read once per process
            QFile filler(place.filePath("filler"_s));
            const struct rlimit limit = {static_cast<rlim_t>(fits), RLIM_INFINITY};
            if (disk.isEmpty()) {
                ::setrlimit(RLIMIT_FSIZE, &limit);
            } else if (filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
                while (filler.write(QByteArray(4096, 'f')) == 4096) {
                }
                filler.resize(filler.size() - qMax(fits, 0));
            }
            const QByteArray data(size, 'x');
            const QString result = Global::safeSaving(target, data);
            const bool fine = size <= fits ? result.isNull() && read(target) == data
                                           : result == text && read(target) == "first";
            const bool tidy = QDir(place.path()).count() <= 4; // the target, the filler, . and ..
            return fine && tidy ? "fine"_s : "size %1: '%2'"_s.arg(size).arg(result);
        };
        for (const int size : {0, 1, 8192, 16383, 16384, 16385, 1 << 20}) {
            const QString result = Forked::text([&] { return save(size); });
            if (result == "no mount"_s)
                QSKIP("no disk can be mounted here; the row with a limit covers the writing");
            QCOMPARE(result, "fine"_s);
        }
    }
};

QTEST_GUILESS_MAIN(TestFullDisk)
#include "tst_fulldisk.moc"
