#include "host/conversation/clatewatcher.h"

CLateWatcher::CLateWatcher()
{
    start.setSingleShot(true);
    start.setInterval(lateMs);
    connect(&start, &QTimer::timeout, this, &CLateWatcher::begin);
}

void CLateWatcher::watch(const QStringList &fileNames)
{
    if (watcher) {
        const QStringList watched = watcher->directories() + watcher->files();
        if (!watched.isEmpty()) // Qt complains about nothing
            watcher->removePaths(watched);
        if (!fileNames.isEmpty())
            watcher->addPaths(fileNames);
    } else if (!fileNames.isEmpty() && !start.isActive()) {
        start.start();
    }
    names = fileNames;
}

void CLateWatcher::hurry()
{
    start.setInterval(0);
    if (start.isActive())
        start.start();
}

void CLateWatcher::begin()
{
    watcher = std::make_unique<QFileSystemWatcher>();
    for (const auto change : {&QFileSystemWatcher::directoryChanged, &QFileSystemWatcher::fileChanged})
        connect(watcher.get(), change, this, &CLateWatcher::changed);
    watch(names);
    emit changed();
}
