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
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

constexpr uid_t neighbour = 65534;
const QByteArray precious("[Details]\nmaxWritingTime=700\n"); // readable as settings, by mistake
const char *const objects[] = {"link", "dangling", "hard link", "fifo", "directory", "socket", "foreign"};

QStringList spoken; // on the Qt stream, of this process

void keep(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtWarningMsg)
        spoken += text;
}

bool makeSocket(const QByteArray &name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, name.constData(), sizeof address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    return ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// As the neighbour, but for the hard link, which the kernel may forbid him.
bool plant(const QByteArray &object, const QString &where, const QString &outside)
{
    const QByteArray name = QFile::encodeName(where);
    const QByteArray target = QFile::encodeName(outside);
    const auto work = [&]() -> int {
        ::umask(0);
        if (object == "link")
            return ::symlink(target.constData(), name.constData());
        if (object == "dangling")
            return ::symlink((target + "-missing").constData(), name.constData());
        if (object == "hard link")
            return ::link(target.constData(), name.constData());
        if (object == "fifo")
            return ::mkfifo(name.constData(), 0666);
        if (object == "directory")
            return ::mkdir(name.constData(), 0777);
        if (object == "socket")
            return makeSocket(name) ? 0 : 1;
        return write(where, precious) ? 0 : 1;
    };
    return Forked::run(work, object == "hard link" ? 0 : neighbour) == 0;
}

// One name that the runtime opens: where, what opens it, and whether all is well afterwards.
struct Victim
{
    const char *name;
    std::function<QString()> path;
    std::function<bool(const QByteArray &object)> use;
};

QString settingsFile(const char *tail)
{
    return path() + QLatin1String("/settings/") + QLatin1String(tail);
}

QString saveTarget()
{
    return settingsFile("F");
}

QString logFile()
{
    return QStringLiteral("%1/data/0/log/tst_planted_ann_%2.log")
        .arg(path(), QDate::currentDate().toString(QStringLiteral("yyyy.MM.dd")));
}

bool warned(const char *text)
{
    return std::any_of(spoken.cbegin(), spoken.cend(),
                       [&](const QString &one) { return one.contains(QString::fromUtf8(text)); });
}

int writingTime()
{
    return CSettings().detailsMaxWritingTime();
}

const QList<Victim> &victims()
{
    static const QList<Victim> all{
        {"probe", [] { return QString(); }, [](const QByteArray &) { return Global::checkSecrecy(0); }},
        {"log", logFile,
         [](const QByteArray &object) {
             debug(QStringLiteral("Planted"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
             return object == "foreign" ? read(logFile()).contains("Planted    text")
                                        : warned("Ошибка открытия файла для записи:");
         }},
        {"emergency log", logFile,
         [](const QByteArray &object) {
             emergecyDebug(QStringLiteral("text"));
             return object != "foreign" || read(logFile()).contains("forceDebug    text");
         }},
        {"new", [] { return saveTarget() + QLatin1String(".new"); },
         [](const QByteArray &object) {
             const QString text = Global::safeSaving(saveTarget(), QByteArray("new"));
             return object == "directory"
                        ? text == QStringLiteral("Не удалось открыть файл для записи. Is a directory.")
                        : text.isNull() && read(saveTarget()) == "new";
         }},
        {"old", [] { return saveTarget() + QLatin1String(".old"); },
         [](const QByteArray &object) {
             const QString text = Global::safeSaving(saveTarget(), QByteArray("new"));
             return object == "directory"
                        ? text == QStringLiteral("Не удалось удалить файл %1.old").arg(saveTarget())
                        : text.isNull() && read(saveTarget()) == "new";
         }},
        {"settings", [] { return settingsFile("settings.ini"); },
         [](const QByteArray &object) { // a foreign file is nothing that can be told from the shared one
             const bool regular = object == "foreign" || object == "hard link";
             return writingTime() == (regular ? 700 : 5000) && (regular || !spoken.isEmpty());
         }},
        {"settings lock", [] { return settingsFile("settings.ini.lock"); },
         [](const QByteArray &) { return writingTime() == 5000; }},
        {"records", Global::channelIpSettingsFilePath,
         [](const QByteArray &object) {
             QByteArray data;
             const TrustedFile::Descriptor file =
                 TrustedFile::openJudged(Global::channelIpSettingsFilePath());
             const bool regular = object == "foreign" || object == "hard link";
             return file.isOpen() == regular && (!regular || TrustedFile::readAll(file, &data));
         }},
    };
    return all;
}

} // namespace

class TestPlanted : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void changesNothingOutside_data();
    void changesNothingOutside();
    void administratorsMay_data();
    void administratorsMay();

private:
    QTemporaryDir place;
    QString outside;
};

void TestPlanted::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("only root can act as a neighbour");
    qputenv("USER", "ann");
    QVERIFY(QFile::setPermissions(place.path(), QFile::Permissions(0x7055)));
    outside = place.filePath(QStringLiteral("precious"));
}

// An installation as the runtime makes it: open to all users.
void TestPlanted::init()
{
    clean();
    for (const char *name : {"/settings", "/data", "/data/0", "/data/0/log"}) {
        const QString directory = path() + QLatin1String(name);
        QVERIFY(QDir().mkpath(directory) && ::chmod(qPrintable(directory), 0777) == 0);
    }
    QVERIFY(write(saveTarget(), "old"));
    QFile::remove(outside);
    QVERIFY(write(outside, precious) && ::chmod(qPrintable(outside), 0600) == 0);
}

void TestPlanted::changesNothingOutside_data()
{
    QTest::addColumn<int>("victim");
    QTest::addColumn<QByteArray>("object");
    for (int victim = 0; victim < victims().size(); ++victim) {
        for (const char *object : objects)
            QTest::addRow("%s: %s", victims().at(victim).name, object) << victim << QByteArray(object);
    }
}

void TestPlanted::changesNothingOutside()
{
    QFETCH(int, victim);
    QFETCH(QByteArray, object);
    const Victim &chosen = victims().at(victim);
    const QString where = chosen.path();
    QVERIFY(where.isEmpty() || plant(object, where, outside));
    const auto use = [&]() -> QString {
        qInstallMessageHandler(keep);
        if (where.isEmpty()) // a neighbour who foresees the first name
            Fault::beforeCreation = [&, tries = 0](const char *name) mutable {
                tries++ == 0 && plant(object, QFile::decodeName(name), outside);
            };
        QElapsedTimer clock;
        clock.start();
        const bool fine = chosen.use(object);
        const bool quick = clock.elapsed() < 1000;
        return QStringLiteral("%1 %2 level %3").arg(fine).arg(quick).arg(Global::currentSecrecy()) +
               (fine ? QString() : spoken.join(QLatin1Char('|')));
    };
    QCOMPARE(Forked::text(use), QStringLiteral("1 1 level 0"));

    struct stat status = {};
    QCOMPARE(::stat(qPrintable(outside), &status), 0);
    QCOMPARE(read(outside), precious);
    QCOMPARE(status.st_mode & 07777u, 0600u);
    QCOMPARE(QDir(place.path()).entryList(QDir::Files | QDir::System),
             QStringList{QStringLiteral("precious")});
}

void TestPlanted::administratorsMay_data()
{
    QTest::addColumn<QByteArray>("what");
    for (const char *what : {"link settings.ini", "link channelIp.conf", "link settings/", "mount data/",
                             "rename the log", "delete the log"})
        QTest::addRow("%s", what) << QByteArray(what);
}

void TestPlanted::administratorsMay()
{
    QFETCH(QByteArray, what);
    const QString settings = path() + QLatin1String("/settings");
    const auto logs = [&] { // a record before and one after
        const auto speak = [] {
            debug(QStringLiteral("Planted"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
        };
        speak();
        if (what != "mount data/") {
            const bool moved = what == "delete the log"
                                   ? QFile::remove(logFile())
                                   : QFile::rename(logFile(), logFile() + QLatin1Char('1'));
            if (moved)
                speak();
        }
        const QByteArray text = read(logFile());
        return text.count("Planted    text") == 1 && text.startsWith("Версия ");
    };
    const auto use = [&]() -> int {
        if (what == "link settings.ini" || what == "link settings/") {
            const bool whole = what.endsWith('/');
            const QString moved = whole ? place.filePath(QStringLiteral("moved")) : outside;
            QFile::rename(settings, whole ? moved : settings);
            write(whole ? moved + QLatin1String("/settings.ini") : outside, precious);
            QFile::link(moved, whole ? settings : settingsFile("settings.ini"));
            return writingTime() == 700;
        }
        if (what == "link channelIp.conf") {
            QFile::link(outside, Global::channelIpSettingsFilePath());
            QByteArray data;
            const auto file = TrustedFile::openJudged(Global::channelIpSettingsFilePath());
            return file.isOpen() && TrustedFile::readAll(file, &data) && data == precious;
        }
        if (what == "mount data/" && !Forked::mountDisk(path() + QLatin1String("/data"), ""))
            return 2;
        return logs();
    };
    const int result = Forked::run(use);
    if (result == 2)
        QSKIP("no disk can be mounted here");
    QCOMPARE(result, 1);
}

QTEST_GUILESS_MAIN(TestPlanted)
#include "tst_planted.moc"
