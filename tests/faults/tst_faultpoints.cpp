// Every system call of an operation on files fails, one after another: once, and all from there on.
#include "common/csettings.h"
#include "common/entrynaming.h"
#include "common/filepermissions.h"
#include "common/logwriter.h"
#include "common/safesaving.h"
#include "common/secrecy.h"
#include "tests/faults/faultshim.h"
#include "tests/support/testinstallation.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

const QByteArray oldText(20000, 'o');
const QByteArray newText(30000, 'n');
const QByteArray stored("; a comment\n[Foreign]\nkey=1\n");
const QByteArray storedWithNumber = stored + "\n[Details]\nmaxWritingTime=700\n";

QString place; // empty before every run
QString struck;
bool once = false;

QString in(const char *name)
{
    return place + QLatin1Char('/') + QLatin1String(name);
}

QString logDirectory()
{
    return path() + QLatin1String("/data/0/log");
}

void emptyLogs()
{
    for (const QFileInfo &file : QDir(logDirectory()).entryInfoList(QDir::Files))
        QFile::resize(file.filePath(), 0);
}

// What a save owes for one failed call: a line in the log, and the start of its text.
struct Owed
{
    const char *call;
    const char *log;
    const char *text;
};
constexpr Owed owedBySaves[] = {
    // %1 the target, %2 the place, %3 the code of a failed move
    {"write F.new", "safeSaving failed 6. ", "Не удалось записать все данные в файл за отведенное время. "},
    {"fdatasync F.new", "safeSaving failed 6. ",
     "Не удалось записать все данные в файл за отведенное время. "},
    {"close F.new", "safeSaving failed 6. ", "Не удалось записать все данные в файл за отведенное время. "},
    {"renameat2 F", "safeSaving failed 1. ", "Не удалось переименовать файл %1"},
    {"rename F.new", "safeSaving failed %3. ", "Не удалось переименовать файл %1.new"},
    {"rename N", "safeSaving failed 2. ", "Не удалось переименовать файл %2/N"},
    {"fdatasync N", "safeSaving failed 2. ", "Не удалось переименовать файл %2/N"},
    {"mkdir sub", "Не удалось создать путь %2/sub",
     "Не удалось открыть файл для записи. No such file or directory."},
};

// After a save over oldText, or over nothing: what is wrong, or null.
QString saveComplaint(const QString &target, const QString &text, int error, bool over)
{
    const QByteArray contents = read(target);
    const bool isOld = over ? contents == oldText : !QFile::exists(target);
    const bool onlyBackup =
        text.endsWith(QLatin1String("F.old")) && read(target + QLatin1String(".old")) == oldText;
    if (text.isNull() ? contents != newText : !isOld && !(onlyBackup && !once))
        return QStringLiteral("contents");
    if (!once)
        return QString();

    const QString written = QString::fromUtf8(log());
    for (const Owed &owed : owedBySaves) {
        const bool isMadeGood = error == EINTR && !struck.startsWith(QLatin1String("mkdir"));
        if (struck != QLatin1String(owed.call) || isMadeGood || error == Fault::Short)
            continue;
        const auto filled = [&](const char *pattern) {
            return QString::fromUtf8(pattern)
                .replace(QLatin1String("%1"), target)
                .replace(QLatin1String("%2"), place)
                .replace(QLatin1String("%3"), over ? QStringLiteral("2") : QStringLiteral("4"));
        };
        return text.startsWith(filled(owed.text)) && written.contains(filled(owed.log))
                   ? QString()
                   : QStringLiteral("text");
    }
    if (struck == QLatin1String("unlink F.old") && error != EINTR)
        return written.contains(QLatin1String("safeSaving file removing failed. ")) ? QString()
                                                                                    : QStringLiteral("log");
    return text.isNull() ? QString() : QStringLiteral("failure");
}

// Prepares the empty place; does its work while the calls fail; names what is wrong afterwards, or null.
struct Operation
{
    const char *name;
    std::function<void()> prepare;
    std::function<QString()> work;
    std::function<QString(const QString &result, int error)> complaint;
};

QString yes(bool answer)
{
    return answer ? QStringLiteral("yes") : QStringLiteral("no");
}

QString unless(bool fine, const char *complaint)
{
    return fine ? QString() : QString::fromUtf8(complaint);
}

Operation save(const char *name, const char *file, bool over, const std::function<void()> &prepare)
{
    const auto work = [file] { return Global::safeSaving(in(file), newText); };
    const auto complaint = [file, over](const QString &text, int error) {
        return saveComplaint(in(file), text, error, over);
    };
    return {name, prepare, work, complaint};
}

Operation store(const char *name, const QByteArray &before)
{
    const auto prepare = [before] { before.isEmpty() || write(in("s.ini"), before); };
    const auto work = [] {
        SettingsPointer settings(in("s.ini"));
        settings.sync();
        settings.set(QStringLiteral("Details/maxWritingTime"), 700, false);
        settings.sync();
        QVariant value;
        return yes(settings.find(QStringLiteral("Details/maxWritingTime"), &value) && value.toInt() == 700);
    };
    const auto complaint = [before](const QString &result, int) {
        const QByteArray now = read(in("s.ini"));
        const bool whole = now == before || now == (before.isEmpty() ? storedWithNumber.mid(stored.size() + 1)
                                                                     : storedWithNumber);
        const bool isWritable = !struck.contains(QLatin1String("accessTest"));
        return unless(whole, "contents") +
               unless(result == QLatin1String("yes") || !once || !isWritable, "value in memory");
    };
    return {name, prepare, work, complaint};
}

Operation logging(const char *name, const std::function<void()> &prepare)
{
    const auto work = [] {
        debug(QStringLiteral("Fault"), QStringLiteral("the record"), DebugAlways, DebugFlagFileOnly);
        return QString();
    };
    const auto complaint = [](const QString &, int) {
        const QByteArray text = log();
        const bool written =
            text.contains("Fault    the record\n") || struck.startsWith(QLatin1String("mkdir"));
        return unless(!once || written, "lost record");
    };
    return {name, prepare, work, complaint};
}

QString created(const QDir &directory)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        const QString name = Global::nextMessageDirName(directory);
        if (directory.mkdir(name))
            return name;
        if (!directory.exists(name))
            break;
    }
    return QString();
}

const QList<Operation> &operations()
{
    const auto nothing = [] {};
    const auto old = [] { write(in("F"), oldText); };
    static const QList<Operation> all{
        save("first save", "F", false, nothing),
        save("save over", "F", true, old),
        save("save over, with a backup", "F", true,
             [=] {
                 old();
                 write(in("F.old"), "x");
                 write(in("F.new"), "x");
             }),
        save("save, backup only", "F", false, [] { write(in("F.old"), "x"); }),
        save("save, new directory", "sub/F", false, nothing),
        {"move over",
         [=] {
             old();
             write(in("N"), newText);
         },
         [] { return Global::safeSaving(in("N"), in("F")); },
         [](const QString &text, int error) { return saveComplaint(in("F"), text, error, true); }},
        {"recover", [] { write(in("F.old"), oldText); }, [] { return Global::recoverSaved(in("F")); },
         [](const QString &text, int) {
             return unless(read(in(text.isNull() ? "F" : "F.old")) == oldText, "contents");
         }},
        {"make path", nothing, [] { return yes(Global::makePath(QDir(in("a/b")))); },
         [](const QString &result, int) {
             const QString text = QString::fromUtf8(log());
             const bool told = text.contains(
                 QStringLiteral("Не удалось изменить права доступа 0x7777 для каталога ") + in("a/b"));
             return unless(result == yes(QFileInfo(in("a/b")).isDir()), "answer") +
                    unless(!once || result == yes(false) ||
                               told == !(QFile::permissions(in("a/b")) & QFile::WriteOther),
                           "log");
         }},
        {"file rights", [] { write(in("F"), "x"); }, [] { return yes(Global::setFilePermissions(in("F"))); },
         [](const QString &result, int) {
             return unless(result == yes(QFile::permissions(in("F")) & QFile::WriteOther), "answer");
         }},
        store("settings", stored),
        store("first settings", QByteArray()),
        logging("log", nothing),
        logging("first log", [] { QDir(logDirectory()).removeRecursively(); }),
        {"probe", nothing, [] { return yes(Global::checkAccess(QDir(place))); },
         [](const QString &result, int error) {
             const bool fails = struck.startsWith(QLatin1String("open")) && error != EINTR;
             return unless(!once || result == yes(!fails), "answer") +
                    unless(!once ||
                               QDir(place).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                           "left behind");
         }},
        {"naming", nothing, [] { return created(QDir(place)); },
         [](const QString &name, int) {
             return unless(name.isNull() || QFileInfo(in(name.toLatin1().constData())).isDir(), "name");
         }},
    };
    return all;
}

// Open descriptors, with those that the log keeps.
int descriptorsInRest()
{
    for (int record = 0; record < 2; ++record)
        debug(QStringLiteral("Fault"), QStringLiteral("in rest"), DebugAlways, DebugFlagFileOnly);
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

class TestFaultPoints : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void survives_data();
    void survives();
    void cleanupTestCase();

private:
    int points[2] = {0, 0}; // once, onward
    QStringList allStruck;
};

void TestFaultPoints::initTestCase()
{
    clean();
    ::umask(077); // rights come from us
    const QTemporaryDir directory;
    Global::makePath(QDir(directory.filePath(QStringLiteral("a")))); // what is read once per process
    Global::safeSaving(directory.filePath(QStringLiteral("F")), newText);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
}

void TestFaultPoints::survives_data()
{
    QTest::addColumn<int>("index");
    for (int index = 0; index < operations().size(); ++index)
        QTest::newRow(operations().at(index).name) << index;
}

void TestFaultPoints::survives()
{
    QFETCH(int, index);
    const Operation &operation = operations().at(index);
    const int descriptors = descriptorsInRest() + 1; // the log keeps one or two
    QStringList calls;                               // of a run without faults, in their order
    for (const int error : {ENOSPC, EIO, EACCES, EINTR, Fault::Short}) {
        for (const bool onward : {false, true}) {
            for (int nth = 1, hits = 1; hits > 0; ++nth) {
                const QTemporaryDir directory(quickTemplate());
                place = directory.path();
                emptyLogs();
                operation.prepare();

                Fault::arm(nth, onward, error);
                const QString result = operation.work();
                hits = Fault::disarm();

                struck = QString::fromStdString(Fault::struck());
                once = !onward;
                points[onward] += hits > 0;
                allStruck += struck;
                if (error == ENOSPC && once)
                    calls += struck;
                const QString complaint = operation.complaint(result, hits > 0 ? error : 0) +
                                          unless(descriptorsInRest() <= descriptors, " descriptor");
                QVERIFY2(complaint.isEmpty(),
                         qPrintable(QStringLiteral("%1: errno %2 at call %3 (%4), result '%5'")
                                        .arg(complaint)
                                        .arg(error)
                                        .arg(nth)
                                        .arg(struck, result)));
                QVERIFY(nth < 200);
            }
        }
    }
    // Contents before names, names before the backup goes: so a loss of power leaves a whole version.
    const QRegularExpression order(QStringLiteral("write F.new .*fdatasync F.new .*renameat2 F "
                                                  ".*rename F.new .*fsync tst.*unlink F.old "));
    if (qstrcmp(operation.name, "save over") == 0)
        QVERIFY2(order.match(calls.join(QLatin1Char(' '))).hasMatch(),
                 qPrintable(calls.join(QLatin1Char(' '))));
}

void TestFaultPoints::cleanupTestCase()
{
    std::printf("%d calls failed once, %d runs in which all failed from there on\n", points[0], points[1]);
    QVERIFY(points[0] >= 300);
    for (const Owed &owed : owedBySaves) // a call that is never made could not fail
        QVERIFY2(allStruck.contains(QLatin1String(owed.call)), owed.call);
}

QTEST_GUILESS_MAIN(TestFaultPoints)
#include "tst_faultpoints.moc"
