// Log writers by hand: what each way to reach the file costs.
#include "bench/peers/loglines.h"
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;

void append(int file, const std::string &line)
{
    Net::check(int(write(file, line.data(), line.size())), "write");
}

// One descriptor for ever: no writer can be cheaper, and none can notice that its file has gone.
int floorOnly(const Arguments &arguments)
{
    const int file = Net::check(open((arguments[0] + "/floor.log").c_str(), flags, 0666), "open");
    LogLines::measure("write only",
                      [file] { append(file, LogLines::line(LogLines::source, LogLines::text)); });
    return 0;
}

int keptDescriptor(const Arguments &arguments)
{
    const std::string path = arguments[0] + "/kept.log";
    const int file = Net::check(open(path.c_str(), flags, 0666), "open");
    std::mutex mutex;
    LogLines::measure("kept descriptor + statx", [&] {
        const std::string line = LogLines::line(LogLines::source, LogLines::text);
        const std::lock_guard<std::mutex> lock(mutex);
        struct statx named = {};
        Net::check(statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &named), "statx");
        append(file, line);
    });
    return 0;
}

int openAppendClose(const Arguments &arguments)
{
    const std::string path = arguments[0] + "/posix.log";
    std::mutex mutex;
    LogLines::measure("open-append-close, POSIX", [&] {
        const std::string line = LogLines::line(LogLines::source, LogLines::text);
        const std::lock_guard<std::mutex> lock(mutex);
        const int file = Net::check(open(path.c_str(), flags, 0666), "open");
        append(file, line);
        close(file);
    });
    return 0;
}

int openAppendCloseQt(const Arguments &arguments)
{
    const QString path = QString::fromStdString(arguments[0] + "/qt.log");
    const QString source = QString::fromStdString(LogLines::source).rightJustified(25);
    const QString text = QString::fromStdString(LogLines::text);
    std::mutex mutex;
    LogLines::measure("open-append-close, Qt", [&] {
        const QString time = QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz"));
        const QString line = QStringLiteral("%1 %2    %3\n").arg(time, source, text);
        const std::lock_guard<std::mutex> lock(mutex);
        QFile file(path);
        if (file.open(QIODevice::Append))
            file.write(line.toUtf8());
    });
    return 0;
}

// What a call costs that is not to be written, when the settings file is asked for changes each time.
int filteredCall(const Arguments &arguments)
{
    const std::string path = arguments[0] + "/settings.ini";
    close(Net::check(open(path.c_str(), flags, 0666), "open"));
    const double stats = Measure::nsPerCall([&path] {
        for (int i = 0; i < 2; ++i) {
            struct stat status = {};
            stat(path.c_str(), &status);
            Measure::keep(status);
        }
    });
    Measure::row("d log", "filtered-out call", "two stat()", "ns/call", stats);

    QFileInfo info(QString::fromStdString(path));
    const QDateTime known = info.lastModified();
    const double facade = Measure::nsPerCall([&] {
        for (int i = 0; i < 2; ++i) {
            info.refresh();
            Measure::keep(info.lastModified() == known);
        }
    });
    Measure::row("d log", "filtered-out call", "Qt facade", "ns/call", facade);
    return 0;
}

const Role floorRole("log floor", "DIR", floorOnly);
const Role keptRole("log statx", "DIR", keptDescriptor);
const Role posixRole("log posix", "DIR", openAppendClose);
const Role qtRole("log qt", "DIR", openAppendCloseQt);
const Role filteredRole("log filtered", "DIR", filteredCall);

} // namespace
