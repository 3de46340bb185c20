#include "host/conversation/cmessagestore.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/text/untrustedtext.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 reserveBytes = 16 * 1024 * 1024; // left free on the disk
constexpr qint64 flushEveryBytes = 8 * 1024 * 1024;
constexpr int mostAttempts = 100;
constexpr int newFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

/// The runtime gives out names to one thread at a time.
QString nextName(const QDir &directory)
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    return Global::nextMessageDirName(directory);
}

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

bool writeAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            return false;
        bytes.remove_prefix(std::size_t(qMax<ssize_t>(count, 0)));
    }
    return true;
}

int openDirectory(const QString &path)
{
    return ::open(encoded(path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/// Opens a directory of incomplete/ and takes its lock. @return -1 when somebody else has it
int openLocked(const QString &path)
{
    const int descriptor = openDirectory(path);
    if (descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return descriptor;
    if (descriptor >= 0)
        ::close(descriptor);
    return -1;
}

} // namespace

CMessageStore::CMessageStore(int level)
    : incomplete(Global::incompleteMessagesDir(level)), input(Global::inputMessagesDir(level))
{}

QString CMessageStore::prepare()
{
    for (const QDir &directory : {incomplete, input}) {
        if (!Global::makePath(directory))
            return QStringLiteral("Не удалось создать каталог %1").arg(directory.absolutePath());
    }
    const QStringList leftovers = incomplete.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    for (const QString &name : leftovers) {
        const QString path = incomplete.absoluteFilePath(name);
        const int locked = openLocked(path);
        if (locked < 0)
            continue; // another process is receiving it
        QDir(path).removeRecursively();
        ::close(locked);
    }
    return QString();
}

std::unique_ptr<CIncomingMessage> CMessageStore::begin(const QString &name, qint64 size, QString *error)
{
    // -1 where the file system is not in the table of mounts, as in a changed root: then the writes will
    // tell.
    const qint64 freeBytes = Global::diskFreeSpace(incomplete.absolutePath());
    if (freeBytes >= 0 && size > freeBytes - reserveBytes) {
        *error = QStringLiteral("Не хватает места на диске: нужно %1").arg(Global::sizeString(size));
        return nullptr;
    }

    std::unique_ptr<CIncomingMessage> message(new CIncomingMessage);
    message->store = this;
    for (int attempt = 0; attempt < mostAttempts && message->directory < 0; ++attempt) {
        message->path = incomplete.absoluteFilePath(nextName(incomplete));
        if (::mkdir(encoded(message->path).constData(), 0700) == 0)
            message->directory = openLocked(message->path); // a sweep may have been quicker: the next one
        else if (errno != EEXIST)
            break;
    }
    if (message->directory < 0) {
        *error = message->trouble("каталог сообщения");
        return nullptr;
    }

    message->contentName = name.isNull() ? QStringLiteral("text.txt") : safeFileName(name);
    if (message->contentName == QLatin1String("message.txt"))
        message->contentName.prepend(QLatin1Char('_'));
    message->content =
        ::openat(message->directory, encoded(message->contentName).constData(), newFileFlags, 0600);
    if (message->content < 0) {
        *error = message->trouble("файл");
        return nullptr;
    }
    return message;
}

CIncomingMessage::~CIncomingMessage()
{
    if (content >= 0)
        ::close(content);
    if (directory < 0)
        return;
    if (!path.isEmpty())
        QDir(path).removeRecursively();
    ::close(directory);
}

QString CIncomingMessage::append(std::string_view bytes)
{
    if (!writeAll(content, bytes))
        return trouble("файл");
    written += qint64(bytes.size());
    // The disk begins now, so that the wait in finish() is short however long the file.
    if (written - flushed >= flushEveryBytes) {
        ::sync_file_range(content, flushed, written - flushed, SYNC_FILE_RANGE_WRITE);
        flushed = written;
    }
    return QString();
}

QString CIncomingMessage::finish(const QByteArray &description, QString *finalDirectory)
{
    const int about = ::openat(directory, "message.txt", newFileFlags, 0600);
    const bool isWritten = about >= 0 &&
                           writeAll(about, {description.constData(), std::size_t(description.size())}) &&
                           ::fdatasync(about) == 0 && ::fdatasync(content) == 0 && ::fsync(directory) == 0;
    const QString failure = isWritten ? QString() : trouble("файл");
    if (about >= 0)
        ::close(about);
    if (!isWritten)
        return failure;

    const QDir here(path);
    Global::setFilePermissions(here.absoluteFilePath(contentName));
    Global::setFilePermissions(here.absoluteFilePath(QStringLiteral("message.txt")));
    QFile::setPermissions(path, QFileDevice::Permissions(CSettings().dirPermissions()));

    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        const QString name = nextName(store->input);
        if (name.isEmpty())
            continue; // many names in a row are taken: the next call looks anew
        *finalDirectory = store->input.absoluteFilePath(name);
        // A finished message is never empty, so no renaming can replace one.
        if (::rename(encoded(path).constData(), encoded(*finalDirectory).constData()) == 0) {
            path.clear();
            const int parent = openDirectory(store->input.absolutePath());
            if (parent >= 0) {
                ::fsync(parent);
                ::close(parent);
            }
            return QString();
        }
        if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR)
            break;
    }
    return trouble("каталог сообщения");
}

QString CIncomingMessage::trouble(const char *what) const
{
    const QString reason = QString::fromLocal8Bit(std::strerror(errno));
    return QStringLiteral("Не удалось записать %1: %2").arg(QString::fromUtf8(what), reason);
}
