// Saving, recovering and giving rights, in the set-ups that a disk can show.
#include "common/filepermissions.h"
#include "common/safesaving.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

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
    void initTestCase();
    void takesRightsFromSettings();
    void changesPlaces_data();
    void changesPlaces();
    void makesPaths();
};

void TestSafeSaving::initTestCase()
{
    clean();
    ::umask(077); // so that rights come from us
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the log's echo
}

// In a process of its own: this one must not have asked the settings yet.
void TestSafeSaving::takesRightsFromSettings()
{
    const QString name = path() + "/data/rights"_s;
    QVERIFY(writeSettings("[Permissions]\nfilePermissions=26112\n") && write(name, "x"));
    QCOMPARE(Forked::run([&] { return Global::setFilePermissions(name) ? 1 : 0; }), 1);
    QCOMPARE(rights(name), 0x6000);
    QVERIFY(!Global::setFilePermissions(path()) && !Global::setFilePermissions(name + "missing"_s));
    QCOMPARE(log(), QByteArray());
    clean();
}

void TestSafeSaving::changesPlaces_data()
{
    QTest::addColumn<QString>("how"); // save F, move N to F, recover F
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("text"); // %1 stands for the place
    QTest::addColumn<QString>("logged");
    const auto row = [](const char *name, const char *how, const QString &before, const QString &after,
                        const QString &text = QString(), const QString &logged = QString()) {
        QTest::newRow(name) << QString::fromLatin1(how) << before << after << text << logged;
    };
    const QString opening = "Не удалось открыть файл для записи. "_s;
    const QString moving = "Не удалось переименовать файл %1/N"_s;
    row("over", "F", "F=old"_s, "F=new"_s);
    row("leftovers", "F", "F=old F.new=longer F.old=older"_s, "F=new"_s);
    row("a fresh directory", "sub/F", ""_s, "sub/"_s);
    row("a new file in the way", "F", "F=old F.new/"_s, "F=old F.new/"_s, opening + "Is a directory."_s,
        "safeSaving failed 7. "_s + opening + "Is a directory."_s);
    row("no directory", "sub/F", "sub=x"_s, "sub=x"_s, opening + "Not a directory."_s,
        "Не удалось создать путь %1/sub"_s);
    row("a directory", "F", "F/"_s, "F=new F.old/"_s, QString(),
        "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении %1/F.old. Is a directory"_s);
    row("move first", "move", "N=new"_s, "F=new"_s);
    row("move nothing", "move", ""_s, ""_s, moving,
        "safeSaving failed 4. "_s + moving + ". No such file or directory"_s);
    row("move nothing over", "move", "F=old"_s, "F=old"_s, moving,
        "safeSaving failed 2. "_s + moving + ". No such file or directory"_s);
    row("recover", "recover", "F.new=new F.old=old"_s, "F=old F.new=new"_s, QString(),
        "Восстановлен файл %1/F из %1/F.old"_s);
    row("nothing to recover", "recover", "F=new F.old=old"_s, "F=new F.old=old"_s);
    row("no backup", "recover", "F.old/"_s, "F.old/"_s);
}

void TestSafeSaving::changesPlaces()
{
    QFETCH(QString, how);
    QFETCH(QString, before);
    QFETCH(QString, text);
    QFETCH(QString, logged);
    const QTemporaryDir place;
    plant(place.path(), before);
    const QString target = place.filePath(how.endsWith(QLatin1Char('F')) ? how : "F"_s);

    const QString result = how == "move"_s      ? Global::safeSaving(place.filePath("N"_s), target)
                           : how == "recover"_s ? Global::recoverSaved(target)
                                                : Global::safeSaving(target, QByteArray("new"));

    QCOMPARE(result.isNull(), text.isEmpty());
    QCOMPARE(result, text.replace("%1"_s, place.path()));
    QTEST(found(place.path()), "after");
    QVERIFY(!result.isNull() || !how.endsWith(QLatin1Char('F')) || rights(target) == 0x6066);
    const QString line =
        "                   Global    "_s + logged.replace("%1"_s, place.path()) + QLatin1Char('\n');
    const QString written = QString::fromUtf8(log());
    QVERIFY(logged.isEmpty() ? !written.contains(place.path()) : written.contains(line));
}

void TestSafeSaving::makesPaths()
{
    const QTemporaryDir outside;
    const QString outer = outside.filePath("a/b"_s);
    const QString data = path() + "/data"_s;
    const int above = rights(path());
    QVERIFY(QDir().mkpath(data) && QFile::setPermissions(data, QFile::Permissions(0x7000)));

    QVERIFY(Global::makePath(QDir(data + "/x/y"_s)) && Global::makePath(QDir(outer)));
    for (const QString &level : {data, data + "/x"_s, data + "/x/y"_s, outer}) // also the one that was there
        QCOMPARE(rights(level), 0x7077);
    QCOMPARE(rights(path()), above);
    QCOMPARE(rights(outside.filePath("a"_s)), 0x7000);

    QVERIFY(QFile::setPermissions(outer, QFile::Permissions(0x5000)));
    QVERIFY(Global::makePath(QDir(outer)));
    QCOMPARE(rights(outer), 0x5000); // existing ones stay as they are
}

QTEST_GUILESS_MAIN(TestSafeSaving)
#include "tst_safesaving.moc"
