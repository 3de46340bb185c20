#include "host/conversation/cincomingmessage.h"

#include "common/permissionbits.h"
#include "common/settingonce.h"
#include "host/conversation/cinbox.h"
#include "host/conversation/descriptors.h"
#include "host/conversation/treelist.h"
#include "host/text/reasons.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 threadBytes = 1024 * 1024; // what is to come of a file, for a thread to be worth while
constexpr int hashBytes = 256 * 1024;
constexpr std::size_t mostSingleSyncs = 12; // with more, syncing the file system as a whole is quicker
constexpr int newFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

mode_t fileMode(bool isExecutable)
{
    static CSettingOnce permissions(&CSettings::filePermissions);
    const mode_t mode = modeOf(permissions.value());
    return isExecutable ? mode | (mode & 0444) >> 2 : mode;
}

mode_t directoryMode()
{
    static CSettingOnce permissions(&CSettings::dirPermissions);
    return modeOf(permissions.value());
}

void setModified(const CDescriptor &descriptor, qint64 modifiedNs)
{
    constexpr qint64 nsPerSecond = 1000000000;
    qint64 seconds = modifiedNs / nsPerSecond;
    qint64 rest = modifiedNs % nsPerSecond;
    if (rest < 0) {
        --seconds;
        rest += nsPerSecond;
    }
    const timespec times[2] = {{0, UTIME_OMIT}, {time_t(seconds), long(rest)}};
    ::futimens(descriptor.get(), times);
}

/// What has to be the same for a message to be continued.
QByteArray withoutNumber(OfferFrame offer)
{
    offer.item = 0;
    offer.isAnew = offer.isAtOnce = false;
    return offer.toBytes();
}

} // namespace

CIncomingMessage::~CIncomingMessage()
{
    if (isOwned)
        inbox->release(this);
    closeAll();
}

void CIncomingMessage::closeAll()
{
    stopWriting();
    for (CDescriptor *descriptor : {&directory, &list, &file})
        descriptor->reset();
    unsynced.clear();
}

/// Another connection goes on with it, or it is stored.
void CIncomingMessage::abandon()
{
    const std::lock_guard lock(mutex);
    abandoned = true;
    closeAll();
}

QByteArray CIncomingMessage::partName(const char *ending) const
{
    return key + ending;
}

/// Opens what is there, or begins with nothing. @return false on failure: errno
bool CIncomingMessage::open(bool mayContinue)
{
    const QByteArray offerBytes = withoutNumber(what);
    const QByteArray offerName = partName(".offer");
    bool isThere = false;
    if (mayContinue) {
        const CDescriptor known(
            ::openat(incomplete, offerName.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        QByteArray bytes;
        isThere = known.isOpen() && Io::readAll(known, &bytes) && bytes == offerBytes;
    }
    if (!isThere) {
        // What comes at once has rarely been here before.
        if (!what.isAtOnce || ::mkdirat(incomplete, key.constData(), 0700) != 0) {
            for (const char *ending : {"", ".offer", ".list"})
                removeTree(incomplete, partName(ending));
            if (::mkdirat(incomplete, key.constData(), 0700) != 0)
                return false;
        }
        if (!what.isAtOnce) {
            const CDescriptor known(::openat(incomplete, offerName.constData(), newFileFlags, 0600));
            if (!known.isOpen() || !Io::writeAll(known, offerBytes))
                return false;
        }
    }
    directory.reset(::openat(incomplete, key.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.isOpen())
        return false;
    isCaughtUp = !isThere;
    return readLayout();
}

/// Which files there are to be; of a tree the list comes first.
bool CIncomingMessage::readLayout()
{
    if (what.kind != OfferFrame::Tree) {
        Part only;
        only.path = what.kind == OfferFrame::Text ? QByteArray("text.txt") : what.name;
        only.isExecutable = what.isExecutable;
        only.modifiedNs = what.modifiedNs;
        only.size = what.size;
        parts = {only};
        hasLayout = true;
        return isCaughtUp ? enter() : true;
    }
    list.reset(::openat(incomplete, partName(".list").constData(),
                        O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!list.isOpen())
        return false;
    listBytes.resize(int(what.listSize));
    const qint64 count = readUpTo(list, listBytes.data(), listBytes.size());
    if (count < 0)
        return false;
    listBytes.resize(int(count));
    hash({listBytes.constData(), std::size_t(count)});
    total = count;
    if (listBytes.size() < int(what.listSize)) {
        isCaughtUp = true; // contents come after the list
        return true;
    }
    if (!takeLayout())
        return true; // bad: told by the first append
    return isCaughtUp ? enter() : true;
}

bool CIncomingMessage::takeLayout()
{
    const auto entries = treeFromBytes(listBytes, what.size - what.listSize);
    bad = !entries;
    if (bad)
        return false;
    Part root;
    root.path = what.name;
    root.isDirectory = true;
    root.modifiedNs = what.modifiedNs;
    parts = {root};
    for (const TreeEntry &entry : *entries)
        parts.push_back({what.name + '/' + entry.path, entry.isDirectory, entry.isExecutable,
                         entry.modifiedNs, entry.size});
    hasLayout = true;
    return true;
}

/// The directory that a part lies in: every step of the way is one that we have made. Closed on failure.
CDescriptor CIncomingMessage::openParent(const QByteArray &path, QByteArray *name) const
{
    CDescriptor at(::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    QList<QByteArray> steps = path.split('/');
    *name = steps.takeLast();
    for (const QByteArray &step : qAsConst(steps))
        at = openDirectory(at, step);
    return at;
}

/// Goes to the next part that has bytes to come, making what is empty on the way.
/// @return false on failure: errno
bool CIncomingMessage::enter()
{
    while (part < parts.size() && !file.isOpen()) {
        const Part &now = parts[part];
        QByteArray name;
        const CDescriptor parent = openParent(now.path, &name);
        bool isMade = false;
        if (parent.isOpen() && now.isDirectory) {
            isMade = ::mkdirat(parent.get(), name.constData(), 0700) == 0;
        } else if (parent.isOpen()) {
            file.reset(::openat(parent.get(), name.constData(), newFileFlags, 0600));
            isMade = file.isOpen();
        }
        bad |= !isMade && (errno == EEXIST || errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
        if (!isMade)
            return false;
        if (now.isDirectory)
            ++part;
        else if (partDone == now.size && !leave())
            return false;
    }
    return true;
}

/// The current file is whole.
bool CIncomingMessage::leave()
{
    const Part &now = parts[part];
    if (!stopWriting())
        return false;
    setModified(file, now.modifiedNs);
    if (::fchmod(file.get(), fileMode(now.isExecutable)) != 0)
        return false;
    if (unsynced.size() < mostSingleSyncs)
        unsynced.push_back(std::move(file));
    isMuch |= file.isOpen();
    file.reset();
    partDone = 0;
    ++part;
    return true;
}

bool CIncomingMessage::catchUp(qint64 budget)
{
    const std::lock_guard lock(mutex);
    if (isCaughtUp || abandoned)
        return true;
    QByteArray bytes(hashBytes, Qt::Uninitialized);
    // Files are whole in their order; the first that is not is where it goes on.
    while (budget > 0 && part < parts.size()) {
        const Part &now = parts[part];
        QByteArray name;
        const CDescriptor parent = openParent(now.path, &name);
        if (now.isDirectory) {
            struct stat status
            {};
            const bool isThere =
                parent.isOpen() &&
                ::fstatat(parent.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISDIR(status.st_mode);
            if (!isThere)
                break;
            ++part;
            continue;
        }
        if (!file.isOpen() && parent.isOpen())
            file.reset(::openat(parent.get(), name.constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (!file.isOpen())
            break;
        const qint64 count = readUpTo(file, bytes.data(), qMin<qint64>(bytes.size(), now.size - partDone));
        if (count > 0) {
            hash({bytes.constData(), std::size_t(count)});
            partDone += count;
            total += count;
            budget -= count;
        }
        if (partDone == now.size) {
            if (!leave())
                break;
        } else if (count <= 0) {
            break;
        }
    }
    if (budget <= 0 && part < parts.size())
        return false;
    isCaughtUp = true;
    if (file.isOpen()) // what is in it goes on here; what is beyond it is nothing
        bad |= ::ftruncate(file.get(), partDone) != 0 || ::lseek(file.get(), partDone, SEEK_SET) != partDone;
    else
        bad |= !enter();
    return true;
}

QString CIncomingMessage::append(std::string_view bytes)
{
    const std::lock_guard lock(mutex);
    if (abandoned)
        return QStringLiteral("Сообщение приходит по другому соединению");
    while (!bytes.empty() && !bad) {
        if (!hasLayout) {
            const std::string_view now = bytes.substr(0, std::size_t(int(what.listSize) - listBytes.size()));
            hash(now);
            if (!Io::writeAll(list.get(), now))
                return trouble("файл");
            listBytes.append(now.data(), int(now.size()));
            total += qint64(now.size());
            bytes.remove_prefix(now.size());
            if (listBytes.size() == int(what.listSize) && takeLayout() && !enter())
                break;
            continue;
        }
        if (part >= parts.size() || !file.isOpen()) {
            bad = true;
            break;
        }
        const std::string_view now = bytes.substr(0, std::size_t(parts[part].size - partDone));
        if (!write(now))
            return trouble("файл");
        partDone += qint64(now.size());
        total += qint64(now.size());
        bytes.remove_prefix(now.size());
        if (partDone == parts[part].size && !(leave() && enter()))
            break;
    }
    if (bad)
        return QStringLiteral("Недопустимый перечень файлов каталога");
    return bytes.empty() ? QString() : trouble("файл");
}

void CIncomingMessage::hash(std::string_view bytes)
{
    sha.add(bytes);
    sum.add(bytes);
}

/// Hashes bytes and brings them into the current file. @return false on failure: errno
bool CIncomingMessage::write(std::string_view bytes)
{
    if (!writer && parts[part].size - partDone >= threadBytes) {
        int none = 0; // one thread for a connection, however many files come over it at once
        if (writers->compare_exchange_strong(none, 1))
            writer = std::make_unique<CBlockWriter>(file.get(), partDone, sha);
    }
    if (!writer) {
        hash(bytes);
        return Io::writeAll(file.get(), bytes);
    }
    sum.add(bytes);
    const int reason = writer->add(bytes);
    errno = reason;
    return reason == 0;
}

/// The file and the hash are this thread's again. @return false when not all has been written: errno
bool CIncomingMessage::stopWriting()
{
    if (!writer)
        return true;
    const int reason = writer->finish();
    writer.reset();
    *writers = 0;
    errno = reason;
    return reason == 0;
}

QByteArray CIncomingMessage::digest()
{
    const std::lock_guard lock(mutex);
    stopWriting(); // a write that has failed is told by finish(): the file is still open then
    return sha.soFar();
}

QByteArray CIncomingMessage::check()
{
    const std::lock_guard lock(mutex);
    return sum.soFar();
}

/// Directories get their times last: what is made in them changes these.
bool CIncomingMessage::settleDirectories()
{
    for (auto now = parts.rbegin(); now != parts.rend(); ++now) {
        if (!now->isDirectory)
            continue;
        QByteArray name;
        const CDescriptor parent = openParent(now->path, &name);
        const CDescriptor made = openDirectory(parent, name);
        if (!made.isOpen() || ::fchmod(made.get(), directoryMode()) != 0)
            return false;
        setModified(made, now->modifiedNs);
        isMuch = true;
    }
    return true;
}

QString CIncomingMessage::finish(const QByteArray &description)
{
    const std::lock_guard lock(mutex);
    if (abandoned || bad || part != parts.size())
        return QStringLiteral("Сообщение пришло не целиком");
    // The contents keep their name, so the description makes way.
    const QByteArray name = what.name == "message.txt" ? "_message.txt" : "message.txt";
    CDescriptor about(::openat(directory.get(), name.constData(),
                               O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!about.isOpen() || !Io::writeAll(about, description) || ::fchmod(about.get(), fileMode(false)) != 0)
        return trouble("файл");
    unsynced.push_back(std::move(about));
    return settleDirectories() && ::fchmod(directory.get(), directoryMode()) == 0 ? QString()
                                                                                  : trouble("каталог");
}

/// Brings the files, one by one, and their names to the disk. @return false on failure: errno
bool CIncomingMessage::sync() const
{
    const auto synced = [](const CDescriptor &each) { return Io::sync(each); };
    return !abandoned && std::all_of(unsynced.begin(), unsynced.end(), synced) && synced(directory);
}

void CIncomingMessage::discard()
{
    const std::lock_guard lock(mutex);
    if (abandoned)
        return;
    closeAll();
    for (const char *ending : {"", ".offer", ".list"})
        removeTree(incomplete, partName(ending));
}

QString CIncomingMessage::trouble(const char *thing) const
{
    return QStringLiteral("Не удалось записать %1: %2").arg(QString::fromUtf8(thing), reasonOf(errno));
}
