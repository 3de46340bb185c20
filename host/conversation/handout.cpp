#include "host/conversation/handout.h"

#include "host/conversation/descriptors.h"
#include "host/text/reasons.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int mostNames = 10000;

/// "name.txt", "name (2).txt", ... as bytes: names are not always UTF-8.
QByteArray candidate(const QByteArray &name, int number)
{
    if (number == 1)
        return name;
    const int dot = name.lastIndexOf('.');
    const QByteArray ending = dot > 0 ? name.mid(dot) : QByteArray();
    const QByteArray mark = " (" + QByteArray::number(number) + ')';
    return name.left(qMin(name.size() - ending.size(), 255 - ending.size() - mark.size())) + mark + ending;
}

/// What cannot be renamed because the folder is on another file system. The copy gets its name when it is
/// whole.
bool copyFile(int from, const QByteArray &name, int to, const QByteArray &target)
{
    const QByteArray draft = "." + target.left(200) + ".part";
    int source = ::openat(from, name.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status
    {};
    ::unlinkat(to, draft.constData(), 0);
    int copy = ::openat(to, draft.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool isDone = source >= 0 && copy >= 0 && ::fstat(source, &status) == 0 && S_ISREG(status.st_mode);
    QByteArray bytes(256 * 1024, Qt::Uninitialized);
    for (qint64 count = 1; isDone && count > 0;) {
        count = readAll(source, bytes.data(), bytes.size());
        isDone = count >= 0 && writeAll(copy, {bytes.constData(), std::size_t(qMax<qint64>(count, 0))});
    }
    const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
    isDone = isDone && ::fchmod(copy, status.st_mode & 0777) == 0 && ::futimens(copy, times) == 0 &&
             ::fsync(copy) == 0 &&
             ::renameat2(to, draft.constData(), to, target.constData(), RENAME_NOREPLACE) == 0;
    if (!isDone)
        ::unlinkat(to, draft.constData(), 0);
    closeDescriptor(&source);
    closeDescriptor(&copy);
    return isDone && ::unlinkat(from, name.constData(), 0) == 0;
}

} // namespace

QString checkHandOut(const QString &place)
{
    if (!QDir().mkpath(place))
        return QStringLiteral("Не удалось создать каталог %1").arg(place);
    return ::access(QFile::encodeName(place).constData(), W_OK | X_OK) == 0
               ? QString()
               : QStringLiteral("В каталог %1 нельзя писать: %2").arg(place, reasonOf(errno, place));
}

QString handOut(const QString &directory, const QString &place)
{
    int from = openDirectory(directory);
    int to = ::open(QFile::encodeName(place).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QString trouble;
    // The description is message.txt, or _message.txt where the contents have that name.
    const QDir message(directory);
    const bool isNamedSo = message.exists(QStringLiteral("_message.txt"));
    const QStringList names =
        message.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::System);
    for (const QString &shown : names) {
        if (shown == (isNamedSo ? QLatin1String("_message.txt") : QLatin1String("message.txt")))
            continue;
        const QByteArray name = QFile::encodeName(shown);
        bool isMoved = false;
        for (int number = 1; number <= mostNames && !isMoved; ++number) {
            const QByteArray target = candidate(name, number);
            isMoved = ::renameat2(from, name.constData(), to, target.constData(), RENAME_NOREPLACE) == 0 ||
                      (errno == EXDEV && copyFile(from, name, to, target));
            if (!isMoved && errno != EEXIST)
                break;
        }
        if (!isMoved)
            trouble = QStringLiteral("Не удалось переместить в %1: %2, осталось в %3")
                          .arg(place, systemReason(), directory);
    }
    closeDescriptor(&from);
    closeDescriptor(&to);
    return trouble;
}
