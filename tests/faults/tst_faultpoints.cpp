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

using namespace TestInstallation;

namespace {

const QString stored = "[Foreign]\nkey=1\n"_s;
const QString numberStored = "[Details]\nmaxWritingTime=700\n"_s;

QString place;  // fresh in every run
QString struck; // the call that has failed
int error = 0;
bool once = false;

QString in(const QString &name)
{
    return place + QLatin1Char('/') + name;
}

QString contents(const QString &name)
{
    return QFile::exists(in(name)) ? QString::fromUtf8(read(in(name))) : QString();
}

QString logged()
{
    return QString::fromUtf8(log());
}

// What a save owes for one failed call that cannot be made good: a line in the log, and the start of its
// text. %1 the target, %2 the place, %3 the code of a failed move.
const char *const written = "Не удалось записать все данные в файл за отведенное время. ";
const char *const owedBySaves[][3] = {
    {"write F.new", "safeSaving failed 6. ", written},
    {"fsync F.new", "safeSaving failed 6. ", written},
    {"close F.new", "safeSaving failed 6. ", written},
    {"renameat2 F", "safeSaving failed 1. ", "Не удалось переименовать файл %1"},
    {"rename F", "safeSaving failed 1. ", "Не удалось переименовать файл %1"},
    {"rename F.new", "safeSaving failed %3. ", "Не удалось переименовать файл %1.new"},
    {"rename N", "safeSaving failed %3. ", "Не удалось переименовать файл %2/N"},
    {"fsync N", "safeSaving failed %3. ", "Не удалось переименовать файл %2/N"},
    {"mkdir sub", "Не удалось создать путь %2/sub",
     "Не удалось открыть файл для записи. No such file or directory."},
    {"unlink F.old", "safeSaving file removing failed. ", nullptr}, // done or not
};

// An operation answers with a text; what is wrong afterwards, or null, is told by another function.
struct Operation
{
    QByteArray name;
    QString before; // what lies in the place
    std::function<QString()> work;
    std::function<QString(const QString &answer)> complaint;
};

QString ifNot(bool fine, const char *complaint)
{
    return fine ? QString() : QString::fromUtf8(complaint);
}

QString yes(bool answer)
{
    return answer ? "yes"_s : "no"_s;
}

// A save of "new" over "old" or over nothing.
Operation save(const char *name, const QString &target, const QString &before, bool moves = false)
{
    const bool isCutOff = before.startsWith("F.old=old"_s);
    const bool over = isCutOff || before.startsWith("F=old"_s);
    const auto work = [=] {
        return moves ? Global::safeSaving(in("N"_s), in(target))
                     : Global::safeSaving(in(target), QByteArray("new"));
    };
    const auto complaint = [=](const QString &text) {
        const bool onlyBackup = !once && text.endsWith("F.old"_s) && contents("F.old"_s) == "old"_s;
        if (!once && !moves && over) // what a reader would do
            Global::recoverSaved(in(target));
        const QString now = contents(target);
        if (text.isNull() ? now != "new"_s : now != (over ? "old"_s : QString()) && !onlyBackup)
            return "contents"_s;
        if (before.startsWith("F.old=x"_s) && contents("F.old"_s) != "x"_s)
            return "backup"_s;
        for (const auto &owed : owedBySaves) {
            const auto filled = [&](const char *pattern) {
                return QString::fromUtf8(pattern)
                    .replace("%1"_s, in(target))
                    .replace("%2"_s, place)
                    .replace("%3"_s, over ? "2"_s : "4"_s);
            };
            const bool isMadeGood = error == Fault::Short ||
                                    (error == EINTR && !struck.startsWith("mkdir"_s)) ||
                                    (struck == "renameat2 F"_s && !over);
            if (once && struck == QString::fromLatin1(owed[0]) && !isMadeGood)
                return ifNot(text.startsWith(filled(owed[2])) && logged().contains(filled(owed[1])), "text");
        }
        return ifNot(!once || text.isNull(), "failure");
    };
    return {name, before, work, complaint};
}

Operation store(const char *name, const QString &before)
{
    const auto work = [] {
        SettingsPointer settings(in("s.ini"_s));
        settings.sync();
        settings.settings.setValue("Details/maxWritingTime"_s, 700);
        settings.changed = true;
        settings.sync();
        return yes(settings.settings.value("Details/maxWritingTime"_s).toInt() == 700);
    };
    const auto complaint = [=](const QString &answer) {
        const QString now = contents("s.ini"_s);
        const bool isWhole =
            now == before.mid(6) ||
            now == (before.isEmpty() ? numberStored : stored + QLatin1Char('\n') + numberStored);
        return ifNot(isWhole, "contents") +
               ifNot(answer == "yes"_s || !once || struck.contains("accessTest"_s), "memory");
    };
    return {name, before, work, complaint};
}

// All or nothing, and the answer tells.
Operation storeAtOnce(const char *name, const QString &before)
{
    const auto work = [] {
        return SettingsPointer(in("s.ini"_s)).store({{"Details/maxWritingTime"_s, 700}});
    };
    const auto complaint = [=](const QString &text) {
        const QString expected = text.isNull() ? stored + QLatin1Char('\n') + numberStored : before.mid(6);
        return ifNot(contents("s.ini"_s) == expected, "contents");
    };
    return {name, before, work, complaint};
}

Operation logging(const char *name)
{
    const auto work = [] {
        return debug("Fault"_s, "the record"_s, DebugAlways, DebugFlagFileOnly), QString();
    };
    const auto complaint = [](const QString &) {
        return ifNot(!once || struck.startsWith("mkdir"_s) || logged().contains("Fault    the record\n"_s),
                     "lost record");
    };
    return {name, QString(), work, complaint};
}

QList<Operation> operations()
{
    const auto open = [](const QString &name) {
        return bool(QFile::permissions(in(name)) & QFile::WriteOther);
    };
    const auto create = [] {
        const QString name = Global::nextMessageDirName(QDir(place));
        return yes(QDir(place).mkdir(name));
    };
    return {
        save("first save", "F"_s, QString()),
        save("save over", "F"_s, "F=old"_s),
        save("save over, with leftovers", "F"_s, "F=old F.old=x F.new=x"_s),
        save("save, backup only", "F"_s, "F.old=x"_s),
        save("save, new directory", "sub/F"_s, QString()),
        save("save, cut off before", "F"_s, "F.old=old F.new=x"_s),
        save("move", "F"_s, "N=new"_s, true),
        save("move over", "F"_s, "F=old N=new"_s, true),
        save("old system: save over", "F"_s, "F=old F.old=x"_s),
        save("old system: save, backup only", "F"_s, "F.old=x"_s),
        {"recover", "F.old=old F.new=new"_s, [] { return Global::recoverSaved(in("F"_s)); },
         [](const QString &text) {
             return ifNot(contents(text.isNull() ? "F"_s : "F.old"_s) == "old"_s, "contents");
         }},
        {"make path", QString(), [] { return yes(Global::makePath(QDir(in("a/b"_s)))); },
         [=](const QString &answer) {
             const bool told =
                 logged().contains("Не удалось изменить права доступа 0x7777 для каталога "_s + in("a/b"_s));
             return ifNot(answer == yes(QFileInfo(in("a/b"_s)).isDir()), "answer") +
                    ifNot(!once || answer == "no"_s || told != open("a/b"_s), "log");
         }},
        {"file rights", "F=x"_s, [] { return yes(Global::setFilePermissions(in("F"_s))); },
         [=](const QString &answer) { return ifNot(answer == yes(open("F"_s)), "answer"); }},
        store("settings", "s.ini="_s + stored),
        store("first settings", QString()),
        storeAtOnce("settings at once", "s.ini="_s + stored),
        logging("log"),
        logging("first log"),
        logging("old system: first log"),
        {"probe", QString(), [] { return yes(Global::checkAccess(QDir(place))); },
         [](const QString &answer) {
             const bool isEmpty = QDir(place).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
             return ifNot(!once || (isEmpty && answer == yes(!struck.startsWith("open"_s) || error == EINTR)),
                          "answer");
         }},
        {"naming", QString(), create,
         [](const QString &answer) { return ifNot(answer == yes(QDir(in("00000001"_s)).exists()), "name"); }},
    };
}

// Open descriptors, with those that the log keeps.
int descriptorsInRest()
{
    for (int record = 0; record < 2; ++record)
        debug("Fault"_s, "in rest"_s, DebugAlways, DebugFlagFileOnly);
    return QDir("/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

class TestFaultPoints : public QObject
{
    Q_OBJECT

private:
    int points[2] = {0, 0}; // once, onward
    QStringList allStruck;

private Q_SLOTS:
    void initTestCase()
    {
        clean();
        ::umask(077); // rights come from us
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
        Global::makePath(QDir(path() + "/data/warm"_s));                    // what is read once per process
        Global::safeSaving(path() + "/data/warm/F"_s, QByteArray("x"));
    }

    void survives_data()
    {
        QTest::addColumn<int>("index");
        for (int index = 0; index < operations().size(); ++index)
            QTest::newRow(operations().at(index).name.constData()) << index;
    }

    void survives()
    {
        QFETCH(int, index);
        const Operation operation = operations().at(index);
        Fault::isOldSystem = operation.name.startsWith("old system");
        const QDir logs(path() + "/data/0/log"_s);
        const int descriptors = descriptorsInRest() + 1; // the log keeps one or two
        QString calls;                                   // of a run without faults, in their order
        for (int round = 0, nth = 1; round < 10; ++nth) {
            error = QList<int>{ENOSPC, EIO, EACCES, EINTR, Fault::Short}.at(round / 2);
            once = round % 2 == 0;
            const QTemporaryDir directory(quickTemplate());
            place = directory.path();
            for (const QFileInfo &file : logs.entryInfoList(QDir::Files))
                QFile::resize(file.filePath(), 0);
            if (operation.name.endsWith("first log"))
                QDir(logs).removeRecursively();
            plant(place, operation.before);

            Fault::arm(nth, !once, error);
            const QString answer = operation.work();
            const bool isStruck = Fault::disarm() > 0;

            struck = QString::fromStdString(Fault::struck());
            const QString complaint =
                operation.complaint(answer) + ifNot(descriptorsInRest() <= descriptors, " descriptor");
            QVERIFY2(complaint.isEmpty(),
                     qPrintable(
                         "%1: errno %2 at call %3 (%4), answer '%5'"_s.arg(complaint).arg(error).arg(nth).arg(
                             struck, answer)));
            QVERIFY(nth < 200);
            points[round % 2] += isStruck;
            allStruck += struck;
            calls += round == 0 ? struck + QLatin1Char(' ') : QString();
            if (!isStruck) {
                ++round;
                nth = 0;
            }
        }
        // Contents and rights before names, names before the backup goes: so a loss of power leaves a whole
        // version that everybody may read.
        const QMap<QByteArray, QString> orders{
            {"save over",
             "write F.new .*fchmod F.new .*fsync F.new .*renameat2 F .*rename F.new .*fsync tst.*unlink F.old "_s},
            {"settings at once", "write s.ini.new .*fdatasync s.ini.new .*rename s.ini.new .*fsync tst"_s}};
        const QRegularExpression order(orders.value(operation.name));
        QVERIFY2(order.match(calls).hasMatch(), qPrintable(calls));
    }

    // What could not be read is not therefore empty.
    void aLackKeepsTheSettings()
    {
        const QTemporaryDir directory(quickTemplate());
        place = directory.path();
        for (const int lack : {EMFILE, ENFILE, ENOMEM, EIO}) {
            plant(place, "s.ini="_s + numberStored);
            SettingsPointer settings(in("s.ini"_s));
            const auto value = [&] { return settings.settings.value("Details/maxWritingTime"_s).toInt(); };
            settings.refresh();
            QVERIFY(QFile::remove(in("s.ini"_s)));
            plant(place, "s.ini=[Details]\nmaxWritingTime=8000\n"_s);
            Fault::arm(1, true, lack);
            settings.refresh();
            QVERIFY(Fault::disarm() > 0);
            QCOMPARE(value(), 700);
            settings.refresh();
            QCOMPARE(value(), 8000);
            QVERIFY(QFile::remove(in("s.ini"_s)));
        }
    }

    void cleanupTestCase()
    {
        std::printf("%d calls failed once, %d runs in which all failed from there on\n", points[0],
                    points[1]);
        QVERIFY(points[0] >= 300);
        for (const auto &owed : owedBySaves) // a call that is never made could not fail
            QVERIFY2(allStruck.contains(QString::fromLatin1(owed[0])), owed[0]);
    }
};

QTEST_GUILESS_MAIN(TestFaultPoints)
#include "tst_faultpoints.moc"
