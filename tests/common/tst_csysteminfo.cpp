// The lines at the head of a log.
#include "common/csysteminfo.h"
#include "common/environment.h"

#include <QRegularExpression>
#include <QStorageInfo>
#include <QtTest>

#include <sys/sysinfo.h>

class TestSystemInfo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsBuildMachineAndUser();
    void listsTheGroupsThatNameTheUser();
    void fillsOnePieceAfterAnother();
};

void TestSystemInfo::tellsBuildMachineAndUser()
{
    qputenv("HOME", "  /home/ann\t x ");
    qputenv("PATH", "/bin");
    qputenv("USER", "nobodyhere");
    for (const char *name : {"SESSIONNAME", "SystemDrive", "WINDIR"})
        qunsetenv(name);
    QFile cpu(QStringLiteral("/proc/cpuinfo"));
    QVERIFY(cpu.open(QIODevice::ReadOnly));
    const bool named = cpu.readAll().contains("model name");

    const QString size = QStringLiteral("(\\d+ байт|\\d+\\.\\d [КМГТ]Байт)");
    const QStringList patterns{
        QStringLiteral("Версия 3\\.0\\.25\\.0 release linux edition {8}Builded at \\w{3} [ \\d]\\d \\d{4} "
                       "\\d\\d:\\d\\d:\\d\\d with Qt ") +
            QRegularExpression::escape(QStringLiteral(QT_VERSION_STR)),
        QStringLiteral("Каталог: {14}") + QRegularExpression::escape(QCoreApplication::applicationDirPath()),
        QStringLiteral("Версия ОС: {12}.+, ") + QRegularExpression::escape(QSysInfo::kernelVersion()),
        QStringLiteral("Окружение: {12}HOME - /home/ann x, PATH - /bin"),
        QStringLiteral("Пользователь: {9}nobodyhere@") +
            QRegularExpression::escape(QSysInfo::machineHostName()),
        QStringLiteral("Группы: {15}"),
        QStringLiteral("Порядок байт: {9}LittleEndian"),
        named ? QStringLiteral("Процессор: {12}") + QSysInfo::currentCpuArchitecture() +
                    QStringLiteral(", \\S.*")
              : QString(),
        QStringLiteral("ОЗУ: {18}свободно %1 из %1").arg(size),
        QStringLiteral("Жесткий диск: {9}доступно %1 из %1").arg(size),
        QStringLiteral("Аптайм: {15}([1-9]\\d* д\\. )?([1-9]\\d* ч\\. )?([1-9]\\d* м\\. )?\\d+ с\\."),
        QStringLiteral("Часовой пояс: {9}UTC([+-]\\d\\d:\\d\\d)? .*"),
        QString(),
        QString(),
    };
    const QStringList lines = CSystemInfo::summaryInfo().split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), patterns.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(patterns.at(i)))
                     .match(lines.at(i))
                     .hasMatch(),
                 qPrintable(lines.at(i) + QLatin1String(" -- ") + patterns.at(i)));

    struct sysinfo figures = {};
    sysinfo(&figures);
    const QRegularExpressionMatch time =
        QRegularExpression(QStringLiteral("(?:(\\d+) д\\. )?(?:(\\d+) ч\\. )?(?:(\\d+) м\\. )?(\\d+) с\\.$"))
            .match(CSystemInfo::uptimeInfo());
    const int seconds =
        ((time.captured(1).toInt() * 24 + time.captured(2).toInt()) * 60 + time.captured(3).toInt()) * 60 +
        time.captured(4).toInt();
    QVERIFY(qAbs(seconds - figures.uptime) <= 2);
}

void TestSystemInfo::listsTheGroupsThatNameTheUser()
{
    QFile file(QStringLiteral("/etc/group"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const char *user : {"root", "a", ""}) { // a name anywhere in the line; without a name all lines
        qputenv("USER", user);
        QByteArray groups;
        for (const QByteArray &line : lines)
            groups +=
                !line.isEmpty() && line.contains(user) ? line.left(line.indexOf(':')) + ' ' : QByteArray();
        const QString text = CSystemInfo::userGroupsInfo();
        QCOMPARE(text.mid(text.indexOf(QLatin1Char('\n')) + 1),
                 QStringLiteral("Группы:               ") + QString::fromUtf8(groups));
    }
}

void TestSystemInfo::fillsOnePieceAfterAnother()
{
    qputenv("USER", "root");
    qputenv("HOME", "%6"); // a mark in a piece takes the next piece
    const QString summary = CSystemInfo::summaryInfo();
    QVERIFY(summary.contains(QStringLiteral("HOME - Порядок байт")));
    QCOMPARE(summary.count(QStringLiteral("LittleEndian")), 2);
    for (const char *name : {"HOME", "PATH"})
        qunsetenv(name);
    QCOMPARE(CSystemInfo::envInfo(), QStringLiteral("Окружение:            "));
}

QTEST_GUILESS_MAIN(TestSystemInfo)
#include "tst_csysteminfo.moc"
