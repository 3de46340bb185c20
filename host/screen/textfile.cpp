#include "host/screen/textfile.h"

#include "common/trustedfile.h"

#include <QFile>

namespace {

constexpr int shownBytes = 16 * 1024;

bool isInsideLetter(char byte)
{
    return (uchar(byte) & 0xc0) == 0x80;
}

} // namespace

QString beginningOfText(const QString &path)
{
    const CDescriptor opened = TrustedFile::openNoFollow(path, O_RDONLY);
    QFile file;
    if (!opened.isOpen() || !file.open(opened.get(), QIODevice::ReadOnly))
        return QString();
    const QByteArray bytes = file.read(shownBytes + 1);
    int end = bytes.size();
    if (end > shownBytes) {
        for (end = shownBytes; end > 0 && isInsideLetter(bytes[end]); --end) {
        }
    }
    const QString text = QString::fromUtf8(bytes.constData(), end);
    return bytes.size() > shownBytes ? text + QStringLiteral("...\n[целиком: %1]").arg(path) : text;
}
