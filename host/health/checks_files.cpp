// Doctor's looks at levels, directories and rights, and at the key and the contacts.
#include "host/health/checks.h"

#include "common/environment.h"
#include "common/global.h"
#include "common/settingsfile.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/contacttext.h"
#include "host/delivery/fingerprintwords.h"
#include "host/delivery/generalsettings.h"
#include "host/text/reasons.h"

#include <QFileInfo>
#include <QStorageInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString ownUser()
{
    const passwd *entry = ::getpwuid(::geteuid());
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(::geteuid());
}

mode_t modeOfFile(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode : 0;
}

/// "root:adm 0755"
QString rightsOf(const QString &path)
{
    const QFileInfo info(path);
    return QStringLiteral("%1:%2 %3")
        .arg(info.owner(), info.group(),
             QString::number(modeOfFile(path) & 07777, 8).rightJustified(4, QLatin1Char('0')));
}

bool mayWrite(const QString &path)
{
    const int wanted = QFileInfo(path).isDir() ? W_OK | X_OK : W_OK;
    return ::faccessat(AT_FDCWD, QFile::encodeName(path).constData(), wanted, AT_EACCESS) == 0;
}

/// The nearest directory above that keeps other users out; null: there is none.
QString closedAbove(const QString &path)
{
    for (QFileInfo info(QFileInfo(path).canonicalFilePath()); !info.isRoot();) {
        info.setFile(info.absolutePath());
        if (!(modeOfFile(info.absoluteFilePath()) & S_IXOTH))
            return info.absoluteFilePath();
    }
    return QString();
}

/// How this user gets to write in directories, as the first of them shows it.
QString howToWrite(const QStringList &paths)
{
    const QFileInfo first(paths.first());
    if (Global::storageOf(first.absoluteFilePath()).isReadOnly())
        return QStringLiteral("Диск подключен только для чтения: mount -o remount,rw %1")
            .arg(Global::storageOf(first.absoluteFilePath()).rootPath());
    if (modeOfFile(paths.first()) & S_IWGRP)
        return QStringLiteral(
                   "Добавьте пользователя %1 в группу %2: usermod -aG %2 %1; он должен войти в систему "
                   "заново")
            .arg(ownUser(), first.group());
    return QStringLiteral("Запускайте программу от пользователя %1 или отдайте каталоги: chown -R %2 %3")
        .arg(first.owner(), ownUser(), paths.join(QLatin1Char(' ')));
}

struct Place
{
    QString path;
    bool isNeeded; // without writing there the program is of no use
};

std::vector<Place> placesOf(int level)
{
    return {{Global::settingsDir().absolutePath(), false},
            {Global::dataSecrecyDir(level).absolutePath(), true},
            {Global::logDir(level).absolutePath(), true},
            {Global::messagesDir(level).absolutePath(), true},
            {Global::inputMessagesDir(level).absolutePath(), true},
            {Global::incompleteMessagesDir(level).absolutePath(), true},
            {Global::outputMessagesDir(level).absolutePath(), true},
            {Global::tasksToTransportDir(level).absolutePath(), true}};
}

/// Who lacks the right to write, in one line however many directories it is.
Finding notWritable(const std::vector<Place> &places)
{
    QStringList shown;
    QStringList paths;
    bool isNeeded = false;
    for (const Place &place : places) {
        shown << QStringLiteral("%1 - %2").arg(place.path, rightsOf(place.path));
        paths << place.path;
        isNeeded |= place.isNeeded;
    }
    const QString where = shown.join(QStringLiteral("; "));
    const QString advice = howToWrite(paths);
    return isNeeded
               ? Finding::error("directory-not-writable",
                                QStringLiteral("пользователь %1 не может писать: %2").arg(ownUser(), where),
                                advice)
               : Finding::attention("settings-not-writable",
                                    QStringLiteral("пользователь %1 не может менять настройки и контакты: %2")
                                        .arg(ownUser(), where),
                                    advice);
}

} // namespace

Findings Checks::level(const HealthContext &around)
{
    QStringList passed;
    for (int below = 0; below < (around.isLevelFound ? around.level : 4); ++below) {
        const QString path = Global::dataSecrecyDir(below).absolutePath();
        passed << (QFileInfo::exists(path) ? QStringLiteral("%1 - %2").arg(path, rightsOf(path))
                                           : QStringLiteral("%1 - нет, и создать нельзя").arg(path));
    }
    if (!around.isLevelFound)
        return {Finding::error(
            "no-level",
            QStringLiteral("Пользователь %1 не может писать в каталог данных ни одного уровня: %2")
                .arg(ownUser(), passed.join(QStringLiteral("; "))),
            howToWrite({QFileInfo::exists(Global::dataDir().absolutePath())
                            ? Global::dataDir().absolutePath()
                            : Global::installDir().absolutePath()}))};
    QString text =
        QStringLiteral("%1: это первый уровень, в каталог данных которого можно писать (%2)")
            .arg(QString::number(around.level), Global::dataSecrecyDir(around.level).absolutePath());
    if (!passed.isEmpty())
        text += QStringLiteral("; закрыты: %1").arg(passed.join(QStringLiteral("; ")));
    return {Finding::good(text)};
}

Findings Checks::directories(const HealthContext &around)
{
    Findings findings;
    QStringList missing;
    std::vector<Place> closed;
    if (!around.isLevelFound)
        return findings; // the check of the level says what is missing
    for (const Place &place : placesOf(around.level)) {
        if (!QFileInfo::exists(place.path))
            missing << place.path;
        else if (!QFileInfo(place.path).isDir())
            findings.push_back(
                Finding::error("not-a-directory", QStringLiteral("%1 - не каталог").arg(place.path),
                               QStringLiteral("Переименуйте или удалите то, что стоит на его месте")));
        else if (mayWrite(place.path) || (!place.isNeeded && around.level > 0)) // level 0 changes settings
            findings.push_back(
                Finding::good(QStringLiteral("%1 - %2").arg(place.path, rightsOf(place.path))));
        else
            closed.push_back(place);
    }
    if (!closed.empty())
        findings.push_back(notWritable(closed));
    if (!missing.isEmpty())
        findings.push_back(Finding::good(
            QStringLiteral("появятся, когда понадобятся: %1").arg(missing.join(QStringLiteral(", ")))));
    return findings;
}

/// What other users of the machine can change or read, also what no directory above closes.
Findings Checks::openness(const HealthContext &around)
{
    const QString program = QFile::symLinkTarget(QStringLiteral("/proc/self/exe"));
    const QStringList code = {Global::applicationDir().absolutePath(),
                              Global::channelPluginsDir().absolutePath(), program};
    const QString settings = Global::settingsDir().absolutePath();
    QStringList data = {settings,
                        Global::channelIpSettingsFilePath(),
                        Global::internalSettingsFilePath(),
                        Global::generalSettingsFilePath(),
                        Global::abonentsSettingsFilePath(),
                        Global::journalsFilePath(around.level)};
    for (const Place &place : placesOf(around.level))
        data << place.path;
    data.sort(); // a directory comes before what is in it
    data.removeDuplicates();

    QStringList openCode;
    QStringList openData;
    QString closed;
    const auto collect = [&closed](const QStringList &paths, mode_t bits, QStringList *open) {
        for (const QString &path : paths) {
            const auto holds = [&path](const QString &above) {
                return path.startsWith(above + QLatin1Char('/'));
            };
            if ((modeOfFile(path) & bits) == 0 || std::any_of(open->begin(), open->end(), holds))
                continue;
            const QString lid = closedAbove(path);
            if (lid.isNull())
                *open << path;
            else
                closed = lid;
        }
    };
    collect(code, S_IWOTH, &openCode);
    collect(data, S_IWOTH | S_IROTH, &openData);

    Findings findings;
    if (!openCode.isEmpty())
        findings.push_back(
            Finding::error("program-open",
                           QStringLiteral("Любой пользователь может подменить программу: %1")
                               .arg(openCode.join(QStringLiteral(", "))),
                           QStringLiteral("chmod o-w %1").arg(openCode.join(QLatin1Char(' ')))));
    if (!openData.isEmpty())
        findings.push_back(Finding::attention(
            "open-to-all",
            QStringLiteral("Любой пользователь машины может читать или менять: %1")
                .arg(openData.join(QStringLiteral(", "))),
            QStringLiteral(
                "chmod o-rwx %1 %2; для нового - abonent settings set Permissions/dirPermissions=0x7770 "
                "Permissions/filePermissions=0x6660")
                .arg(settings, Global::dataDir().absolutePath())));
    if (findings.empty())
        findings.push_back(Finding::good(
            closed.isNull()
                ? QStringLiteral("ничего")
                : QStringLiteral("ничего: каталог %1 закрыт (%2)").arg(closed, rightsOf(closed))));
    return findings;
}

Findings Checks::identity(const HealthContext &)
{
    const QString path = CIdentity::filePath();
    if (!QFileInfo::exists(path)) {
        if (!QFileInfo::exists(Global::settingsDir().absolutePath()) ||
            mayWrite(Global::settingsDir().absolutePath()))
            return {Finding::good(QStringLiteral("его еще нет: создаст первый запуск"))};
        return {Finding::error(
            "key-missing",
            QStringLiteral("Ключа %1 нет, а создать его пользователь %2 не может").arg(path, ownUser()),
            howToWrite({Global::settingsDir().absolutePath()}))};
    }
    CIdentity identity;
    const QString trouble = identity.prepare(path);
    if (!trouble.isNull())
        return {Finding::error("key-unusable", trouble, QStringLiteral("Верните файл из резервной копии"))};
    if ((modeOfFile(path) & (S_IROTH | S_IWOTH)) != 0 && closedAbove(path).isNull()) {
        // Where the settings are root's and open to all, the program itself shares the key with all.
        const QString directory = Global::settingsDir().absolutePath();
        const bool isShared = (modeOfFile(directory) & S_IWOTH) != 0 && QFileInfo(directory).ownerId() == 0 &&
                              (modeOfFile(path) & S_IWOTH) == 0;
        const QString text = QStringLiteral("%1 открыт всем (%2): этим абонентом может назваться любой "
                                            "пользователь машины")
                                 .arg(path, rightsOf(path));
        const QString advice =
            QStringLiteral("chmod o-rwx %1. Если ключ уже могли скопировать - переименуйте его: "
                           "будет сделан новый, и каждый собеседник должен подтвердить его, "
                           "abonent contact trust")
                .arg(path);
        return {isShared ? Finding::attention("key-shared", text, advice)
                         : Finding::error("key-open", text, advice)};
    }
    return {Finding::good(shownFingerprint(identity.fingerprint()))};
}

Findings Checks::contacts(const HealthContext &)
{
    const QString path = Global::abonentsSettingsFilePath();
    Findings findings;
    SettingsFile::Contents contents;
    if (!SettingsFile::read(path, &contents))
        return {Finding::error(
            "contacts-unreadable",
            QStringLiteral("Контакты %1 (%2) не читаются. %3")
                .arg(path, rightsOf(path), reasonOf(errno, path)),
            QStringLiteral("Откройте файл пользователю %1: chown или chmod g+rw").arg(ownUser()))};
    const ParsedContacts parsed = contactsFromText(contents.text);
    if (parsed.isNewer)
        findings.push_back(Finding::error(
            "contacts-newer", QStringLiteral("Контакты %1 записаны более новой программой").arg(path),
            QStringLiteral("Установите ту же версию программы")));
    else if (!parsed.damage.isNull())
        findings.push_back(Finding::error(
            "contacts-damaged", QStringLiteral("Контакты %1 повреждены: %2").arg(path, parsed.damage),
            QStringLiteral(
                "Верните файл из копии. Иначе следующая команда отложит его как %1.damaged-ДАТА и оставит "
                "уцелевшие контакты: %2")
                .arg(path)
                .arg(parsed.contacts.size())));
    int keyed = 0;
    int strangers = 0;
    for (const CContact &contact : parsed.contacts) {
        keyed += !contact.key.isEmpty();
        strangers += !contact.isInvited;
    }
    const int most = GeneralSettings::load().quotas.contacts;
    if (strangers > 0 && strangers >= most)
        findings.push_back(Finding::attention(
            "strangers-full",
            QStringLiteral("Незнакомых абонентов %1, больше не принимается (Strangers/contacts)")
                .arg(strangers),
            QStringLiteral(
                "Удалите лишних (abonent contact remove) или примите своих (abonent contact trust)")));
    if (findings.empty())
        findings.push_back(
            Finding::good(QStringLiteral("всего %1, с ключом %2, незнакомых %3 (не более %4)")
                              .arg(QString::number(parsed.contacts.size()), QString::number(keyed),
                                   QString::number(strangers), QString::number(most))));
    const QFileInfo file(path);
    const QStringList aside =
        file.dir().entryList({file.fileName() + QStringLiteral(".damaged-*")}, QDir::Files);
    if (!aside.isEmpty())
        findings.push_back(Finding::attention(
            "contacts-put-aside",
            QStringLiteral("Отложены поврежденные контакты: %1").arg(aside.join(QStringLiteral(", "))),
            QStringLiteral("Сравните с abonent contact list, недостающее добавьте, файл удалите")));
    return findings;
}
