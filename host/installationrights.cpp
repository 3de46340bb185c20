#include "host/installationrights.h"

#include "common/global.h"
#include "host/text/reasons.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int levels = 4;

bool mayAct(const QString &path, int how)
{
    return ::faccessat(AT_FDCWD, QFile::encodeName(path).constData(), how, AT_EACCESS) == 0;
}

/// The thing itself, or the directory above in which it would be made.
QString existingPart(const QString &path)
{
    QString part = path;
    while (!QFileInfo::exists(part) && part.size() > 1)
        part = QFileInfo(part).absolutePath();
    return part;
}

/// @return what keeps us from writing in a directory, or null
QString closedDirectory(const QString &path)
{
    const QString part = existingPart(path);
    return mayAct(part, W_OK | X_OK) ? QString() : part;
}

/// How the owner lets others in: by a group that may write.
QString advice(const QString &path)
{
    struct stat status
    {};
    const bool isKnown = ::stat(QFile::encodeName(path).constData(), &status) == 0;
    const group *members = isKnown && (status.st_mode & S_IWGRP) != 0 ? ::getgrgid(status.st_gid) : nullptr;
    return members ? QStringLiteral("Добавьте его в группу: usermod -aG %1 %2, и войдите в систему снова")
                         .arg(QString::fromLocal8Bit(members->gr_name), actingUser())
                   : QStringLiteral(
                         "Запустите программу от имени владельца или дайте права на запись (chown, chmod)");
}

} // namespace

QString missingRights()
{
    QString lowest; // what is closed at level 0
    int level = 0;
    while (level < levels) {
        const QString closed = closedDirectory(Global::dataSecrecyDir(level).absolutePath());
        if (closed.isNull())
            break;
        lowest = lowest.isNull() ? closed : lowest;
        ++level;
    }
    QStringList lacking;
    const auto note = [&lacking](const QString &path) {
        const QString text = path.isNull() ? QString() : ownerText(path);
        if (!text.isNull() && !lacking.contains(text))
            lacking << text;
    };
    QString first = lowest;
    if (level == levels) {
        note(lowest);
    } else {
        first.clear();
        for (const QDir &directory :
             {Global::logDir(level), Global::messagesDir(level), Global::tasksDir(level)}) {
            const QString closed = closedDirectory(directory.absolutePath());
            first = first.isNull() ? closed : first;
            note(closed);
        }
    }
    const QString settings = Global::settingsDir().absolutePath();
    if (QFileInfo::exists(settings) && !mayAct(settings, R_OK | X_OK)) {
        first = first.isNull() ? settings : first;
        note(settings);
    }
    return lacking.isEmpty() ? QString()
                             : QStringLiteral("Пользователь %1 не может работать с этой установкой: %2. %3")
                                   .arg(actingUser(), lacking.join(QStringLiteral("; ")), advice(first));
}
