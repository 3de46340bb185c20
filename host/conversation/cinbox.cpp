#include "host/conversation/cinbox.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/conversation/descriptors.h"
#include "host/conversation/handout.h"
#include "host/text/reasons.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr qint64 reserveBytes = 16 * 1024 * 1024; // left free on the disk
constexpr int mostAttempts = 100;
constexpr std::size_t mostSingleSyncs = 12; // with more, syncing the file system as a whole is quicker

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

bool syncDirectory(const QDir &directory)
{
    return Io::syncDirectory(encoded(directory.absolutePath()));
}

} // namespace

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
        const QString error = box.place(keyName, &directory); // a renaming that has failed before
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
        other.message->abandon();
        box.owners.erase(owner);
    }
    std::unique_ptr<CIncomingMessage> message(new CIncomingMessage);
    message->inbox = &box;
    message->key = keyName;
    message->what = offer;
    message->incomplete = box.incompleteDescriptor.get();
    message->writers = writers;
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
        return failAll(QStringLiteral("Не удалось записать сообщение: %1").arg(reasonOf(errno)));

    {
        const std::lock_guard lock(box.mutex);
        if (isSuperseded)
            return failAll(QStringLiteral("Есть более новое соединение"));
        std::vector<CStoredIndex::Record> records;
        records.reserve(messages.size());
        for (CIncomingMessage *message : messages)
            records.push_back({QByteArray::fromHex(message->key), message->digest()});
        const QString error = box.index.add(records);
        if (!error.isNull())
            return failAll(error);
        for (std::size_t i = 0; i < messages.size(); ++i)
            outcomes[i].error = box.place(messages[i]->key, &outcomes[i].directory);
        const QDir &target = box.folder.isNull() ? box.input : box.leaving;
        if (!syncDirectory(target))
            return failAll(QStringLiteral("Не удалось записать каталог %1").arg(target.absolutePath()));
        for (CIncomingMessage *message : messages)
            message->abandon(); // nothing of it is in incomplete/ any more
    }
    for (Outcome &outcome : outcomes) {
        if (outcome.error.isNull() && !box.folder.isNull())
            outcome.trouble = box.handOut(&outcome.directory);
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
        return ::syncfs(box.incompleteDescriptor.get()) == 0;
    for (CIncomingMessage *message : messages) {
        const std::lock_guard lock(message->mutex);
        if (!message->sync())
            return false;
    }
    return Io::sync(box.incompleteDescriptor);
}

// CInbox ---------------------------------------------------------------------------------------------

CInbox::CInbox(int level)
    : messages(Global::messagesDir(level)), incomplete(Global::incompleteMessagesDir(level)),
      leaving(messages.absoluteFilePath(QStringLiteral("handout"))), input(Global::inputMessagesDir(level))
{}

QString CInbox::handOutTo(const QString &where)
{
    folder = QDir(where).absolutePath();
    return checkHandOut(folder);
}

QString CInbox::prepare()
{
    const std::lock_guard lock(mutex);
    for (const QDir &directory : {incomplete, input, folder.isNull() ? input : leaving}) {
        if (!Global::makePath(directory))
            return QStringLiteral("Не удалось создать каталог %1").arg(directory.absolutePath());
    }
    const QString error = index.open(messages.absoluteFilePath(QStringLiteral("stored.index")));
    if (!error.isNull())
        return error;
    incompleteDescriptor = openDirectory(incomplete.absolutePath());
    if (!incompleteDescriptor.isOpen())
        return QStringLiteral("Не удалось открыть каталог %1: %2")
            .arg(incomplete.absolutePath(), reasonOf(errno, incomplete.absolutePath()));

    // What can be continued stays: its sender will go on with it.
    QStringList names = incomplete.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    sortAsStored(&names);
    for (const QString &name : qAsConst(names)) {
        const QByteArray key = encoded(name.section(QLatin1Char('.'), 0, 0));
        const bool isStored = !index.digestOf(QByteArray::fromHex(key)).isEmpty();
        if (isStored && !name.contains(QLatin1Char('.'))) {
            QString directory;
            const QString failure = place(key, &directory);
            if (!failure.isNull())
                return failure;
        } else if (isStored || !incomplete.exists(QString::fromLatin1(key) + QLatin1String(".offer"))) {
            removeTree(incompleteDescriptor.get(), encoded(name));
        }
    }
    QStringList left = leaving.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    sortAsStored(&left);
    for (const QString &name : qAsConst(left)) {
        QString directory = leaving.absoluteFilePath(name);
        const QString trouble =
            folder.isNull() ? moveIntoInput(leaving, encoded(name), &directory) : handOut(&directory);
        if (!trouble.isNull())
            debug(QStringLiteral("CInbox"), trouble, DebugAlways, DebugFlagNone);
    }
    return QString();
}

/// What a crash has kept from its place gets there in the order in which it was stored.
void CInbox::sortAsStored(QStringList *names) const
{
    const auto orderOf = [this](const QString &name) {
        return index.orderOf(QByteArray::fromHex(name.section(QLatin1Char('.'), 0, 0).toLatin1()));
    };
    std::sort(names->begin(), names->end(),
              [&](const QString &one, const QString &other) { return orderOf(one) < orderOf(other); });
}

QString CInbox::roomTrouble(qint64 bytes) const
{
    struct statvfs status
    {};
    if (::fstatvfs(incompleteDescriptor.get(), &status) != 0)
        return QString(); // the writes will tell
    if (bytes <= qint64(status.f_bavail) * qint64(status.f_frsize) - reserveBytes)
        return QString();
    return QStringLiteral("Не хватает места на диске: нужно %1").arg(Global::sizeString(bytes));
}

/// Gives a message that is in the index its next name. Nothing to do when it has it already.
QString CInbox::place(const QByteArray &key, QString *directory)
{
    QString error;
    if (folder.isNull()) {
        error = moveIntoInput(incomplete, key, directory);
    } else {
        const QByteArray from = encoded(incomplete.absolutePath()) + '/' + key;
        *directory = leaving.absoluteFilePath(QString::fromLatin1(key));
        if (::rename(from.constData(), encoded(*directory).constData()) != 0 && errno != ENOENT)
            error = QStringLiteral("Не удалось записать каталог %1: %2")
                        .arg(*directory, reasonOf(errno, *directory));
    }
    for (const char *ending : {".offer", ".list"}) {
        if (error.isNull())
            ::unlinkat(incompleteDescriptor.get(), (key + ending).constData(), 0);
    }
    return error;
}

QString CInbox::moveIntoInput(const QDir &place, const QByteArray &key, QString *directory)
{
    const QByteArray from = encoded(place.absolutePath()) + '/' + key;
    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        const QString name = nextName(input);
        if (name.isEmpty())
            continue; // many names in a row are taken: the next call looks anew
        *directory = input.absoluteFilePath(name);
        // A finished message is never empty, so no renaming can replace one.
        if (::rename(from.constData(), encoded(*directory).constData()) == 0 ||
            (errno == ENOENT && ::access(from.constData(), F_OK) != 0)) // moved before
            return QString();
        if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR)
            break;
    }
    const QString text =
        QStringLiteral("Не удалось записать каталог %1: %2").arg(*directory, reasonOf(errno, *directory));
    directory->clear();
    return text;
}

/// Puts the contents of a stored message into the user's folder, and the rest of it into the inbox.
/// @param directory the message's; set to where people find it. @return null, or what did not succeed
QString CInbox::handOut(QString *directory)
{
    const QString trouble = ::handOut(*directory, folder);
    const QByteArray key = encoded(QFileInfo(*directory).fileName());
    const QString error = moveIntoInput(leaving, key, directory);
    if (!error.isNull())
        return error;
    if (!trouble.isNull())
        return QStringLiteral("%1, осталось в %2").arg(trouble, *directory);
    *directory = folder;
    return QString();
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
