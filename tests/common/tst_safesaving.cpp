// Saving, recovering and giving rights, in the set-ups that a disk can show.
#include "common/directorylayout.h"
#include "common/filepermissions.h"
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using namespace TestInstallation;

namespace {

constexpr int settable = 0xF0FF;

int rights(const QString &name)
{
    return static_cast<int>(QFile::permissions(name)) & settable;
}

} // namespace

class TestSafeSaving : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void takesRightsFromSettings();
    void saves_data();
    void saves();
    void recovers_data();
    void recovers();
    void makesPaths();
    void givesRights();
};

void TestSafeSaving::initTestCase()
{
    clean();
    ::umask(077); // so that rights come from us
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
}

// What lies beside the target F before, a slash behind directories: "F=old F.old=older F.new/".
static void plant(const QString &place, const QString &entries)
{
    for (const QString &entry : entries.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString name = place + QLatin1Char('/') + entry.section(QLatin1Char('='), 0, 0);
        QVERIFY2(entry.endsWith(QLatin1Char('/')) ? QDir().mkpath(name + QLatin1String("in"))
                                                  : write(name, entry.section(QLatin1Char('='), 1).toUtf8()),
                 qPrintable(entry));
    }
}

// The same of what lies there afterwards.
static QString found(const QString &place)
{
    QStringList entries;
    for (const QFileInfo &entry :
         QDir(place).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name))
        entries += entry.fileName() +
                   (entry.isDir() ? QStringLiteral("/")
                                  : QLatin1Char('=') + QString::fromUtf8(read(entry.absoluteFilePath())));
    return entries.join(QLatin1Char(' '));
}

void TestSafeSaving::takesRightsFromSettings()
{
    struct Case
    {
        const char *stored;
        int wanted;
        const char *kept;
    };
    const QString name = path() + QLatin1String("/data/rights");
    for (const Case &one :
         {Case{"26112", 0x6600 & settable, "26112"}, Case{"30583", 0x6666 & settable, "26214"}}) {
        QVERIFY(writeSettings(QByteArray("[Permissions]\nfilePermissions=") + one.stored + "\n"));
        QVERIFY(write(name, "x"));
        QCOMPARE(Forked::run([&] { return Global::setFilePermissions(name) ? 1 : 0; }), 1);
        QCOMPARE(rights(name), one.wanted);
        QVERIFY(settings().contains(QByteArray("\nfilePermissions=") + one.kept + '\n'));
    }
    clean();
}

void TestSafeSaving::saves_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("target"); // moved there from N, if there is a "<N"
    QTest::addColumn<QString>("result"); // %1 stands for the place
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("logged");
    const auto row = [](const char *name, const char *before, const char *target, const char *result,
                        const char *after, const char *logged) {
        QTest::newRow(name) << QString::fromUtf8(before) << QString::fromUtf8(target)
                            << QString::fromUtf8(result) << QString::fromUtf8(after)
                            << QString::fromUtf8(logged);
    };
    row("first", "", "F", "", "F=new", "");
    row("over", "F=old", "F", "", "F=new", "");
    row("leftover new", "F=old F.new=longer", "F", "", "F=new", "");
    row("leftover old", "F=old F.old=older", "F", "", "F=new", "");
    row("old alone", "F.old=older", "F", "", "F=new F.old=older", "");
    row("fresh directory", "", "sub/F", "", "sub/", "");
    row("old in the way", "F=old F.old/", "F", "Не удалось удалить файл %1/F.old", "F=old F.new=new F.old/",
        "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении "
        "%1/F.old.");
    row("new in the way", "F=old F.new/", "F", "Не удалось открыть файл для записи. Is a directory.",
        "F=old F.new/", "safeSaving failed 7. Не удалось открыть файл для записи. Is a directory.");
    row("no directory", "sub=x", "sub/F", "Не удалось открыть файл для записи. Not a directory.", "sub=x",
        "Не удалось создать путь %1/sub");
    row("a directory as target", "F/", "F", "", "F=new F.old/",
        "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении %1/F.old. "
        "Is a directory");
    row("move first", "N=new", "F<N", "", "F=new", "");
    row("move over", "N=new F=old", "F<N", "", "F=new", "");
    row("move nothing", "", "F<N", "Не удалось переименовать файл %1/N", "",
        "safeSaving failed 4. Не удалось переименовать файл %1/N. No such file or directory");
    row("move nothing over", "F=old", "F<N", "Не удалось переименовать файл %1/N", "F=old",
        "safeSaving failed 2. Не удалось переименовать файл %1/N. No such file or directory");
}

void TestSafeSaving::saves()
{
    QFETCH(QString, before);
    QFETCH(QString, target);
    QFETCH(QString, result);
    QFETCH(QString, after);
    QFETCH(QString, logged);
    const QTemporaryDir place;
    plant(place.path(), before);
    const QString name = place.filePath(target.section(QLatin1Char('<'), 0, 0));

    const QString text = target.contains(QLatin1Char('<'))
                             ? Global::safeSaving(place.filePath(QStringLiteral("N")), name)
                             : Global::safeSaving(name, QByteArray("new"));

    QCOMPARE(text.isNull(), result.isEmpty());
    QCOMPARE(text, result.contains(QLatin1Char('%')) ? result.arg(place.path()) : result);
    QCOMPARE(found(place.path()), after);
    if (result.isEmpty()) {
        QCOMPARE(read(name), QByteArray("new"));
        QCOMPARE(target.contains(QLatin1Char('<')) ? 0x6066 : rights(name), 0x6066);
    }
    const QString log = QString::fromUtf8(TestInstallation::log());
    const QString line = QStringLiteral("                   Global    ") // at tab level 1
                         + (logged.contains(QLatin1Char('%')) ? logged.arg(place.path()) : logged) +
                         QLatin1Char('\n');
    QCOMPARE(logged.isEmpty() ? log.contains(place.path()) : !log.contains(line), false);
}

void TestSafeSaving::recovers_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::newRow("the target is missing") << "F.new=new F.old=old"
                                           << "F=old F.new=new";
    QTest::newRow("the target is there") << "F=new F.old=old"
                                         << "F=new F.old=old";
    QTest::newRow("nothing at all") << ""
                                    << "";
    QTest::newRow("a directory is no backup") << "F.old/"
                                              << "F.old/";
}

void TestSafeSaving::recovers()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    const QTemporaryDir place;
    plant(place.path(), before);
    QVERIFY(Global::recoverSaved(place.filePath(QStringLiteral("F"))).isNull());
    QCOMPARE(found(place.path()), after);
}

void TestSafeSaving::makesPaths()
{
    const QTemporaryDir outside;
    const QString inner = path() + QLatin1String("/data/x/y");
    const QString outer = outside.filePath(QStringLiteral("a/b"));
    const QString data = path() + QLatin1String("/data");
    const int above = rights(path());
    QVERIFY(QDir().mkpath(data) &&
            QFile::setPermissions(data, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    QVERIFY(Global::makePath(QDir(inner)) && Global::makePath(QDir(outer)));
    for (const char *level : {"", "/x", "/x/y"}) // also the one that was there
        QCOMPARE(rights(data + QLatin1String(level)), 0x7077);
    QCOMPARE(rights(path()), above);
    QCOMPARE(rights(outer), 0x7077);
    QVERIFY(rights(outside.filePath(QStringLiteral("a"))) != 0x7077);

    QVERIFY(QFile::setPermissions(outer, QFile::ReadOwner | QFile::ExeOwner));
    QVERIFY(Global::makePath(QDir(outer)));
    QCOMPARE(rights(outer), 0x5000); // existing ones stay as they are
}

void TestSafeSaving::givesRights()
{
    const QTemporaryDir place;
    const QString name = place.filePath(QStringLiteral("F"));
    QVERIFY(!Global::setFilePermissions(name));
    QVERIFY(!Global::setFilePermissions(place.path()));
    QVERIFY(!QString::fromUtf8(TestInstallation::log()).contains(place.path()));
    QVERIFY(write(name, "x") && QFile::setPermissions(name, QFile::ReadOwner));
    QVERIFY(Global::setFilePermissions(name));
    QCOMPARE(rights(name), 0x6066);
}

QTEST_GUILESS_MAIN(TestSafeSaving)
#include "tst_safesaving.moc"
