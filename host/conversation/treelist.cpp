#include "host/conversation/treelist.h"

#include <QList>
#include <QtEndian>

namespace {

constexpr int fixedSize = 19;

enum Kind : quint8
{
    File = 1,
    ExecutableFile = 2,
    Directory = 3,
};

bool isPath(const QByteArray &path)
{
    if (path.size() > TreeLimits::pathBytes)
        return false;
    const QList<QByteArray> parts = path.split('/');
    for (const QByteArray &part : parts) {
        if (!isFileName(part))
            return false;
    }
    return parts.size() <= TreeLimits::depth;
}

} // namespace

bool isFileName(const QByteArray &name)
{
    return !name.isEmpty() && name.size() <= 255 && !name.contains('/') && !name.contains('\0') &&
           name != "." && name != "..";
}

QByteArray treeToBytes(const std::vector<TreeEntry> &entries)
{
    QByteArray bytes;
    for (const TreeEntry &entry : entries) {
        char fixed[fixedSize];
        fixed[0] = char(entry.isDirectory ? Directory : entry.isExecutable ? ExecutableFile : File);
        qToBigEndian(entry.modifiedNs, fixed + 1);
        qToBigEndian(entry.size, fixed + 9);
        qToBigEndian(quint16(entry.path.size()), fixed + 17);
        bytes.append(fixed, fixedSize);
        bytes.append(entry.path);
    }
    return bytes;
}

std::optional<std::vector<TreeEntry>> treeFromBytes(const QByteArray &bytes, qint64 contents)
{
    std::vector<TreeEntry> entries;
    for (int at = 0; at < bytes.size();) {
        if (bytes.size() - at < fixedSize)
            return std::nullopt;
        const char *fixed = bytes.constData() + at;
        const int pathSize = qFromBigEndian<quint16>(fixed + 17);
        if (bytes.size() - at - fixedSize < pathSize)
            return std::nullopt;
        TreeEntry entry;
        entry.isDirectory = fixed[0] == Directory;
        entry.isExecutable = fixed[0] == ExecutableFile;
        entry.modifiedNs = qFromBigEndian<qint64>(fixed + 1);
        entry.size = qFromBigEndian<qint64>(fixed + 9);
        entry.path = bytes.mid(at + fixedSize, pathSize);
        if (fixed[0] < File || fixed[0] > Directory || !isPath(entry.path) || entry.size < 0 ||
            entry.size > (entry.isDirectory ? 0 : contents))
            return std::nullopt;
        contents -= entry.size;
        entries.push_back(entry);
        at += fixedSize + pathSize;
    }
    if (contents != 0)
        return std::nullopt;
    return entries;
}
