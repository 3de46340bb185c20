#include "host/conversation/cmessagestore.h"

#include "common/global.h"
#include "host/text/untrustedtext.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 reserveBytes = 16 * 1024 * 1024; // left free on the disk
constexpr qint64 flushEveryBytes = 8 * 1024 * 1024;
constexpr int mostAttempts = 100;

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

CDescriptor openDirectory(const QString &path)
{
    return CDescriptor(::open(encoded(path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// Opens a directory of incomplete/ and takes its lock. @return closed when somebody else has it
CDescriptor openLocked(const QString &path)
{
    CDescriptor descriptor = openDirectory(path);
    if (descriptor.isOpen() && ::flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0)
        descriptor.reset();
    return descriptor;
}

CDescriptor createFile(const CDescriptor &directory, const QString &name)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return CDescriptor(::openat(directory.get(), encoded(name).constData(), flags, 0600));
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
        const CDescriptor locked = openLocked(path); // closed while another process is receiving it
        if (locked.isOpen())
            QDir(path).removeRecursively();
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
    for (int attempt = 0; attempt < mostAttempts && !message->directory.isOpen(); ++attempt) {
        message->path = incomplete.absoluteFilePath(nextName(incomplete));
        if (::mkdir(encoded(message->path).constData(), 0700) == 0)
            message->directory = openLocked(message->path); // a sweep may have been quicker: the next one
        else if (errno != EEXIST)
            break;
    }
    if (!message->directory.isOpen()) {
        *error = message->trouble("каталог сообщения");
        return nullptr;
    }

    message->contentName = name.isNull() ? QStringLiteral("text.txt") : safeFileName(name);
    if (message->contentName == QLatin1String("message.txt"))
        message->contentName.prepend(QLatin1Char('_'));
    message->content = createFile(message->directory, message->contentName);
    if (!message->content.isOpen()) {
        *error = message->trouble("файл");
        return nullptr;
    }
    return message;
}

CIncomingMessage::~CIncomingMessage()
{
    if (directory.isOpen() && !path.isEmpty())
        QDir(path).removeRecursively();
}

QString CIncomingMessage::append(std::string_view bytes)
{
    if (!Io::writeAll(content.get(), bytes))
        return trouble("файл");
    written += qint64(bytes.size());
    // The disk begins now, so that the wait in finish() is short however long the file.
    if (written - flushed >= flushEveryBytes) {
        ::sync_file_range(content.get(), flushed, written - flushed, SYNC_FILE_RANGE_WRITE);
        flushed = written;
    }
    return QString();
}

QString CIncomingMessage::finish(const QByteArray &description, QString *finalDirectory)
{
    const QString aboutName = QStringLiteral("message.txt");
    const CDescriptor about = createFile(directory, aboutName);
    if (!about.isOpen() || !Io::writeAll(about, description))
        return trouble("файл");

    // The rights before the syncs: a loss of power must not leave a message that its readers cannot open.
    const QDir here(path);
    Global::setFilePermissions(content.get(), here.absoluteFilePath(contentName));
    Global::setFilePermissions(about.get(), here.absoluteFilePath(aboutName));
    Global::setDirectoryPermissions(directory.get(), path);
    if (!Io::sync(about) || !Io::sync(content) || !Io::sync(directory))
        return trouble("файл");

    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        const QString name = nextName(store->input);
        if (name.isEmpty())
            continue; // many names in a row are taken: the next call looks anew
        *finalDirectory = store->input.absoluteFilePath(name);
        // A finished message is never empty, so no renaming can replace one.
        if (::rename(encoded(path).constData(), encoded(*finalDirectory).constData()) == 0) {
            path.clear();
            if (const CDescriptor parent = openDirectory(store->input.absolutePath()); parent.isOpen())
                Io::sync(parent);
            return QString();
        }
        if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR)
            break;
    }
    return trouble("каталог сообщения");
}

QString CIncomingMessage::trouble(const char *what) const
{
    return QStringLiteral("Не удалось записать %1: %2").arg(QString::fromUtf8(what), qt_error_string(errno));
}
