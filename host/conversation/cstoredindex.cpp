#include "host/conversation/cstoredindex.h"

#include "common/filepermissions.h"
#include "common/global.h"
#include "common/logger.h"
#include "common/trustedfile.h"
#include "host/conversation/csha256.h"
#include "host/text/reasons.h"

#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int keySize = 16;
constexpr int digestSize = 32;
constexpr int checkedSize = keySize + digestSize + 8;
constexpr int recordSize = checkedSize + 8;
constexpr int mostRecords = 1000000;

QByteArray checkOf(const char *record)
{
    CSha256 sha;
    sha.add({record, std::size_t(checkedSize)});
    return sha.take().left(recordSize - checkedSize);
}

QByteArray toBytes(const CStoredIndex::Record &record)
{
    const qint64 now = qToBigEndian(qint64(std::time(nullptr)));
    const QByteArray bytes =
        record.key + record.digest + QByteArray(reinterpret_cast<const char *>(&now), sizeof now);
    return bytes + checkOf(bytes.constData());
}

} // namespace

QString CStoredIndex::open(const QString &fileName)
{
    path = fileName;
    const QString recovered = Global::recoverSaved(path);
    if (!recovered.isNull())
        return recovered;
    QFile reader(path);
    QByteArray bytes;
    if (reader.open(QIODevice::ReadOnly))
        bytes = reader.readAll();
    if (bytes.size() > mostRecords * recordSize) {
        bytes = bytes.right(mostRecords / 2 * recordSize);
        const QString error = Global::safeSaving(path, bytes);
        if (!error.isNull())
            return error;
    }
    for (int at = 0; at + recordSize <= bytes.size(); at += recordSize) {
        const char *record = bytes.constData() + at;
        if (bytes.mid(at + checkedSize, recordSize - checkedSize) == checkOf(record))
            note(bytes.mid(at, keySize), bytes.mid(at + keySize, digestSize));
    }
    file = TrustedFile::openNoFollow(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
    // What a crash has cut off would shift all that follows.
    if (!file.isOpen() || ::ftruncate(file.get(), bytes.size() / recordSize * recordSize) != 0)
        return trouble("открыть");
    Global::setFilePermissions(file.get(), path);
    return Io::sync(file) && Io::syncDirectory(QFile::encodeName(QFileInfo(path).path()))
               ? QString()
               : trouble("записать");
}

QString CStoredIndex::add(const std::vector<Record> &records)
{
    QByteArray bytes;
    for (const Record &record : records)
        bytes += toBytes(record);
    const off_t before = ::lseek(file.get(), 0, SEEK_END);
    if (!Io::writeAll(file, bytes) || ::fdatasync(file.get()) != 0) {
        const QString text = trouble("записать");
        if (::ftruncate(file.get(), before) != 0)
            debug(QStringLiteral("CStoredIndex"), trouble("укоротить"), DebugAlways, DebugFlagNone);
        return text;
    }
    for (const Record &record : records)
        note(record.key, record.digest);
    return QString();
}

void CStoredIndex::note(const QByteArray &key, const QByteArray &digest)
{
    stored.insert(key, {digest, stored.size()});
}

QString CStoredIndex::trouble(const char *doing) const
{
    return QStringLiteral("Не удалось %1 список принятых сообщений %2: %3")
        .arg(QString::fromUtf8(doing), path, reasonOf(errno, path));
}
