#include "host/text/reasons.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

/// Several rows may have one number: Qt and the system say the same in different words.
struct Reason
{
    int error; // 0: not the system's
    const char *english;
    const char *russian;
};

constexpr Reason reasons[] = {
    // The network.
    {ECONNREFUSED, "Connection refused",
     "в соединении отказано, по этому адресу и порту никто не принимает вызовы"},
    {0, "Host not found", "узел с таким именем не найден"},
    {0, "Unknown error",
     "за отведенное время ответа нет (Details/transportIpConnectTimeout): узел выключен или закрыт "
     "сетевым экраном"},
    {ETIMEDOUT, "Connection timed out", "узел не отвечает: выключен или закрыт сетевым экраном"},
    {0, "Socket operation timed out", "узел не отвечает: выключен или закрыт сетевым экраном"},
    {0, "Network operation timed out", "узел не принял данные за отведенное время"},
    {EHOSTUNREACH, "No route to host", "до узла нет пути: он выключен, или сетевой экран отвергает вызов"},
    {0, "Host unreachable", "до узла нет пути: он выключен, или сетевой экран отвергает вызов"},
    {ENETUNREACH, "Network is unreachable", "до сети абонента нет пути: проверьте адрес и маршруты"},
    {0, "Network unreachable", "до сети абонента нет пути: проверьте адрес и маршруты"},
    {ENETDOWN, "Network is down", "сеть выключена"},
    {ECONNRESET, "Connection reset by peer", "собеседник сбросил соединение"},
    {0, "The remote host closed the connection", "собеседник закрыл соединение"},
    {EPIPE, "Broken pipe", "собеседник закрыл соединение"},
    {EADDRINUSE, "Address already in use", "порт занят другой программой"},
    {0, "The bound address is already in use", "порт занят другой программой"},
    {EADDRNOTAVAIL, "Cannot assign requested address", "у этого узла нет такого адреса"},
    {0, "The address is not available", "у этого узла нет такого адреса"},
    {0, "The address is protected", "нет прав на этот порт: порты ниже 1024 открывает только root"},
    {0, "Temporary failure in name resolution", "служба имен не отвечает"},
    {EAFNOSUPPORT, "Address family not supported by protocol", "такие адреса здесь не поддерживаются"},
    // The disk and the process.
    {EACCES, "Permission denied", "нет прав"},
    {EPERM, "Operation not permitted", "действие запрещено системой"},
    {ENOENT, "No such file or directory", "такого файла или каталога нет"},
    {ENOTDIR, "Not a directory", "на пути стоит не каталог"},
    {EISDIR, "Is a directory", "это каталог, а нужен файл"},
    {0, "file to open is a directory", "это каталог, а нужен файл"},
    {EEXIST, "File exists", "такое имя уже есть"},
    {ENOTEMPTY, "Directory not empty", "каталог не пуст"},
    {ELOOP, "Too many levels of symbolic links", "ссылка ведет по кругу, или ссылки здесь не принимаются"},
    {ENAMETOOLONG, "File name too long", "имя слишком длинное"},
    {ENOSPC, "No space left on device", "на диске нет места"},
    {EDQUOT, "Disk quota exceeded", "исчерпана квота на диске"},
    {EFBIG, "File too large", "файл больше, чем допускает файловая система или предел процесса"},
    {EROFS, "Read-only file system", "файловая система открыта только для чтения"},
    {EIO, "Input/output error", "ошибка ввода-вывода: проверьте диск"},
    {ENODEV, "No such device", "такого устройства нет"},
    {EXDEV, "Invalid cross-device link", "это другая файловая система"},
    {EBUSY, "Device or resource busy", "занято другой программой"},
    {ETXTBSY, "Text file busy", "файл исполняется"},
    {EMFILE, "Too many open files",
     "у программы открыто слишком много файлов (предел LimitNOFILE, ulimit -n)"},
    {ENFILE, "Too many open files in system", "в системе открыто слишком много файлов"},
    {ENOMEM, "Cannot allocate memory", "не хватает памяти"},
    {EAGAIN, "Resource temporarily unavailable", "системе сейчас не хватает ресурсов"},
    {EINVAL, "Invalid argument", "система не принимает такое значение"},
    {ESTALE, "Stale file handle", "сетевой диск потерял файл"},
};

QString nameOfUser(uid_t user)
{
    std::vector<char> room(16 * 1024);
    passwd entry{};
    passwd *found = nullptr;
    getpwuid_r(user, &entry, room.data(), room.size(), &found);
    return found ? QString::fromLocal8Bit(found->pw_name) : QString::number(user);
}

QString nameOfGroup(gid_t group)
{
    std::vector<char> room(16 * 1024);
    ::group entry{};
    ::group *found = nullptr;
    getgrgid_r(group, &entry, room.data(), room.size(), &found);
    return found ? QString::fromLocal8Bit(found->gr_name) : QString::number(group);
}

bool mayAct(const QString &path, int how)
{
    return ::faccessat(AT_FDCWD, QFile::encodeName(path).constData(), how, AT_EACCESS) == 0;
}

/// The first thing on the way to @a path that does not let us on: a closed directory, the thing itself, or
/// the directory in which it was to be made.
QString obstacle(const QString &path)
{
    const QString whole = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    for (int at = whole.indexOf(QLatin1Char('/'), 1); at > 0; at = whole.indexOf(QLatin1Char('/'), at + 1)) {
        if (!mayAct(whole.left(at), X_OK))
            return whole.left(at);
    }
    return QFileInfo::exists(whole) ? whole : QFileInfo(whole).absolutePath();
}

} // namespace

QString reasonOf(int error)
{
    for (const Reason &reason : reasons) {
        if (reason.error == error && error != 0)
            return QString::fromUtf8(reason.russian);
    }
    return qt_error_string(error);
}

QString reasonOf(int error, const QString &path)
{
    if (error != EACCES && error != EPERM)
        return reasonOf(error);
    const QString owner = ownerText(obstacle(path));
    return owner.isNull() ? reasonOf(error)
                          : QStringLiteral("У пользователя %1 нет прав: %2").arg(actingUser(), owner);
}

QString explanationOf(const QString &text)
{
    const QString end = text.endsWith(QLatin1Char('.')) ? text.chopped(1) : text;
    for (const Reason &reason : reasons) {
        if (end.endsWith(QLatin1String(reason.english), Qt::CaseInsensitive))
            return QString::fromUtf8(reason.russian);
    }
    return QString();
}

QString explained(const QString &text)
{
    const QString explanation = explanationOf(text);
    return explanation.isNull() ? text : QStringLiteral("%1 (%2)").arg(text, explanation);
}

QString ownerText(const QString &path)
{
    struct stat status
    {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return QString();
    QString rights;
    for (int bit = 8; bit >= 0; --bit)
        rights += (status.st_mode >> bit) & 1 ? QLatin1Char("xwr"[bit % 3]) : QLatin1Char('-');
    return QStringLiteral("%1 %2 принадлежит %3:%4, права %5")
        .arg(S_ISDIR(status.st_mode) ? QStringLiteral("каталог") : QStringLiteral("файл"), path,
             nameOfUser(status.st_uid), nameOfGroup(status.st_gid), rights);
}

QString actingUser()
{
    return nameOfUser(::geteuid());
}
