#include "host/conversation/transporttasks.h"

#include "common/global.h"
#include "host/conversation/descriptors.h"
#include "host/text/reasons.h"

#include <QFile>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr char firstLine[] = "abonent 1";
constexpr int mostAttempts = 1000;
constexpr int longestTask = 4096;

const char *const words[] = {"deliver", "withdraw"};

} // namespace

QDir TransportTasks::directory(int level)
{
    return Global::tasksToTransportDir(level);
}

QString TransportTasks::add(int level, const TransportTask &task)
{
    const QDir place = directory(level);
    if (!Global::makePath(place))
        return QStringLiteral("Не удалось создать каталог %1").arg(place.absolutePath());
    const QByteArray text =
        QByteArray(firstLine) + '\n' + words[task.kind] + ' ' + task.number.toLatin1() + '\n';
    // A name of its own first: who takes tasks sees whole ones only. Nothing is lost with one: the outbox is
    // looked through at every start.
    const QString draft = place.absoluteFilePath(QStringLiteral(".%1.%2").arg(task.number).arg(::getpid()));
    QFile file(draft);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.flush())
        return QStringLiteral("Не удалось записать задание %1: %2").arg(draft, explained(file.errorString()));
    file.close();
    Global::setFilePermissions(draft);
    bool isPlaced = false;
    for (int attempt = 0; attempt < mostAttempts && !isPlaced; ++attempt) {
        const QString name = place.absoluteFilePath(Global::nextTaskFileName(place));
        isPlaced = ::link(QFile::encodeName(draft).constData(), QFile::encodeName(name).constData()) == 0;
    }
    QFile::remove(draft);
    return isPlaced ? QString()
                    : QStringLiteral("Не удалось записать задание %1: %2").arg(draft, reasonOf(errno));
}

std::vector<TransportTask> TransportTasks::take(int level)
{
    std::vector<TransportTask> tasks;
    const QDir place = directory(level);
    const QStringList names = place.entryList({QStringLiteral("*.task")}, QDir::Files, QDir::Name);
    for (const QString &name : names) {
        QFile file(place.absoluteFilePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> lines = file.read(longestTask).split('\n');
        if (lines.value(0) != firstLine)
            continue;
        for (int kind = 0; kind < int(std::size(words)); ++kind) {
            if (lines.value(1).startsWith(QByteArray(words[kind]) + ' '))
                tasks.push_back(
                    {TransportTask::Kind(kind), QString::fromLatin1(lines.value(1).split(' ').last())});
        }
        file.remove();
    }
    return tasks;
}

bool CTransportLock::tryLock(int level)
{
    if (descriptor.isOpen())
        return true;
    const QDir place = kind == Transport ? Global::messagesDir(level) : TransportTasks::directory(level);
    if (!Global::makePath(place))
        return false;
    CDescriptor opened = openDirectory(place.absolutePath());
    if (opened.isOpen() && ::flock(opened.get(), LOCK_EX | LOCK_NB) == 0)
        descriptor = std::move(opened);
    return descriptor.isOpen();
}
