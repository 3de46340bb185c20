#include "host/screen/textfile.h"

#include "common/trustedfile.h"
#include "host/conversation/descriptors.h"

namespace {

constexpr int shownBytes = 16 * 1024;

bool isInsideLetter(char byte)
{
    return (uchar(byte) & 0xc0) == 0x80;
}

} // namespace

QString beginningOfText(const QString &path)
{
    QByteArray bytes(shownBytes + 1, Qt::Uninitialized);
    const CDescriptor file = TrustedFile::openNoFollow(path, O_RDONLY);
    const qint64 count = file.isOpen() ? readAll(file.get(), bytes.data(), bytes.size()) : -1;
    if (count < 0)
        return QString();
    int end = int(count);
    if (count > shownBytes) {
        for (end = shownBytes; end > 0 && isInsideLetter(bytes[end]); --end) {
        }
    }
    const QString text = QString::fromUtf8(bytes.constData(), end);
    return count > shownBytes ? text + QStringLiteral("...\n[целиком: %1]").arg(path) : text;
}
