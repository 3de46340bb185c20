#include "host/screen/cseenmarks.h"

#include "common/global.h"
#include "common/trustedfile.h"
#include "host/text/reasons.h"

#include <QFile>

CSeenMarks::CSeenMarks(int level)
    : path(Global::messagesDir(level).absoluteFilePath(QStringLiteral("seen.list")))
{}

void CSeenMarks::look()
{
    QFile file(path);
    if (file.size() <= readBytes || !file.open(QIODevice::ReadOnly) || !file.seek(readBytes))
        return;
    for (QByteArray line = file.readLine(); line.endsWith('\n'); line = file.readLine()) {
        readBytes += line.size();
        seen.insert(QString::fromLatin1(line.trimmed()));
    }
}

QString CSeenMarks::add(const QStringList &identities)
{
    QByteArray lines;
    for (const QString &identity : identities) {
        seen.insert(identity);
        lines += identity.toLatin1() + '\n';
    }
    const CDescriptor file = TrustedFile::openNoFollow(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (!file.isOpen() || !Io::writeAll(file, lines))
        return QStringLiteral("Не удалось записать, что прочитано, %1: %2").arg(path, reasonOf(errno, path));
    Global::setFilePermissions(path);
    return QString();
}
