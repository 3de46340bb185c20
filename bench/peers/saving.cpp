// Replacing the contents of a file, in several ways.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <QByteArray>
#include <QSaveFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

namespace {

using Save = std::function<void(const std::string &path, const QByteArray &data)>;

void writeFile(const std::string &path, const QByteArray &data, bool synced)
{
    const int file = Net::check(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666), "open");
    for (qint64 done = 0; done < data.size();)
        done += Net::check(int(write(file, data.constData() + done, size_t(data.size() - done))), "write");
    if (synced)
        Net::check(fsync(file), "fsync");
    close(file);
}

void syncDirectoryOf(const std::string &path)
{
    const std::string directory = path.substr(0, path.rfind('/'));
    const int descriptor = Net::check(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open");
    Net::check(fsync(descriptor), "fsync");
    close(descriptor);
}

void move(const std::string &from, const std::string &to)
{
    Net::check(rename(from.c_str(), to.c_str()), "rename");
}

void syncAndRename(const std::string &path, const QByteArray &data)
{
    writeFile(path + ".new", data, true);
    move(path + ".new", path);
    syncDirectoryOf(path);
}

template <bool synced>
void throughOld(const std::string &path, const QByteArray &data)
{
    writeFile(path + ".new", data, synced);
    if (rename(path.c_str(), (path + ".old").c_str()) < 0 && errno != ENOENT)
        Net::check(-1, "rename");
    move(path + ".new", path);
    unlink((path + ".old").c_str());
    if (synced)
        syncDirectoryOf(path);
}

void saveFile(const std::string &path, const QByteArray &data)
{
    QSaveFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit())
        Net::check(-1, "QSaveFile");
}

int measure(const char *variant, const std::string &directory, const Save &save)
{
    struct Case
    {
        const char *name;
        int size;
        int saves;
    };
    for (const Case &one : {Case{"4 KiB", 4096, 40}, {"1 MiB", 1 << 20, 15}, {"64 MiB", 64 << 20, 3}}) {
        const std::string path = directory + "/target";
        const QByteArray data(one.size, 'x');
        save(path, data); // the target exists from here on
        std::vector<double> times;
        const double cpu = Measure::cpu();
        for (int i = 0; i < one.saves; ++i) {
            const double begin = Measure::now();
            save(path, data);
            times.push_back((Measure::now() - begin) * 1e3);
        }
        Measure::row("e saving", one.name, variant, "CPU ms/save", (Measure::cpu() - cpu) * 1e3 / one.saves);
        Measure::row("e saving", one.name, variant, "ms/save (median)", Measure::quantile(times, 0.5));
    }
    return 0;
}

const Role syncRole("saving sync", "DIR", [](const Arguments &arguments) {
    return measure("write+fsync+rename+fsync(dir)", arguments[0], syncAndRename);
});
const Role saveFileRole("saving qsavefile", "DIR", [](const Arguments &arguments) {
    return measure("QSaveFile", arguments[0], saveFile);
});
const Role renamesRole("saving renames", "DIR", [](const Arguments &arguments) {
    return measure("new/old renames, no sync", arguments[0], throughOld<false>);
});
const Role renamesSyncRole("saving renames-sync", "DIR", [](const Arguments &arguments) {
    return measure("new/old renames + sync", arguments[0], throughOld<true>);
});

} // namespace
