// Saving, recovering and giving rights, in the set-ups that a disk can show.
#include "common/filepermissions.h"
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sys/mount.h>
#include <sys/stat.h>

using namespace TestInstallation;

// What lies in a place, as it was planted.
static QString found(const QString &place)
{
    QStringList entries;
    for (const QFileInfo &entry :
         QDir(place).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name))
        entries +=
            entry.fileName() + (entry.isDir() ? "/"_s : "="_s + QString::fromUtf8(read(entry.filePath())));
    return entries.join(QLatin1Char(' '));
}

class TestSafeSaving : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        clean();
        ::umask(077); // so that rights come from us
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
    }

    // In a process of its own: this one must not have asked the settings yet.
    void takesRightsFromSettings()
    {
        const QString name = path() + "/data/rights"_s;
        QVERIFY(writeSettings("[Permissions]\nfilePermissions=26112\n") && write(name, "x"));
        QCOMPARE(Forked::run([&] { return Global::setFilePermissions(name) ? 1 : 0; }), 1);
        QCOMPARE(rights(name), 0x6000);
        QVERIFY(!Global::setFilePermissions(path()) && !Global::setFilePermissions(name + "missing"_s));

        // All bits are compared, those of the running user, too; what cannot be set is no complaint.
        constexpr uid_t stranger = 65534;
        clean();
        ::umask(0); // so that a stranger gets at the files
        QVERIFY(write(name, "x"));
        const bool mayAct = Forked::canActAs(stranger);
        for (const auto &[wanted, answer] : {std::pair(0x6666, 1), std::pair(0x6066, 0)}) {
            QVERIFY(writeSettings("[Permissions]\nfilePermissions=" + QByteArray::number(wanted) + '\n') &&
                    QFile::setPermissions(name, QFile::Permissions(0x6066)));
            QCOMPARE(mayAct ? Forked::run([&] { return Global::setFilePermissions(name) ? 1 : 0; }, stranger)
                            : answer,
                     answer);
        }
        ::umask(077);
        QCOMPARE(log(), QByteArray());
        clean();
    }

    void changesPlaces()
    {
        const QString opening = "Не удалось открыть файл для записи. "_s;
        const QString moving = "Не удалось переименовать файл %1/N"_s;
        const QString tooLong(300, QLatin1Char('x'));
        const struct
        {
            QString how; // save, move N to, or recover what is named
            QString before, after;
            QString text, logged; // %1 stands for the place
        } rows[] = {
            {"save F"_s, "F=old F.new=longer F.old=older"_s, "F=new"_s, {}, {}},
            {"save sub/F"_s, ""_s, "sub/"_s, {}, {}},
            {"save F"_s, "F=old F.new/"_s, "F=old F.new/"_s, opening + "Is a directory."_s,
             "safeSaving failed 7. "_s + opening + "Is a directory."_s},
            {"save sub/F"_s, "sub=x"_s, "sub=x"_s, opening + "Not a directory."_s,
             "Не удалось создать путь %1/sub"_s},
            {"save F"_s,
             "F/"_s,
             "F=new F.old/"_s,
             {},
             "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении %1/F.old. Is a directory"_s},
            {"move F"_s, "N=new"_s, "F=new"_s, {}, {}},
            {"move F"_s, ""_s, ""_s, moving,
             "safeSaving failed 4. "_s + moving + ". No such file or directory"_s},
            {"move sub/F"_s, "N=new sub=x"_s, "N=new sub=x"_s, moving,
             "safeSaving failed 4. "_s + moving + ". Not a directory"_s},
            {"move "_s + tooLong, "N=new"_s, "N=new"_s, moving,
             "safeSaving failed 4. "_s + moving + ". File name too long"_s},
            {"move F"_s, "F=old"_s, "F=old"_s, moving,
             "safeSaving failed 2. "_s + moving + ". No such file or directory"_s},
            {"recover F"_s,
             "F.new=new F.old=old"_s,
             "F=old F.new=new"_s,
             {},
             "Восстановлен файл %1/F из %1/F.old"_s},
            {"recover F"_s, "F=new F.old=old"_s, "F=new F.old=old"_s, {}, {}},
            {"recover F"_s, "F.new=new F.old/"_s, "F.new=new F.old/"_s, {}, {}},
            {"recover F"_s, "F.old=old"_s, "F.old=old"_s, {}, {}}, // somebody has deleted F
            {"save F"_s, "F.new=x F.old=old"_s, "F=new F.old=old"_s, {}, {}},
        };
        for (const auto &row : rows) {
            const QTemporaryDir place;
            const auto here = [&](const QString &text) {
                return QString(text).replace("%1"_s, place.path());
            };
            plant(place.path(), row.before);
            const bool saves = row.how.startsWith("save"_s);
            const QString target = place.filePath(row.how.section(QLatin1Char(' '), 1));
            const QString result = saves ? Global::safeSaving(target, QByteArray("new"))
                                   : row.how.startsWith("move"_s)
                                       ? Global::safeSaving(place.filePath("N"_s), target)
                                       : Global::recoverSaved(target);
            QVERIFY(result == here(row.text) && result.isNull() == row.text.isEmpty());
            QCOMPARE(found(place.path()), row.after);
            QVERIFY(!result.isNull() || !saves || rights(target) == 0x6066);
            const QString line = "                   Global    "_s + here(row.logged) + QLatin1Char('\n');
            QVERIFY(QString::fromUtf8(log()).contains(row.logged.isEmpty() ? place.path() : line) !=
                    row.logged.isEmpty());
        }
    }

    // Onto a target that is not there the new file's name and code 4 are told whatever the reason: where the
    // user may not go, and on a disk that may only be read.
    void tellsWhyNothingMoves()
    {
        constexpr uid_t stranger = 65534;
        clean();
        ::umask(0); // so that a stranger gets at the log
        QVERIFY(QDir().mkpath(path() + "/data/0/log"_s));
        ::umask(077);
        const QTemporaryDir directory;
        const QString place = directory.path();
        const auto move = [&](bool isReadOnly) {
            return [&, isReadOnly] {
                if (isReadOnly &&
                    (!Forked::mountDisk(place, "") || !write(place + "/N"_s, "new") ||
                     ::mount(nullptr, qPrintable(place), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0))
                    return QString();
                const QString text = Global::safeSaving(place + "/N"_s, place + "/F"_s);
                return text + QString::fromUtf8(log()).section("Global   "_s, -1);
            };
        };
        const QString text = "Не удалось переименовать файл %1/N"_s.arg(place);
        const QString told = text + " safeSaving failed 4. "_s + text + ". %1\n"_s;
        if (Forked::canActAs(stranger))
            QCOMPARE(Forked::text(move(false), stranger), told.arg("Permission denied"_s));
        const QString readOnly = Forked::text(move(true));
        QVERIFY2(readOnly.isEmpty() || readOnly == told.arg("Read-only file system"_s), qPrintable(readOnly));
    }

    void makesPaths()
    {
        const QTemporaryDir outside;
        const QString outer = outside.filePath("a/b"_s);
        const QString data = path() + "/data"_s;
        const int above = rights(path());
        QVERIFY(QDir().mkpath(data) && QFile::setPermissions(data, QFile::Permissions(0x7000)));

        QVERIFY(Global::makePath(QDir(data + "/x/y"_s)) && Global::makePath(QDir(outer)));
        for (const QString &level :
             {data, data + "/x"_s, data + "/x/y"_s, outer}) // also the one that was there
            QCOMPARE(rights(level), 0x7077);
        QCOMPARE(rights(path()), above);
        QCOMPARE(rights(outside.filePath("a"_s)), 0x7000);

        QVERIFY(QFile::setPermissions(outer, QFile::Permissions(0x5000)));
        QVERIFY(Global::makePath(QDir(outer)));
        QCOMPARE(rights(outer), 0x5000); // existing ones stay as they are
    }
};

QTEST_GUILESS_MAIN(TestSafeSaving)
#include "tst_safesaving.moc"
