// The lines at the head of a log.
#include "common/csysteminfo.h"
#include "tests/support/testinstallation.h"

#include <QRegularExpression>
#include <QtTest>

#include <sys/sysinfo.h>

class TestSystemInfo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsBuildMachineAndUser()
    {
        qputenv("HOME", "  /home/ann\t x ");
        qputenv("PATH", "/bin");
        qputenv("USER", "nobodyhere");
        for (const char *name : {"SESSIONNAME", "SystemDrive", "WINDIR"})
            qunsetenv(name);
        const bool named = TestInstallation::read("/proc/cpuinfo"_s).contains("model name");

        const QString pattern =
            "Версия 3\\.0\\.25\\.0 release linux edition {8}Builded at \\w{3} [ \\d]\\d \\d{4} "
            "\\d\\d:\\d\\d:\\d\\d with "
            "Qt 5\\.\\d+\\.\\d+\nКаталог: {14}/.*/bin\nВерсия ОС: {12}.+, \\d.*\n"
            "Окружение: {12}HOME - /home/ann x, PATH - /bin\nПользователь: {9}nobodyhere@.+\nГруппы: {15}\n"
            "Порядок байт: {9}LittleEndian\n%1\nОЗУ: {18}свободно %2 из %2\n"
            "Жесткий диск: {9}доступно %2 из %2\n"
            "Аптайм: {15}(?:(\\d+) д\\. )?(?:(\\d+) ч\\. )?(?:(\\d+) м\\. )?(\\d+) с\\.\n"
            "Часовой пояс: {9}UTC([+-]\\d\\d:\\d\\d)? .*\n\n"_s.arg(
                named ? "Процессор: {12}\\w+, \\S.*"_s : QString(), "(?:\\d+ байт|\\d+\\.\\d [КМГТ]Байт)"_s);
        const QString summary = CSystemInfo::summaryInfo();
        const auto match = QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(summary);
        QVERIFY2(match.hasMatch(), qPrintable(summary + pattern));

        struct sysinfo figures = {};
        sysinfo(&figures);
        const auto part = [&](int index) { return match.captured(index).toLong(); };
        const long shown = ((part(1) * 24 + part(2)) * 60 + part(3)) * 60 + part(4);
        QVERIFY2(shown <= figures.uptime && shown > figures.uptime - 60, "the uptime of a moment ago");
        QVERIFY(part(2) < 24 && part(3) < 60 && part(4) < 60);
    }

    void listsTheGroupsThatNameTheUser()
    {
        for (const char *user : {"root", ""}) { // a name anywhere in the line; without a name all lines
            qputenv("USER", user);
            QByteArray groups;
            for (const QByteArray &line : TestInstallation::read("/etc/group"_s).split('\n'))
                groups += !line.isEmpty() && line.contains(user) ? line.left(line.indexOf(':')) + ' '
                                                                 : QByteArray();
            const QString expected = "\nГруппы:               "_s + QString::fromUtf8(groups);
            QVERIFY2(CSystemInfo::userGroupsInfo().endsWith(expected), groups.constData());
        }
    }

    void fillsOnePieceAfterAnother()
    {
        qputenv("HOME", "%6"); // a mark in a piece takes the next piece
        const QString summary = CSystemInfo::summaryInfo();
        QVERIFY(summary.contains("HOME - Порядок байт"_s) && summary.count("LittleEndian"_s) == 2);
    }
};

QTEST_GUILESS_MAIN(TestSystemInfo)
#include "tst_csysteminfo.moc"
