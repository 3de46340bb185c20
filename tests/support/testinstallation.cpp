#include "tests/support/testinstallation.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTcpServer>
#include <QTest>

bool soon(const std::function<bool()> &condition)
{
    return QTest::qWaitFor(condition, 30000);
}

int freePort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

namespace TestInstallation {

QString path()
{
    return QFileInfo(QCoreApplication::applicationDirPath()).path();
}

void clean()
{
    for (const char *name : {"/settings", "/data"}) {
        const QString directory = path() + QLatin1String(name);
        if (!QFile::remove(directory)) // a link or a file of a test's
            QDir(directory).removeRecursively();
    }
}

QString settingsPath()
{
    return path() + QLatin1String("/settings/settings.ini");
}

bool writeSettings(const QByteArray &text)
{
    return write(settingsPath(), text);
}

QByteArray settings()
{
    return read(settingsPath());
}

QByteArray log(int level)
{
    const QDir directory("%1/data/%2/log"_s.arg(path()).arg(level));
    QByteArray text;
    const QStringList names = directory.entryList({"*.log"_s}, QDir::Files, QDir::Name);
    for (const QString &name : names)
        text += read(directory.absoluteFilePath(name));
    return text;
}

bool write(const QString &fileName, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(fileName).absolutePath());
    QFile file(fileName);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size() && file.flush();
}

QByteArray read(const QString &fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int rights(const QString &fileName)
{
    return static_cast<int>(QFile::permissions(fileName)) & 0xF0FF;
}

void plant(const QString &place, const QString &entries)
{
    for (const QString &entry : entries.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString name = place + QLatin1Char('/') + entry.section(QLatin1Char('='), 0, 0);
        if (entry.endsWith(QLatin1Char('/')))
            QDir().mkpath(name);
        else
            write(name, entry.section(QLatin1Char('='), 1).toUtf8());
    }
}

QString quickTemplate()
{
    const QString memory = "/dev/shm"_s;
    return (QFileInfo(memory).isWritable() ? memory : QDir::tempPath()) + QLatin1Char('/') +
           QCoreApplication::applicationName() + QLatin1String("-XXXXXX");
}

} // namespace TestInstallation
