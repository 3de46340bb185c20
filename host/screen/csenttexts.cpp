#include "host/screen/csenttexts.h"

#include "common/global.h"
#include "common/trustedfile.h"
#include "host/screen/textfile.h"
#include "host/text/reasons.h"

#include <QFile>

namespace {

constexpr int mostTexts = 1000;

} // namespace

CSentTexts::CSentTexts(int level)
    : directory(Global::messagesDir(level).absoluteFilePath(QStringLiteral("sent")))
{}

QString CSentTexts::keep(const QString &identity, const QString &text) const
{
    const QString path = directory + QLatin1Char('/') + identity;
    const QByteArray bytes = text.toUtf8();
    bool isKept = Global::makePath(QDir(directory));
    if (isKept) {
        const CDescriptor file = TrustedFile::openNoFollow(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
        isKept = file.isOpen() && Io::writeAll(file, bytes);
    }
    if (!isKept)
        return QStringLiteral("Текст не останется в разговоре, %1: %2").arg(path, reasonOf(errno, path));
    Global::setFilePermissions(path);
    return QString();
}

void CSentTexts::forget(const QString &identity) const
{
    QFile::remove(directory + QLatin1Char('/') + identity);
}

void CSentTexts::look()
{
    const QFileInfoList files = QDir(directory).entryInfoList(QDir::Files, QDir::Time).mid(0, mostTexts);
    for (const QFileInfo &file : files) {
        if (texts.contains(file.fileName()))
            continue;
        ScreenMessage message;
        message.identity = file.fileName();
        message.date = file.lastModified();
        message.text = beginningOfText(file.absoluteFilePath());
        texts.insert(message.identity, message);
    }
}
