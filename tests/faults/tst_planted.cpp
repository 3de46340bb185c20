// What a hostile neighbour may plant under the names that the runtime opens, and what an administrator may.
#include "common/csettings.h"
#include "common/directorylayout.h"
#include "common/emergencylog.h"
#include "common/logwriter.h"
#include "common/safesaving.h"
#include "common/secrecy.h"
#include "common/trustedfile.h"
#include "tests/faults/faultshim.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QDate>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

constexpr uid_t neighbour = 65534;
const QByteArray precious("[Details]\nmaxWritingTime=700\n"); // readable as settings, by mistake

QString spoken; // warnings on the Qt stream, of this process

QString saveTarget()
{
    return path() + "/settings/F"_s;
}

QString logFile()
{
    return path() + "/data/0/log/tst_planted_ann_"_s + QDate::currentDate().toString("yyyy.MM.dd"_s) +
           ".log"_s;
}

// As the neighbour, but for the hard link, which the kernel may forbid him.
bool plant(const QByteArray &object, const QString &where, const QString &outside)
{
    const QByteArray name = QFile::encodeName(where);
    const QByteArray target = QFile::encodeName(outside);
    const auto work = [&]() -> int {
        ::umask(0);
        if (object == "hard link")
            return ::link(target.constData(), name.constData());
        if (object.endsWith("link"))
            return ::symlink((object == "link" ? target : target + "-missing").constData(), name.constData());
        if (object == "directory")
            return ::mkdir(name.constData(), 0777);
        const mode_t type = object == "fifo" ? S_IFIFO : object == "socket" ? S_IFSOCK : S_IFREG;
        return ::mknod(name.constData(), type | 0666u, 0) != 0 ||
               (type == S_IFREG && !write(where, precious));
    };
    return Forked::run(work, object == "hard link" ? 0 : neighbour) == 0;
}

QString saved()
{
    const QString text = Global::safeSaving(saveTarget(), QByteArray("new"));
    return text.isNull() && read(saveTarget()) != "new" ? "not saved"_s : text;
}

// Of a directory, for the reason that Qt gives.
QString refused(const QString &said, const QString &name, QIODevice::OpenMode mode)
{
    QFile file(name);
    if (!QFileInfo(name).isDir() || (!file.open(mode) && said.contains(file.errorString())))
        return "refused"_s;
    return said;
}

QString logged()
{
    debug("Planted"_s, "text"_s, DebugAlways, DebugFlagFileOnly);
    return spoken.contains("Ошибка открытия файла для записи:"_s)
               ? refused(spoken, logFile(), QIODevice::Append)
               : QString();
}

QString writingTime()
{
    const int time = CSettings().detailsMaxWritingTime();
    return time == 700 ? QString() : time == 5000 && !spoken.isEmpty() ? "refused"_s : QString::number(time);
}

QString record()
{
    QByteArray data;
    const QString name = Global::channelIpSettingsFilePath();
    const CDescriptor file = TrustedFile::openTrustedLinks(name);
    return file.isOpen() && Io::readAll(file, &data) && data == precious
               ? QString()
               : refused(TrustedFile::readingErrorText(errno), name, QIODevice::ReadOnly);
}

// One name that the runtime opens, what opens it, and which objects it answers with its text: l_ink,
// d_angling link, h_ard link, f_ifo, d_irectory, s_ocket, f_ile of the neighbour.
const char *const objects[] = {"link", "dangling link", "hard link", "fifo", "directory", "socket", "file"};
struct Victim
{
    const char *name;
    QString path;
    std::function<QString()> use;
    const char *answered;
    QString text;
};

QList<Victim> victims()
{
    return {
        {"probe", QString(), [] { return Global::checkSecrecy(0) ? QString() : "level"_s; }, ".......",
         QString()},
        {"log", logFile(), logged, "ldhfds.", "refused"_s},
        {"emergency log", logFile(), [] { return emergecyDebug("text"_s), spoken; }, ".......", QString()},
        {"new", saveTarget() + ".new"_s, saved, "....d..",
         "Не удалось открыть файл для записи. Is a directory."_s},
        {"old", saveTarget() + ".old"_s, saved, "....d..",
         "Не удалось удалить файл %1.old"_s.arg(saveTarget())},
        {"settings", settingsPath(), writingTime, "ld.fds.", "refused"_s},
        {"settings lock", settingsPath() + ".lock"_s,
         [] { return CSettings().detailsMaxWritingTime() == 5000 ? QString() : "value"_s; }, ".......",
         QString()},
        {"records", Global::channelIpSettingsFilePath(), record, "ld.fds.", "refused"_s},
    };
}

} // namespace

class TestPlanted : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir place;
    QString outside;

private Q_SLOTS:
    void initTestCase()
    {
        if (!Forked::canActAs(neighbour))
            QSKIP("only root can act as a neighbour, and where everybody may enter");
        qputenv("USER", "ann");
        QVERIFY(QFile::setPermissions(place.path(), QFile::Permissions(0x7055)));
        outside = place.filePath("precious"_s);
    }

    // An installation as the runtime makes it: open to all users.
    void init()
    {
        clean();
        for (const QString &directory : {"/settings"_s, "/data"_s, "/data/0"_s, "/data/0/log"_s})
            QVERIFY(QDir().mkpath(path() + directory) &&
                    QFile::setPermissions(path() + directory, QFile::Permissions(0x7077)));
        QFile::remove(outside);
        QVERIFY(write(saveTarget(), "old") && write(outside, precious) &&
                QFile::setPermissions(outside, QFile::Permissions(0x6000)));
    }

    void changesNothingOutside_data()
    {
        QTest::addColumn<int>("victim");
        QTest::addColumn<int>("object");
        for (int victim = 0; victim < victims().size(); ++victim) {
            for (int object = 0; object < 7; ++object)
                QTest::addRow("%s: %s", victims().at(victim).name, objects[object]) << victim << object;
        }
    }

    void changesNothingOutside()
    {
        QFETCH(int, victim);
        QFETCH(int, object);
        const Victim chosen = victims().at(victim);
        QVERIFY(chosen.path.isEmpty() || plant(objects[object], chosen.path, outside));
        const auto use = [&] {
            qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
                spoken += type == QtWarningMsg ? text : QString();
            });
            if (chosen.path.isEmpty()) // a neighbour who foresees the first name
                Fault::beforeCreation = [&, tries = 0](const char *name) mutable {
                    tries++ == 0 && plant(objects[object], QFile::decodeName(name), outside);
                };
            return chosen.use() + " level "_s + QString::number(Global::currentSecrecy());
        };
        QCOMPARE(Forked::text(use),
                 (chosen.answered[object] == '.' ? QString() : chosen.text) + " level 0"_s);
        QCOMPARE(read(outside), precious);
        QCOMPARE(rights(outside), 0x6000);
        QCOMPARE(QDir(place.path()).entryList(QDir::Files | QDir::System), QStringList{"precious"_s});
    }

    // Links of root to the settings directory and inside it, a disk of its own for the data.
    void administratorsMay()
    {
        const QString settings = path() + "/settings"_s;
        const QString moved = place.filePath("moved"_s);
        QVERIFY(QFile::rename(settings, moved) && QFile::link(moved, settings));
        QVERIFY(QFile::link(outside, Global::channelIpSettingsFilePath()) &&
                QFile::link(outside, settingsPath()));
        const auto use = [] {
            Forked::mountDisk(path() + "/data"_s, ""); // where the system lets us
            QString answer = record();                 // first: defaults go into the file behind the link
            answer += writingTime() + logged();
            return answer + (read(logFile()).contains("Planted    text") ? QString() : "no text"_s);
        };
        QCOMPARE(Forked::text(use), QString());
        QVERIFY(QFileInfo(settingsPath()).isSymLink() && read(outside).startsWith(precious) &&
                read(outside).contains("filePermissions"));
    }

    // Links of root to a log, to one that is still to be made, and to a directory of logs; and a neighbour's.
    void administratorsMayLinkLogs()
    {
        const QString logs = QFileInfo(logFile()).path();
        const QString there = place.filePath("there"_s);
        for (const QByteArray what :
             {"log", "new log", "emergency log", "directory", "neighbour's directory"}) {
            const bool isDirectory = what.endsWith("directory");
            const QString link = isDirectory ? logs : logFile();
            QVERIFY(QDir(logs).removeRecursively() && QDir().mkpath(QFileInfo(link).path()));
            QVERIFY(!isDirectory || QDir().mkpath(there));
            QVERIFY(what != "log" || write(there, "before\n"));
            QVERIFY(QFile::link(there, link));
            QCOMPARE(
                ::lchown(QFile::encodeName(link).constData(), what.startsWith("neigh") ? neighbour : 0, 0),
                0);
            const auto use = [&] {
                qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
                for (int i = 0; i < 50; ++i)
                    what == "emergency log" ? emergecyDebug("text"_s)
                                            : debug("Planted"_s, "text"_s, DebugAlways, DebugFlagFileOnly);
                const QByteArray text = read(isDirectory ? there + logFile().mid(logs.size()) : there);
                return QString::number(text.count("    text\n"));
            };
            QCOMPARE(Forked::text(use), what.startsWith("neigh") ? "0"_s : "50"_s);
            QVERIFY(QFileInfo(link).isSymLink() && QFile::remove(link));
            QVERIFY(isDirectory ? QDir(there).removeRecursively() : QFile::remove(there));
        }
    }
};

QTEST_GUILESS_MAIN(TestPlanted)
#include "tst_planted.moc"
