// How cost grows with what there is: threads that log, messages in a directory, keys in the settings.
#include "bench/channelbench/logload.h"
#include "bench/channelbench/rows.h"

#include "bench/support/measure.h"
#include "common/csettings.h"
#include "common/directorylayout.h"
#include "common/entrynaming.h"
#include "common/filepermissions.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

#include <sys/stat.h>

namespace {

constexpr char area[] = "g growth";

template <typename Function>
double usOf(Function function)
{
    const double begin = Measure::now();
    function();
    return (Measure::now() - begin) * 1e6;
}

void logThreads()
{
    for (const int threads : {1, 2, 4, 8, 16, 32}) {
        const LogCost cost = writeRecords(19200, threads);
        const std::string name = "log, " + std::to_string(threads) + " thread(s)";
        Measure::row(area, name, Rows::variant, "CPU us/record", cost.cpuUsPerRecord);
        Measure::row(area, name, Rows::variant, "records/s", cost.recordsPerSecond);
    }
}

/// A place in memory when there is one: a disk takes half a minute to remove a hundred thousand directories.
QString messagesPlace(const QString &directory)
{
    const QString memory = QStringLiteral("/dev/shm/channelbench.%1").arg(QCoreApplication::applicationPid());
    return QDir().mkdir(memory) ? memory : directory;
}

// The first name of a directory takes a scan of it, the later ones do not.
void naming(const QString &directory)
{
    const QString place = messagesPlace(directory);
    for (const int messages : {10, 100, 1000, 10000, 100000}) {
        const QString path = place + QStringLiteral("/messages%1").arg(messages);
        QDir().mkpath(path);
        for (int i = 1; i <= messages; ++i) {
            const QString name = QStringLiteral("/%1").arg(i, 8, 10, QLatin1Char('0'));
            mkdir(QFile::encodeName(path + name).constData(), 0777);
        }
        const QDir messagesDir(path);
        const double first = usOf([&] { Measure::keep(Global::nextMessageDirName(messagesDir)); });
        const double next = usOf([&] { Measure::keep(Global::nextMessageDirName(messagesDir)); });
        const std::string name = "naming, " + std::to_string(messages) + " messages";
        Measure::row(area, name, Rows::variant, "us, first name", first);
        Measure::row(area, name, Rows::variant, "us, next name", next);
        QDir(path).removeRecursively();
    }
    QDir().rmdir(place);
}

bool writeKeys(int keys, bool withOurs)
{
    QByteArray text = "[Other]\n";
    for (int i = 0; i < keys; ++i)
        text += "key" + QByteArray::number(i) + "=" + QByteArray::number(i * 7) + "\n";
    if (withOurs)
        text += "\n[Debug]\njournals=true\n";
    QFile file(Global::internalSettingsFilePath());
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

bool readOneKey()
{
    return CSettings().debugJournals();
}

// A key is looked up at every log call, the file read after somebody's edit, written for a new key.
void settingsOfManyKeys()
{
    Global::makePath(Global::settingsDir());
    for (const int keys : {10, 100, 1000, 10000}) {
        const std::string name = "settings, " + std::to_string(keys) + " keys";
        std::vector<double> read;
        std::vector<double> written;
        for (int i = 0; i < 5; ++i) {
            writeKeys(keys, true);
            read.push_back(usOf([] { Measure::keep(readOneKey()); }));
            writeKeys(keys, false);
            written.push_back(usOf([] { Measure::keep(readOneKey()); }));
        }
        QFile::remove(Global::internalSettingsFilePath());
        writeKeys(keys, true);
        QThread::msleep(50); // the file's time has to be proof that nothing changes
        Measure::keep(readOneKey());
        const double lookUp = Measure::nsPerCall([] { Measure::keep(readOneKey()); });
        Measure::row(area, name, Rows::variant, "us, unchanged", lookUp * 1e-3);
        Measure::row(area, name, Rows::variant, "us, after an edit", Measure::quantile(read, 0.5));
        Measure::row(area, name, Rows::variant, "us, with a new key", Measure::quantile(written, 0.5));
    }
}

} // namespace

void Rows::growth(const QString &directory)
{
    logThreads();
    naming(directory);
    settingsOfManyKeys();
}
