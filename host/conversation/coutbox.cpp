#include "host/conversation/coutbox.h"

#include "common/filepermissions.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/conversation/descriptors.h"
#include "host/conversation/treelist.h"
#include "host/text/reasons.h"

#include <QDataStream>
#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr quint32 magic = 0x41424f31; // "ABO1"
constexpr qint64 smallBytes = 1024 * 1024;
constexpr qint64 mostTextBytes = 1024 * 1024;
constexpr int mostAttempts = 1000;
constexpr int newFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int readFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

QString shown(const QByteArray &name)
{
    return QFile::decodeName(name);
}

qint64 modifiedNsOf(const struct stat &status)
{
    return qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

quint64 newStamp()
{
    return QRandomGenerator::system()->generate64();
}

QByteArray newIdentity()
{
    QByteArray bytes;
    while (bytes.size() < FrameLimits::identitySize) {
        const quint64 number = newStamp();
        bytes.append(reinterpret_cast<const char *>(&number), int(sizeof(number)));
    }
    return bytes;
}

QDataStream &operator<<(QDataStream &stream, const OutgoingMessage &message)
{
    stream << message.offer.toBytes() << quint32(message.pieces.size());
    for (const OutgoingPiece &piece : message.pieces)
        stream << piece.file << piece.offset << piece.size << piece.modifiedNs;
    return stream;
}

QDataStream &operator>>(QDataStream &stream, OutgoingMessage &message)
{
    QByteArray bytes;
    quint32 count = 0;
    stream >> bytes >> count;
    const auto offer =
        OfferFrame::fromPayload({bytes.constData() + FrameLimits::headerSize,
                                 std::size_t(qMax(0, bytes.size() - FrameLimits::headerSize))});
    if (!offer)
        stream.setStatus(QDataStream::ReadCorruptData);
    else
        message.offer = *offer;
    for (quint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        OutgoingPiece piece;
        stream >> piece.file >> piece.offset >> piece.size >> piece.modifiedNs;
        message.pieces.push_back(piece);
    }
    return stream;
}

} // namespace

QString OutgoingMessage::title() const
{
    return titleOf(offer);
}

// COutboxEntry ---------------------------------------------------------------------------------------

std::shared_ptr<COutboxEntry> COutboxEntry::load(const QDir &output, const QString &number)
{
    auto entry = std::make_shared<COutboxEntry>();
    entry->number = number;
    entry->directory = output.absoluteFilePath(number);
    const QString path = entry->directory + QLatin1String("/message");
    if (!Global::recoverSaved(path).isNull())
        return nullptr;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    QDataStream stream(&file);
    stream.setVersion(QDataStream::Qt_5_15);
    quint32 mark = 0;
    quint32 count = 0;
    qint32 port = 0;
    stream >> mark >> entry->abonent >> entry->address >> port >> entry->created >> count;
    entry->port = port;
    for (quint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        entry->messages.emplace_back();
        stream >> entry->messages.back();
    }
    if (mark != magic || stream.status() != QDataStream::Ok || entry->messages.empty()) {
        debug(QStringLiteral("COutboxEntry"),
              QStringLiteral("Поврежден файл исходящего сообщения %1").arg(path), DebugAlways, DebugFlagNone);
        return nullptr;
    }
    entry->states.assign(entry->messages.size(), Waiting);
    entry->reasons.resize(entry->messages.size());
    entry->readState();
    return entry;
}

QString COutboxEntry::save() const
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_15);
    stream << magic << abonent << address << qint32(port) << created << quint32(messages.size());
    for (const OutgoingMessage &message : messages)
        stream << message;
    return Global::safeSaving(directory + QLatin1String("/message"), bytes);
}

// A line of `state`:   stored INDEX DIGEST | refused INDEX REASON | waiting INDEX | attempt CODE REASON
void COutboxEntry::readState()
{
    QFile file(directory + QLatin1String("/state"));
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QString text = QString::fromUtf8(line);
        const QString word = text.section(QLatin1Char(' '), 0, 0);
        bool isNumber = false;
        const uint index = text.section(QLatin1Char(' '), 1, 1).toUInt(&isNumber);
        if (word == QLatin1String("attempt"))
            lastAttempt = text.section(QLatin1Char(' '), 2);
        if (!isNumber || word == QLatin1String("attempt") || index >= states.size())
            continue;
        states[index] = word == QLatin1String("stored")    ? Stored
                        : word == QLatin1String("refused") ? Refused
                                                           : Waiting;
        reasons[index] = states[index] == Refused ? text.section(QLatin1Char(' '), 2) : QString();
    }
}

void COutboxEntry::note(const QByteArray &line)
{
    const CDescriptor file(::open(encoded(directory + QLatin1String("/state")).constData(),
                                  O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC));
    // Lost, it is asked again, and the receiver knows.
    if (!file.isOpen() || !Io::writeAll(file, line))
        debug(QStringLiteral("COutboxEntry"),
              QStringLiteral("Не удалось записать состояние сообщения %1: %2").arg(number, reasonOf(errno)),
              DebugAlways, DebugFlagNone);
}

void COutboxEntry::settle(std::size_t index, State state, const QString &detail)
{
    states[index] = state;
    reasons[index] = state == Refused ? detail : QString();
    note(QStringLiteral("%1 %2 %3\n")
             .arg(state == Stored ? QStringLiteral("stored") : QStringLiteral("refused"),
                  QString::number(index), QString(detail).replace(QLatin1Char('\n'), QLatin1Char(' ')))
             .toUtf8());
}

void COutboxEntry::noteAttempt(int code, const QString &reason)
{
    note(QStringLiteral("attempt %1 %2\n")
             .arg(QString::number(code), QString(reason).replace(QLatin1Char('\n'), QLatin1Char(' ')))
             .toUtf8());
}

void COutboxEntry::showLive(std::size_t current, qint64 sent)
{
    const CDescriptor file(::open(encoded(directory + QLatin1String("/live")).constData(),
                                  O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    const QByteArray text =
        (QByteArray::number(qint64(current)) + ' ' + QByteArray::number(sent)).leftJustified(47) + '\n';
    if (file.isOpen() && ::pwrite(file.get(), text.constData(), std::size_t(text.size()), 0) < 0)
        errno = 0; // nobody sees it then
}

void COutboxEntry::retryRefused()
{
    for (std::size_t i = 0; i < states.size(); ++i) {
        if (states[i] != Refused)
            continue;
        states[i] = Waiting;
        note("waiting " + QByteArray::number(int(i)) + '\n');
    }
}

bool COutboxEntry::isDone() const
{
    return std::all_of(states.begin(), states.end(), [](State state) { return state == Stored; });
}

bool COutboxEntry::hasWaiting() const
{
    return std::any_of(states.begin(), states.end(), [](State state) { return state == Waiting; });
}

qint64 COutboxEntry::size() const
{
    qint64 sum = 0;
    for (const OutgoingMessage &message : messages)
        sum += message.offer.size;
    return sum;
}

QString COutboxEntry::refresh(std::size_t index)
{
    OutgoingMessage &message = messages[index];
    std::vector<qint64> sizes;
    for (OutgoingPiece &piece : message.pieces) {
        if (piece.modifiedNs < 0) {
            sizes.push_back(piece.size);
            continue;
        }
        const QByteArray copyName = piece.file + '.' + QByteArray::number(newStamp(), 16);
        const CDescriptor from(::open((encoded(directory) + '/' + piece.file).constData(), readFlags));
        const CDescriptor to(::open((encoded(directory) + '/' + copyName).constData(), newFileFlags, 0600));
        const qint64 copied = from.isOpen() && to.isOpen() ? copyRest(from, to) : -1;
        if (copied < 0 || !Io::sync(to))
            return QStringLiteral("Не удалось скопировать измененный файл: %1").arg(reasonOf(errno));
        piece = {copyName, 0, copied, -1};
        sizes.push_back(copied);
    }
    if (message.offer.kind == OfferFrame::Tree) {
        OutgoingPiece &list = message.pieces.front();
        QByteArray text(int(list.size), Qt::Uninitialized);
        QFile file(directory + QLatin1Char('/') + shown(list.file));
        if (!file.open(QIODevice::ReadOnly) || !file.seek(list.offset) ||
            file.read(text.data(), text.size()) != text.size())
            return QStringLiteral("Не удалось прочитать перечень каталога");
        auto entries = treeFromBytes(text, message.offer.size - message.offer.listSize);
        if (!entries)
            return QStringLiteral("Поврежден перечень каталога");
        std::size_t next = 1;
        for (TreeEntry &entry : *entries) {
            if (!entry.isDirectory)
                entry.size = sizes.at(next++);
        }
        const QByteArray fresh = treeToBytes(*entries);
        list = {"list." + QByteArray::number(newStamp(), 16), 0, fresh.size(), -1};
        const QString error = Global::safeSaving(directory + QLatin1Char('/') + shown(list.file), fresh);
        if (!error.isNull())
            return error;
    }
    message.offer.size = 0;
    for (const OutgoingPiece &piece : message.pieces)
        message.offer.size += piece.size;
    message.offer.stamp = newStamp();
    return save();
}

bool COutboxEntry::remove()
{
    // Without `message` it is no entry any more, whatever happens in between.
    const QByteArray place = encoded(directory);
    for (const char *name : {"/message", "/message.old", "/message.new"})
        ::unlink((place + name).constData());
    return removeTree(AT_FDCWD, place);
}

// COutgoingReader ------------------------------------------------------------------------------------

COutgoingReader::COutgoingReader(const QString &ofDirectory, const OutgoingMessage &ofMessage)
    : directory(ofDirectory), pieces(ofMessage.pieces)
{}

COutgoingReader::Result COutgoingReader::fail()
{
    why = reasonOf(errno);
    return Failed;
}

/// Whether the file of the current piece is as it was.
COutgoingReader::Result COutgoingReader::check()
{
    const OutgoingPiece &now = pieces[piece];
    struct stat status
    {};
    if (now.modifiedNs < 0)
        return Good;
    if (::fstat(file.get(), &status) != 0)
        return fail();
    return status.st_size == now.size && modifiedNsOf(status) == now.modifiedNs ? Good : Changed;
}

COutgoingReader::Result COutgoingReader::open()
{
    const OutgoingPiece &now = pieces[piece];
    file.reset(::open((encoded(directory) + '/' + now.file).constData(), readFlags | O_NOFOLLOW));
    if (!file.isOpen() || ::lseek(file.get(), now.offset, SEEK_SET) < 0)
        return fail();
    ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return check();
}

COutgoingReader::Result COutgoingReader::read(char *bytes, int size)
{
    while (size > 0) {
        while (piece < pieces.size() && done == pieces[piece].size) {
            file.reset();
            ++piece;
            done = 0;
        }
        if (piece == pieces.size()) {
            why = QStringLiteral("файл короче, чем записано");
            return Failed;
        }
        Result result = file.isOpen() ? Good : open();
        if (result != Good)
            return result;
        const qint64 wanted = qMin<qint64>(size, pieces[piece].size - done);
        const qint64 count = readUpTo(file, bytes, wanted);
        if (count < 0)
            return fail();
        if (count < wanted)
            return pieces[piece].modifiedNs >= 0 ? Changed : fail();
        done += count;
        bytes += count;
        size -= int(count);
        if (done == pieces[piece].size) {
            result = check();
            if (result != Good)
                return result;
        }
    }
    return Good;
}

// COutboxWriter --------------------------------------------------------------------------------------

COutboxWriter::COutboxWriter(int level) : output(Global::outputMessagesDir(level)) {}

COutboxWriter::~COutboxWriter()
{
    if (!isCommitted && directory.isOpen())
        made.remove();
}

QString COutboxWriter::trouble(const QString &what)
{
    for (const int lack : {ENOSPC, EDQUOT, EROFS, EIO, EMFILE, ENFILE, ENOMEM})
        outOfResources |= errno == lack;
    return QStringLiteral("Не удалось принять к отправке %1: %2").arg(what, reasonOf(errno));
}

QString COutboxWriter::begin(const QString &abonent, const QString &address, int port)
{
    made.abonent = abonent;
    made.address = address;
    made.port = port;
    made.created = QDateTime::currentDateTime();
    if (!Global::makePath(output))
        return QStringLiteral("Не удалось создать каталог %1").arg(output.absolutePath());
    for (int attempt = 0; attempt < mostAttempts && !directory.isOpen(); ++attempt) {
        const QString name = Global::nextMessageDirName(output);
        if (name.isEmpty())
            continue; // many names in a row are taken: the next call looks anew
        const QString path = output.absoluteFilePath(name);
        if (::mkdir(encoded(path).constData(), 0700) != 0) {
            if (errno == EEXIST)
                continue;
            break;
        }
        directory = openDirectory(path);
        if (directory.isOpen() && ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0)
            directory.reset(); // a sweep was quicker and removes it
        made.number = name;
        made.directory = path;
    }
    if (!directory.isOpen())
        return trouble(QStringLiteral("сообщение"));
    Global::setDirectoryPermissions(directory.get(), made.directory);
    packFile = newFile("pack");
    return packFile.isOpen() && newFile("state").isOpen() ? QString() : trouble(QStringLiteral("сообщение"));
}

/// A new file of the entry, with the rights that it has to have; closed on failure: errno
CDescriptor COutboxWriter::newFile(const QByteArray &name) const
{
    CDescriptor file(::openat(directory.get(), name.constData(), newFileFlags, 0600));
    if (file.isOpen())
        Global::setFilePermissions(file.get(), made.directory + QLatin1Char('/') + shown(name));
    return file;
}

OutgoingMessage COutboxWriter::start(OfferFrame::Kind kind, const QByteArray &name) const
{
    OutgoingMessage message;
    message.offer.kind = kind;
    message.offer.identity = newIdentity();
    message.offer.stamp = newStamp();
    message.offer.name = name;
    message.offer.modifiedNs = QDateTime::currentMSecsSinceEpoch() * 1000000;
    return message;
}

QString COutboxWriter::pack(std::string_view bytes, OutgoingMessage *message)
{
    if (!Io::writeAll(packFile.get(), bytes))
        return trouble(message->title());
    message->pieces.push_back({"pack", packed, qint64(bytes.size()), -1});
    packed += qint64(bytes.size());
    message->offer.size += qint64(bytes.size());
    return QString();
}

QString COutboxWriter::addText(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty())
        return QStringLiteral("Пустой текст");
    if (bytes.size() > mostTextBytes)
        return QStringLiteral("Текст длиннее 1 МБайт: передайте его файлом");
    OutgoingMessage message = start(OfferFrame::Text, QByteArray());
    const QString error = pack({bytes.constData(), std::size_t(bytes.size())}, &message);
    if (error.isNull())
        made.messages.push_back(message);
    return error;
}

/// Copies what is left of a file into one of the entry. @param size set to what it was
QString COutboxWriter::copy(const CDescriptor &from, qint64 *size, const QByteArray &name)
{
    const CDescriptor to = newFile(name);
    *size = to.isOpen() ? copyRest(from, to) : -1;
    return *size >= 0 && Io::sync(to) ? QString() : trouble(shown(name));
}

/// Takes the contents of an open regular file.
QString COutboxWriter::takeFile(const CDescriptor &file, qint64 size, qint64 modifiedNs,
                                OutgoingMessage *message)
{
    if (size <= smallBytes) {
        // One byte more shows whether it has grown meanwhile.
        QByteArray bytes(int(size) + 1, Qt::Uninitialized);
        const qint64 count = readUpTo(file, bytes.data(), bytes.size());
        if (count < 0)
            return trouble(message->title());
        if (count <= size)
            return pack({bytes.constData(), std::size_t(count)}, message);
        if (::lseek(file.get(), 0, SEEK_SET) != 0)
            return trouble(message->title());
    }
    const QByteArray name = QByteArray::number(++files);
    OutgoingPiece piece{name, 0, size, -1};
    const CDescriptor clone = newFile(name);
    struct stat status
    {};
    if (clone.isOpen() && ::ioctl(clone.get(), FICLONE, file.get()) == 0 &&
        ::fstat(clone.get(), &status) == 0) {
        piece.size = status.st_size;
        if (!Io::sync(clone))
            return trouble(message->title());
    } else {
        ::unlinkat(directory.get(), name.constData(), 0);
        // A link has the rights of the file: it will do if whoever delivers can read it, that is we, or all.
        struct stat place
        {};
        const bool isReadable = ::fstat(file.get(), &status) == 0 && ::fstat(directory.get(), &place) == 0 &&
                                ((status.st_mode & S_IROTH) || place.st_uid == status.st_uid);
        const QByteArray self = "/proc/self/fd/" + QByteArray::number(file.get());
        if (isReadable &&
            ::linkat(AT_FDCWD, self.constData(), directory.get(), name.constData(), AT_SYMLINK_FOLLOW) == 0) {
            piece.modifiedNs = modifiedNs;
        } else {
            const QString error = copy(file, &piece.size, name);
            if (!error.isNull())
                return error;
        }
    }
    message->pieces.push_back(piece);
    message->offer.size += piece.size;
    return QString();
}

QString COutboxWriter::addPath(const QByteArray &path)
{
    const CDescriptor file(::open(path.constData(), readFlags));
    struct stat status
    {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
        return errno == ENOENT ? QStringLiteral("Файл %1 не существует").arg(shown(path))
                               : QStringLiteral("Файл %1 нельзя прочитать: %2")
                                     .arg(shown(path), reasonOf(errno, shown(path)));
    }
    // "dir/" and "." have a name as well.
    QByteArray name = path;
    while (name.size() > 1 && name.endsWith('/'))
        name.chop(1);
    name = name.mid(name.lastIndexOf('/') + 1);
    if (S_ISDIR(status.st_mode) && !isFileName(name))
        name = QFile::encodeName(QDir(shown(path)).canonicalPath().section(QLatin1Char('/'), -1));
    QString error;
    if (!isFileName(name)) {
        error = QStringLiteral("У %1 нет имени, под которым его можно передать").arg(shown(path));
    } else if (S_ISDIR(status.st_mode)) {
        error = addTree(file, name, modifiedNsOf(status));
    } else if (!S_ISREG(status.st_mode)) {
        error = QStringLiteral("%1 - не файл и не каталог").arg(shown(path));
    } else {
        OutgoingMessage message = start(OfferFrame::File, name);
        message.offer.isExecutable = status.st_mode & S_IXUSR;
        message.offer.modifiedNs = modifiedNsOf(status);
        error = takeFile(file, status.st_size, message.offer.modifiedNs, &message);
        if (error.isNull())
            made.messages.push_back(message);
    }
    return error;
}

QString COutboxWriter::addStream(const CDescriptor &stream, const QByteArray &name)
{
    OutgoingMessage message = start(OfferFrame::File, name);
    OutgoingPiece piece{QByteArray::number(++files), 0, 0, -1};
    const QString error = copy(stream, &piece.size, piece.file);
    if (!error.isNull())
        return error;
    message.offer.size = piece.size;
    message.pieces.push_back(piece);
    made.messages.push_back(message);
    return QString();
}

/// Walks a directory in the order of names, a directory before what is in it. Nothing is followed.
QString COutboxWriter::addTree(const CDescriptor &root, const QByteArray &name, qint64 modifiedNs)
{
    std::vector<TreeEntry> entries;
    OutgoingMessage contents = start(OfferFrame::Tree, name);
    qint64 listBytes = 0;
    const std::function<QString(const CDescriptor &, const QByteArray &)> walk =
        [&](const CDescriptor &place, const QByteArray &above) {
            auto names = namesIn(place);
            if (!names)
                return trouble(shown(above));
            std::sort(names->begin(), names->end());
            for (const QByteArray &child : *names) {
                const QByteArray path = above.isEmpty() ? child : above + '/' + child;
                const CDescriptor file(::openat(place.get(), child.constData(), readFlags | O_NOFOLLOW));
                struct stat status
                {};
                if (!file.isOpen() && (errno == ELOOP || errno == ENXIO || errno == ENODEV)) {
                    passedOver << shown(path);
                    continue;
                }
                if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
                    return trouble(shown(path));
                QString error;
                TreeEntry entry;
                entry.path = path;
                entry.modifiedNs = modifiedNsOf(status);
                listBytes += path.size() + 32;
                if (listBytes > TreeLimits::listBytes || path.size() > TreeLimits::pathBytes ||
                    path.count('/') + 1 >= TreeLimits::depth) {
                    error = QStringLiteral("Каталог %1 слишком велик или глубок").arg(shown(name));
                } else if (S_ISDIR(status.st_mode)) {
                    entry.isDirectory = true;
                    entries.push_back(entry);
                    error = walk(file, path);
                } else if (S_ISREG(status.st_mode)) {
                    const qint64 before = contents.offer.size;
                    entry.isExecutable = status.st_mode & S_IXUSR;
                    error = takeFile(file, status.st_size, entry.modifiedNs, &contents);
                    entry.size = contents.offer.size - before;
                    entries.push_back(entry);
                } else {
                    passedOver << shown(path);
                }
                if (!error.isNull())
                    return error;
            }
            return QString();
        };
    QString error = walk(root, QByteArray());
    if (!error.isNull())
        return error;
    const QByteArray list = treeToBytes(entries);
    OutgoingMessage message = start(OfferFrame::Tree, name);
    message.offer.modifiedNs = modifiedNs;
    message.offer.listSize = quint32(list.size());
    error = pack({list.constData(), std::size_t(list.size())}, &message);
    message.offer.size += contents.offer.size;
    message.pieces.insert(message.pieces.end(), contents.pieces.begin(), contents.pieces.end());
    if (error.isNull())
        made.messages.push_back(message);
    return error;
}

QString COutboxWriter::commit()
{
    made.states.assign(made.messages.size(), COutboxEntry::Waiting);
    made.reasons.resize(made.messages.size());
    if (packed > 0 && !Io::sync(packFile))
        return trouble(QStringLiteral("сообщение"));
    const QString error = made.save(); // syncs the directory as well
    if (!error.isNull())
        return error;
    if (!Io::syncDirectory(encoded(output.absolutePath())))
        return trouble(QStringLiteral("сообщение"));
    isCommitted = true;
    packFile.reset();
    directory.reset();
    return QString();
}

// Outbox ---------------------------------------------------------------------------------------------

QDir Outbox::directory(int level)
{
    return Global::outputMessagesDir(level);
}

QStringList Outbox::numbers(int level)
{
    return directory(level).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs | QDir::NoDotAndDotDot,
                                      QDir::Name);
}

void Outbox::sweep(int level)
{
    const QDir output = directory(level);
    const QStringList all = numbers(level);
    for (const QString &number : all) {
        const QString path = output.absoluteFilePath(number);
        if (QFile::exists(path + QLatin1String("/message")) ||
            QFile::exists(path + QLatin1String("/message.old")))
            continue;
        const CDescriptor place = openDirectory(path);
        if (place.isOpen() && ::flock(place.get(), LOCK_EX | LOCK_NB) == 0)
            removeTree(AT_FDCWD, encoded(path));
    }
}
