#include "host/conversation/handout.h"

#include "host/conversation/descriptors.h"
#include "host/text/reasons.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
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

/// Gives what is under @a entry the first free name like @a wanted in the folder @a to.
/// @return false on failure: errno
bool moveUnder(const CDescriptor &from, const QByteArray &entry, const CDescriptor &to,
               const QByteArray &wanted)
{
    for (int number = 1; number <= mostNames; ++number) {
        const QByteArray target = candidate(wanted, number);
        if (::renameat2(from.get(), entry.constData(), to.get(), target.constData(), RENAME_NOREPLACE) == 0)
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

bool copyFile(const CDescriptor &from, const QByteArray &name, const CDescriptor &to, const QByteArray &draft)
{
    const CDescriptor source(::openat(from.get(), name.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status
    {};
    if (!source.isOpen() || ::fstat(source.get(), &status) != 0)
        return false;
    if (!S_ISREG(status.st_mode)) {
        errno = EXDEV; // a tree
        return false;
    }
    ::unlinkat(to.get(), draft.constData(), 0);
    const CDescriptor copy(
        ::openat(to.get(), draft.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
    return copy.isOpen() && copyRest(source, copy) >= 0 && ::fchmod(copy.get(), status.st_mode & 0777) == 0 &&
           ::futimens(copy.get(), times) == 0 && Io::sync(copy) && Io::sync(to);
}

/// What cannot be renamed because the folder is on another file system:
///
///   draft copied --> mark made --> draft gets its name --> original goes --> mark goes
///
/// A mark without a draft says that the copy has its name.
bool copyOver(const CDescriptor &from, const QByteArray &name, const CDescriptor &to, const QByteArray &draft,
              const QByteArray &mark)
{
    const QByteArray marks = mark.left(mark.lastIndexOf('/'));
    const bool isThere = ::access(mark.constData(), F_OK) == 0 &&
                         ::faccessat(to.get(), draft.constData(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    if (!isThere) {
        ::unlink(mark.constData()); // of a copy that is begun anew
        const auto makeMark = [&] {
            return CDescriptor(::open(mark.constData(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600))
                       .isOpen() &&
                   Io::syncDirectory(marks);
        };
        if (!Io::syncDirectory(marks) || !copyFile(from, name, to, draft) || !makeMark() ||
            !moveUnder(to, draft, to, name)) {
            const int reason = errno;
            ::unlinkat(to.get(), draft.constData(), 0);
            errno = reason;
            return false;
        }
    }
    return Io::sync(to) && ::unlinkat(from.get(), name.constData(), 0) == 0;
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
    const CDescriptor from = openDirectory(directory);
    const CDescriptor to(
        ::open(QFile::encodeName(place).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); // it may be a link
    const QByteArray draft = '.' + QFile::encodeName(QFileInfo(directory).fileName()) + ".part";
    const QByteArray mark = QFile::encodeName(directory) + ".copied";
    QString trouble;
    const auto found = namesIn(from);
    const std::vector<QByteArray> names = found.value_or(std::vector<QByteArray>());
    // The description is message.txt, or _message.txt where the contents have that name.
    const bool isNamedSo = std::find(names.begin(), names.end(), "_message.txt") != names.end();
    if (!found || !to.isOpen())
        trouble = QStringLiteral("Не удалось открыть %1: %2").arg(place, reasonOf(errno, place));
    for (const QByteArray &name : names) {
        if (name == (isNamedSo ? "_message.txt" : "message.txt") || !trouble.isNull())
            continue;
        if (!moveUnder(from, name, to, name) && (errno != EXDEV || !copyOver(from, name, to, draft, mark)))
            trouble = QStringLiteral("Не удалось переместить в %1: %2").arg(place, reasonOf(errno, place));
    }
    ::unlink(mark.constData());
    return trouble;
}
