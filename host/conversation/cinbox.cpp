#include "host/conversation/cinbox.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/conversation/descriptors.h"
#include "host/text/reasons.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr qint64 reserveBytes = 16 * 1024 * 1024; // left free on the disk
constexpr qint64 flushEveryBytes = 8 * 1024 * 1024;
constexpr int hashBytes = 256 * 1024;
constexpr int mostAttempts = 100;
constexpr std::size_t mostSingleSyncs = 12; // with more, syncing the file system as a whole is quicker
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

/// Rights of the settings as the system writes them: QFile counts user, group and others in hex digits.
mode_t modeOf(int permissions)
{
    return mode_t(((permissions >> 12 & 7) << 6) | ((permissions >> 4 & 7) << 3) | (permissions & 7));
}

mode_t fileMode(bool isExecutable)
{
    static const mode_t mode = modeOf(CSettings().filePermissions());
    return isExecutable ? mode | (mode & 0444) >> 2 : mode;
}

mode_t directoryMode()
{
    static const mode_t mode = modeOf(CSettings().dirPermissions());
    return mode;
}

void setModified(int descriptor, qint64 modifiedNs)
{
    constexpr qint64 nsPerSecond = 1000000000;
    qint64 seconds = modifiedNs / nsPerSecond;
    qint64 rest = modifiedNs % nsPerSecond;
    if (rest < 0) {
        --seconds;
        rest += nsPerSecond;
    }
    const timespec times[2] = {{0, UTIME_OMIT}, {time_t(seconds), long(rest)}};
    ::futimens(descriptor, times);
}

/// What has to be the same for a message to be continued.
QByteArray withoutNumber(OfferFrame offer)
{
    offer.item = 0;
    offer.isAnew = offer.isAtOnce = false;
    return offer.toBytes();
}

} // namespace

// CIncomingMessage -----------------------------------------------------------------------------------

CIncomingMessage::~CIncomingMessage()
{
    if (isOwned)
        inbox->release(this);
    closeAll();
}

void CIncomingMessage::closeAll()
{
    for (int *descriptor : {&directory, &list, &file})
        closeDescriptor(descriptor);
    for (int &descriptor : unsynced)
        closeDescriptor(&descriptor);
    unsynced.clear();
}

QByteArray CIncomingMessage::partName(const char *ending) const
{
    return key + ending;
}

/// Opens what is there, or begins with nothing. @return false on failure: errno
bool CIncomingMessage::open(bool mayContinue)
{
    const QByteArray offerBytes = withoutNumber(what);
    bool isThere = false;
    if (mayContinue) {
        int known = ::openat(incomplete, partName(".offer").constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        QByteArray bytes(offerBytes.size() + 1, '\0');
        isThere = known >= 0 && readAll(known, bytes.data(), bytes.size()) == offerBytes.size() &&
                  bytes.startsWith(offerBytes);
        closeDescriptor(&known);
    }
    if (!isThere) {
        for (const char *ending : {"", ".offer", ".list"})
            removeTree(incomplete, partName(ending));
        if (::mkdirat(incomplete, key.constData(), 0700) != 0)
            return false;
        if (!what.isAtOnce) {
            int known = ::openat(incomplete, partName(".offer").constData(), newFileFlags, 0600);
            const bool isWritten =
                known >= 0 && writeAll(known, {offerBytes.constData(), std::size_t(offerBytes.size())});
            closeDescriptor(&known);
            if (!isWritten)
                return false;
        }
    }
    directory = ::openat(incomplete, key.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory < 0)
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
    list = ::openat(incomplete, partName(".list").constData(),
                    O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (list < 0)
        return false;
    listBytes.resize(int(what.listSize));
    const qint64 count = readAll(list, listBytes.data(), listBytes.size());
    if (count < 0)
        return false;
    listBytes.resize(int(count));
    sha.add({listBytes.constData(), std::size_t(count)});
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

/// The directory that a part lies in: every step of the way is one that we have made. @return -1 on failure
int CIncomingMessage::openParent(const QByteArray &path, QByteArray *name) const
{
    int at = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QList<QByteArray> steps = path.split('/');
    *name = steps.takeLast();
    for (const QByteArray &step : qAsConst(steps)) {
        int next =
            at < 0 ? -1 : ::openat(at, step.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        closeDescriptor(&at);
        at = next;
    }
    return at;
}

/// Goes to the next part that has bytes to come, making what is empty on the way.
/// @return false on failure: errno
bool CIncomingMessage::enter()
{
    while (part < parts.size() && file < 0) {
        const Part &now = parts[part];
        QByteArray name;
        int parent = openParent(now.path, &name);
        bool isMade = false;
        if (parent >= 0 && now.isDirectory) {
            isMade = ::mkdirat(parent, name.constData(), 0700) == 0;
        } else if (parent >= 0) {
            file = ::openat(parent, name.constData(), newFileFlags, 0600);
            isMade = file >= 0;
        }
        bad |= !isMade && (errno == EEXIST || errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
        closeDescriptor(&parent);
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
    setModified(file, now.modifiedNs);
    if (::fchmod(file, fileMode(now.isExecutable)) != 0)
        return false;
    if (unsynced.size() < mostSingleSyncs)
        unsynced.push_back(file);
    else {
        isMuch = true;
        ::close(file);
    }
    file = -1;
    partDone = flushed = 0;
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
        int parent = openParent(now.path, &name);
        if (now.isDirectory) {
            struct stat status
            {};
            const bool isThere = parent >= 0 &&
                                 ::fstatat(parent, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                                 S_ISDIR(status.st_mode);
            closeDescriptor(&parent);
            if (!isThere)
                break;
            ++part;
            continue;
        }
        if (file < 0)
            file = parent < 0 ? -1 : ::openat(parent, name.constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
        closeDescriptor(&parent);
        if (file < 0)
            break;
        const qint64 count = readAll(file, bytes.data(), qMin<qint64>(bytes.size(), now.size - partDone));
        if (count > 0) {
            sha.add({bytes.constData(), std::size_t(count)});
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
        if (budget <= 0)
            return false;
    }
    if (budget <= 0 && part < parts.size())
        return false;
    isCaughtUp = true;
    if (file >= 0) { // what is in it goes on here; what is beyond it is nothing
        const bool isReady =
            ::ftruncate(file, partDone) == 0 && ::lseek(file, partDone, SEEK_SET) == partDone;
        flushed = partDone;
        if (!isReady)
            bad = true;
    } else if (!enter()) {
        bad = true;
    }
    return true;
}

QString CIncomingMessage::append(std::string_view bytes)
{
    const std::lock_guard lock(mutex);
    if (abandoned)
        return QStringLiteral("Сообщение приходит по другому соединению");
    sha.add(bytes);
    while (!bytes.empty() && !bad) {
        if (!hasLayout) {
            const std::size_t count =
                std::min(bytes.size(), std::size_t(int(what.listSize) - listBytes.size()));
            if (!writeAll(list, bytes.substr(0, count)))
                return trouble("файл");
            listBytes.append(bytes.data(), int(count));
            total += qint64(count);
            bytes.remove_prefix(count);
            if (listBytes.size() == int(what.listSize) && takeLayout() && !enter())
                break;
            continue;
        }
        if (part >= parts.size() || file < 0) {
            bad = true;
            break;
        }
        const std::size_t count = std::min(bytes.size(), std::size_t(parts[part].size - partDone));
        if (!writeAll(file, bytes.substr(0, count)))
            return trouble("файл");
        partDone += qint64(count);
        total += qint64(count);
        bytes.remove_prefix(count);
        // The disk begins now, so that the wait in the end is short however long the file.
        if (partDone - flushed >= flushEveryBytes) {
            ::sync_file_range(file, flushed, partDone - flushed, SYNC_FILE_RANGE_WRITE);
            flushed = partDone;
        }
        if (partDone == parts[part].size && !(leave() && enter()))
            break;
    }
    if (bad)
        return QStringLiteral("Недопустимый перечень файлов каталога");
    return bytes.empty() ? QString() : trouble("файл");
}

/// Directories get their times last: what is made in them changes these.
bool CIncomingMessage::settleDirectories()
{
    for (auto now = parts.rbegin(); now != parts.rend(); ++now) {
        if (!now->isDirectory)
            continue;
        QByteArray name;
        int parent = openParent(now->path, &name);
        int made = parent < 0
                       ? -1
                       : ::openat(parent, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const bool isDone = made >= 0 && ::fchmod(made, directoryMode()) == 0;
        if (isDone)
            setModified(made, now->modifiedNs);
        closeDescriptor(&made);
        closeDescriptor(&parent);
        if (!isDone)
            return false;
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
    int about =
        ::openat(directory, name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (about < 0 || !writeAll(about, {description.constData(), std::size_t(description.size())}) ||
        ::fchmod(about, fileMode(false)) != 0) {
        const QString text = trouble("файл");
        closeDescriptor(&about);
        return text;
    }
    unsynced.push_back(about);
    return settleDirectories() && ::fchmod(directory, directoryMode()) == 0 ? QString() : trouble("каталог");
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
    return QStringLiteral("Не удалось записать %1: %2").arg(QString::fromUtf8(thing), systemReason());
}

// CInboxSession --------------------------------------------------------------------------------------

CInboxSession::CInboxSession(CInbox &inbox, const QByteArray &senderKey, std::function<void()> onSuperseded)
    : box(inbox), sender(senderKey), superseded(std::move(onSuperseded))
{}

CInboxSession::~CInboxSession()
{
    const std::lock_guard lock(box.mutex); // nobody supersedes it any more
    for (auto owner = box.owners.begin(); owner != box.owners.end();)
        owner = owner->second.session == this ? box.owners.erase(owner) : std::next(owner);
}

CInboxSession::Begun CInboxSession::begin(const OfferFrame &offer)
{
    CSha256 sha;
    sha.add({sender.constData(), std::size_t(sender.size())});
    sha.add({offer.identity.constData(), std::size_t(offer.identity.size())});
    const QByteArray key = sha.take().left(FrameLimits::identitySize);

    Begun begun;
    const auto answer = [&begun](AnswerFrame::Verdict verdict, const QString &reason) {
        begun.verdict = verdict;
        begun.reason = reason;
    };
    const std::lock_guard lock(box.mutex);
    const QByteArray keyName = key.toHex();
    if (isSuperseded) {
        answer(AnswerFrame::Later, QStringLiteral("Есть более новое соединение"));
        return begun;
    }
    begun.digest = box.index.digestOf(key);
    if (!begun.digest.isEmpty()) {
        QString directory;
        const QString error = box.moveIntoInput(keyName, &directory); // a renaming that has failed before
        answer(error.isNull() ? AnswerFrame::Stored : AnswerFrame::Later, error);
        return begun;
    }
    const auto owner = box.owners.find(keyName);
    if (owner != box.owners.end()) {
        // The same sender over another connection: that one is older, and most likely dead.
        const CInbox::Owned other = owner->second;
        if (other.session != this) {
            other.session->isSuperseded = true;
            other.session->superseded();
        }
        const std::lock_guard itsLock(other.message->mutex);
        other.message->abandoned = true;
        other.message->closeAll();
        box.owners.erase(owner);
    }
    std::unique_ptr<CIncomingMessage> message(new CIncomingMessage);
    message->inbox = &box;
    message->key = keyName;
    message->what = offer;
    message->incomplete = box.incompleteDescriptor;
    if (!message->open(!offer.isAnew && !offer.isAtOnce)) {
        answer(message->bad ? AnswerFrame::Refused : AnswerFrame::Later, message->trouble("сообщение"));
        return begun;
    }
    box.owners[keyName] = {this, message.get()};
    message->isOwned = true;
    begun.message = std::move(message);
    return begun;
}

std::vector<CInboxSession::Outcome> CInboxSession::commit(const std::vector<CIncomingMessage *> &messages)
{
    std::vector<Outcome> outcomes(messages.size());
    const auto failAll = [&outcomes](const QString &error) {
        for (Outcome &outcome : outcomes)
            outcome.error = error;
        return outcomes;
    };
    if (!syncAll(messages))
        return failAll(QStringLiteral("Не удалось записать сообщение: %1").arg(systemReason()));

    const std::lock_guard lock(box.mutex);
    if (isSuperseded)
        return failAll(QStringLiteral("Есть более новое соединение"));
    std::vector<CStoredIndex::Record> records;
    for (CIncomingMessage *message : messages)
        records.push_back({QByteArray::fromHex(message->key), message->digest()});
    const QString error = box.index.add(records);
    if (!error.isNull())
        return failAll(error);
    for (std::size_t i = 0; i < messages.size(); ++i)
        outcomes[i].error = box.moveIntoInput(messages[i]->key, &outcomes[i].directory);
    if (!syncDirectory(box.input.absolutePath()))
        return failAll(QStringLiteral("Не удалось записать каталог %1").arg(box.input.absolutePath()));
    for (CIncomingMessage *message : messages) {
        const std::lock_guard itsLock(message->mutex);
        message->abandoned = true; // nothing of it is in incomplete/ any more
    }
    return outcomes;
}

/// Brings the bytes and names of messages to the disk, as a group.
bool CInboxSession::syncAll(const std::vector<CIncomingMessage *> &messages) const
{
    std::size_t count = 0;
    bool isMuch = false;
    for (const CIncomingMessage *message : messages) {
        count += message->unsynced.size() + 1;
        isMuch |= message->isMuch;
    }
    if (isMuch || count > mostSingleSyncs)
        return ::syncfs(box.incompleteDescriptor) == 0;
    bool isSynced = true;
    for (CIncomingMessage *message : messages) {
        const std::lock_guard lock(message->mutex);
        for (const int descriptor : message->unsynced)
            isSynced = ::fdatasync(descriptor) == 0 && isSynced;
        isSynced = !message->abandoned && ::fsync(message->directory) == 0 && isSynced;
    }
    return ::fsync(box.incompleteDescriptor) == 0 && isSynced;
}

// CInbox ---------------------------------------------------------------------------------------------

CInbox::CInbox(int level)
    : messages(Global::messagesDir(level)), incomplete(Global::incompleteMessagesDir(level)),
      input(Global::inputMessagesDir(level))
{}

CInbox::~CInbox()
{
    closeDescriptor(&incompleteDescriptor);
}

QString CInbox::prepare()
{
    const std::lock_guard lock(mutex);
    for (const QDir &directory : {incomplete, input}) {
        if (!Global::makePath(directory))
            return QStringLiteral("Не удалось создать каталог %1").arg(directory.absolutePath());
    }
    const QString error = index.open(messages.absoluteFilePath(QStringLiteral("stored.index")));
    if (!error.isNull())
        return error;
    closeDescriptor(&incompleteDescriptor);
    incompleteDescriptor = openDirectory(incomplete.absolutePath());
    if (incompleteDescriptor < 0)
        return QStringLiteral("Не удалось открыть каталог %1: %2")
            .arg(incomplete.absolutePath(), reasonOf(errno, incomplete.absolutePath()));

    const QStringList names = incomplete.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QByteArray key = encoded(name.section(QLatin1Char('.'), 0, 0));
        const bool isStored = !index.digestOf(QByteArray::fromHex(key)).isEmpty();
        // What can be continued stays: its sender will go on with it.
        if (isStored && !name.contains(QLatin1Char('.'))) {
            QString directory;
            const QString failure = moveIntoInput(key, &directory);
            if (!failure.isNull())
                return failure;
        } else if (isStored || !incomplete.exists(QString::fromLatin1(key) + QLatin1String(".offer"))) {
            removeTree(incompleteDescriptor, encoded(name));
        }
    }
    return QString();
}

QString CInbox::roomTrouble(qint64 bytes) const
{
    struct statvfs status
    {};
    if (::fstatvfs(incompleteDescriptor, &status) != 0)
        return QString(); // the writes will tell
    if (bytes <= qint64(status.f_bavail) * qint64(status.f_frsize) - reserveBytes)
        return QString();
    return QStringLiteral("Не хватает места на диске: нужно %1").arg(Global::sizeString(bytes));
}

/// Gives a message that is in the index its final name. Nothing to do when it has it already.
QString CInbox::moveIntoInput(const QByteArray &key, QString *directory)
{
    const QByteArray from = encoded(incomplete.absolutePath()) + '/' + key;
    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        const QString name = nextName(input);
        if (name.isEmpty())
            continue; // many names in a row are taken: the next call looks anew
        *directory = input.absoluteFilePath(name);
        // A finished message is never empty, so no renaming can replace one.
        if (::rename(from.constData(), encoded(*directory).constData()) == 0 ||
            (errno == ENOENT && ::access(from.constData(), F_OK) != 0)) { // moved before
            for (const char *ending : {".offer", ".list"})
                ::unlinkat(incompleteDescriptor, (key + ending).constData(), 0);
            return QString();
        }
        if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR)
            break;
    }
    const QString text =
        QStringLiteral("Не удалось записать каталог %1: %2").arg(*directory, reasonOf(errno, *directory));
    directory->clear();
    return text;
}

void CInbox::release(CIncomingMessage *message)
{
    const std::lock_guard lock(mutex);
    const auto owner = owners.find(message->key);
    if (owner != owners.end() && owner->second.message == message)
        owners.erase(owner);
}

QString CInbox::strangerMark()
{
    return QStringLiteral("Незнакомец: да");
}

qint64 CInbox::strangerBytes(bool anew)
{
    const std::lock_guard lock(mutex);
    if (strangers >= 0 && !anew)
        return strangers;
    strangers = 0;
    const QByteArray mark = strangerMark().toUtf8();
    const QByteArray sizeField = QStringLiteral("Размер: ").toUtf8();
    const QStringList names = input.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        for (const char *file : {"/message.txt", "/_message.txt"}) {
            QFile about(input.absoluteFilePath(name) + QLatin1String(file));
            if (!about.open(QIODevice::ReadOnly))
                continue;
            const QByteArray text = about.read(8192);
            const int at = text.indexOf(sizeField);
            if (text.contains(mark) && at >= 0)
                strangers += text.mid(at + sizeField.size(), 20).split('\n').first().toLongLong();
        }
    }
    return strangers;
}

void CInbox::addStrangerBytes(qint64 bytes)
{
    const std::lock_guard lock(mutex);
    if (strangers >= 0)
        strangers += bytes;
}
