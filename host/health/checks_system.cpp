// Doctor's looks at time, locale, disk, and at what grows.
#include "host/health/checks.h"

#include "common/environment.h"
#include "common/global.h"
#include "common/initext.h"
#include "common/settingsfile.h"
#include "host/conversation/cinbox.h"
#include "host/conversation/coutbox.h"
#include "host/delivery/cmessagejournal.h"
#include "host/delivery/generalsettings.h"
#include "host/logs/logrecords.h"

#include <QStorageInfo>
#include <QTimeZone>

#include <algorithm>
#include <cerrno>

#include <langinfo.h>
#include <sys/quota.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

namespace {

constexpr qint64 megabyte = 1024 * 1024;
constexpr qint64 leastFree = 64 * megabyte;
constexpr qint64 littleFree = 1024 * megabyte;
constexpr int fewInodes = 1000;
constexpr qint64 largeLog = 1024 * megabyte;
constexpr qint64 largeJournal = 1024 * megabyte;
constexpr int shortDays = 30; // until the disk is full
constexpr int futureSeconds = 120;

/// The earliest day on which this program can run: that of its file.
QDate builtOn()
{
    return QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).lastModified().date();
}

QString latestLog(int level)
{
    const QFileInfoList logs =
        Global::logDir(level).entryInfoList({QStringLiteral("*.log")}, QDir::Files, QDir::Time);
    return logs.isEmpty() ? QString() : logs.first().absoluteFilePath();
}

/// A file of ours that was changed in what is still the future.
QString changedInFuture(int level)
{
    const QDateTime latest = QDateTime::currentDateTime().addSecs(futureSeconds);
    const QStringList paths = {latestLog(level), Global::journalsFilePath(level),
                               Global::internalSettingsFilePath(), Global::abonentsSettingsFilePath(),
                               Global::inputMessagesDir(level).absolutePath()};
    const auto isLater = [&latest](const QString &path) { return QFileInfo(path).lastModified() > latest; };
    const auto found = std::find_if(paths.begin(), paths.end(), isLater);
    return found == paths.end() ? QString() : *found;
}

int stepsBackIn(const QString &log)
{
    CLogReader reader(log);
    LogRecord record;
    while (reader.isOpen() && reader.next(&record, true)) {
    }
    return reader.stepsBack();
}

/// The quota of the system for this user. @return bytes left, or -1 when there is none
qint64 quotaLeft(const QByteArray &device)
{
    dqblk quota = {};
    const int command = QCMD(Q_GETQUOTA, USRQUOTA);
    if (::quotactl(command, device.constData(), int(::geteuid()), reinterpret_cast<caddr_t>(&quota)) != 0 ||
        quota.dqb_bhardlimit == 0)
        return -1;
    return qMax<qint64>(0, qint64(quota.dqb_bhardlimit) * 1024 - qint64(quota.dqb_curspace));
}

Finding diskOf(const QString &path)
{
    QDir place(path);
    const QStorageInfo storage = Global::storageOf(place);
    const QString where = QStringLiteral("%1 (%2, %3)")
                              .arg(storage.rootPath(), QString::fromUtf8(storage.fileSystemType()),
                                   QString::fromUtf8(storage.device()));
    if (!storage.isValid())
        return Finding::error("no-disk", QStringLiteral("%1: файловая система не найдена").arg(path),
                              QStringLiteral("Подключите диск"));
    if (storage.isReadOnly())
        return Finding::error(
            "disk-read-only", QStringLiteral("%1 подключен только для чтения").arg(where),
            QStringLiteral("Посмотрите dmesg: после ошибки диска его переключает ядро; mount -o remount,rw"));
    const qint64 quota = quotaLeft(storage.device());
    const qint64 free = quota < 0 ? storage.bytesAvailable() : qMin(quota, storage.bytesAvailable());
    struct statvfs numbers = {};
    const bool areInodesFew = ::statvfs(QFile::encodeName(storage.rootPath()).constData(), &numbers) == 0 &&
                              numbers.f_files > 0 && numbers.f_favail < fewInodes;
    const QString text = QStringLiteral("%1: свободно %2 из %3%4")
                             .arg(where, Global::sizeString(free), Global::sizeString(storage.bytesTotal()),
                                  quota < 0 ? QString() : QStringLiteral(", с учетом квоты пользователя"));
    const QString advice = QStringLiteral("Освободите место: df -h, du -sh %1/*").arg(path);
    if (free < leastFree)
        return Finding::error("disk-full", text, advice);
    if (areInodesFew)
        return Finding::error("no-inodes", text + QStringLiteral(", но почти кончились индексные узлы"),
                              QStringLiteral("df -i"));
    if (free < littleFree)
        return Finding::attention("disk-low", text, advice);
    if (storage.fileSystemType() == "tmpfs")
        return Finding::attention("disk-in-memory",
                                  text + QStringLiteral("; после перезагрузки все пропадет"),
                                  QStringLiteral("Перенесите установку на диск"));
    return Finding::good(text);
}

/// What strangers may fill, and what they have.
Finding strangersRoom(const HealthContext &around)
{
    const qint64 quota = GeneralSettings::load().quotas.diskBytes;
    const qint64 used = CInbox(around.level).strangerBytes(true);
    const qint64 free = Global::storageOf(Global::dataSecrecyDir(around.level)).bytesAvailable();
    const QString text = QStringLiteral("сообщения незнакомых абонентов: %1 из %2")
                             .arg(Global::sizeString(used), Global::sizeString(quota));
    if (used >= quota - quota / 10 && used > 0)
        return Finding::attention(
            "strangers-disk-full", text + QStringLiteral(", место почти кончилось"),
            QStringLiteral("Удалите лишнее из %1, примите своих (abonent contact trust) или поднимите "
                           "Strangers/diskMb")
                .arg(Global::inputMessagesDir(around.level).absolutePath()));
    if (quota - used > free)
        return Finding::attention(
            "quota-above-free", QStringLiteral("%1, а свободно %2").arg(text, Global::sizeString(free)),
            QStringLiteral("abonent settings set Strangers/diskMb=%1").arg(free / 2 / megabyte));
    return Finding::good(text);
}

struct Growth
{
    qint64 bytes = 0;
    int files = 0;
    qint64 lately = 0; // bytes a day, of the last week
};

Growth growthOf(const QDir &logs)
{
    constexpr int days = 7;
    Growth result;
    QDate first = QDate::currentDate();
    qint64 lately = 0;
    const QFileInfoList files = logs.entryInfoList({QStringLiteral("*.log*")}, QDir::Files);
    for (const QFileInfo &file : files) {
        result.bytes += file.size();
        ++result.files;
        const QDate day = CLogReader::dayOfName(file.fileName());
        if (!day.isValid() || file.lastModified().daysTo(QDateTime::currentDateTime()) >= days)
            continue;
        lately += file.size();
        first = qMin(first, day);
    }
    result.lately = lately / (first.daysTo(QDate::currentDate()) + 1);
    return result;
}

/// Whether the settings ask for all records. The settings are not touched for that.
bool isAllLogged()
{
    SettingsFile::Contents contents;
    return SettingsFile::read(Global::internalSettingsFilePath(), &contents) &&
           CIniText(contents.text).items(QStringLiteral("Debug/all")).value(0) == QLatin1String("true");
}

Finding logGrowth(const HealthContext &around)
{
    const QDir logs = Global::logDir(around.level);
    const Growth growth = growthOf(logs);
    const qint64 free = Global::storageOf(logs).bytesAvailable();
    const QString text = QStringLiteral("лог: файлов %1, %2, в сутки около %3")
                             .arg(QString::number(growth.files), Global::sizeString(growth.bytes),
                                  Global::sizeString(growth.lately));
    const QString advice =
        QStringLiteral(
            "Удалите старые файлы из %1; чтобы писалось меньше - abonent settings set Debug/all=false "
            "и другие ключи Debug/*")
            .arg(logs.absolutePath());
    if (growth.bytes > largeLog || growth.lately * shortDays > free)
        return Finding::attention("log-grows", text, advice);
    if (isAllLogged())
        return Finding::attention(
            "log-all", text + QStringLiteral("; включена трассировка (Debug/all)"),
            QStringLiteral("Когда она больше не нужна: abonent settings set Debug/all=false"));
    return Finding::good(text);
}

} // namespace

Findings Checks::clock(const HealthContext &around)
{
    const QDateTime now = QDateTime::currentDateTime();
    Findings findings;
    if (now.date() < builtOn().addDays(-1))
        findings.push_back(
            Finding::error("clock-behind",
                           QStringLiteral("Часы показывают %1: раньше, чем сделана программа (%2)")
                               .arg(now.toString(QStringLiteral("dd.MM.yyyy hh:mm")),
                                    builtOn().toString(QStringLiteral("dd.MM.yyyy"))),
                           QStringLiteral("Установите время: timedatectl set-time, лучше set-ntp true")));
    const QString future = changedInFuture(around.level);
    if (!future.isEmpty())
        findings.push_back(Finding::attention(
            "clock-set-back",
            QStringLiteral("Часы переводились назад: %1 изменен %2, это еще впереди")
                .arg(future,
                     QFileInfo(future).lastModified().toString(QStringLiteral("dd.MM.yyyy hh:mm:ss"))),
            QStringLiteral("Проверьте время: timedatectl")));
    const QString log = latestLog(around.level);
    const int back = log.isEmpty() ? 0 : stepsBackIn(log);
    if (back > 0)
        findings.push_back(Finding::attention(
            "clock-jumps", QStringLiteral("В логе %1 время идет назад, раз: %2").arg(log).arg(back),
            QStringLiteral("Включите службу времени: timedatectl set-ntp true")));
    QByteArray zone = qgetenv("TZ");
    zone = zone.startsWith(':') ? zone.mid(1) : zone;
    // "MSK-3" is a zone that names itself, "/..." a file.
    const bool isZoneBad = zone.indexOf('/') > 0 && !QTimeZone::isTimeZoneIdAvailable(zone);
    if (isZoneBad)
        findings.push_back(Finding::attention(
            "no-such-zone",
            QStringLiteral("TZ=%1: такого часового пояса нет, действует UTC").arg(QString::fromUtf8(zone)),
            QStringLiteral("Уберите TZ или задайте существующий: timedatectl list-timezones")));
    timex state = {};
    const bool isSynchronised = ::adjtimex(&state) >= 0 && (state.status & STA_UNSYNC) == 0;
    if (findings.empty())
        findings.push_back(Finding::good(
            QStringLiteral("%1, пояс %2 (UTC%3), %4")
                .arg(now.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss")), now.timeZone().abbreviation(now),
                     now.toOffsetFromUtc(now.offsetFromUtc()).toString(QStringLiteral("t")).mid(3),
                     isSynchronised ? QStringLiteral("синхронизируется")
                                    : QStringLiteral("служба времени не синхронизирует"))));
    return findings;
}

Findings Checks::locale(const HealthContext &)
{
    const QString advice =
        QStringLiteral("export LANG=ru_RU.UTF-8 (или C.UTF-8); в службе Environment=LANG=C.UTF-8");
    QString wanted;
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        if (wanted.isEmpty() && !qEnvironmentVariableIsEmpty(name))
            wanted = QLatin1String(name) + QLatin1Char('=') + qEnvironmentVariable(name);
    }
    const locale_t chosen = ::newlocale(LC_CTYPE_MASK, "", nullptr);
    if (!chosen)
        return {Finding::attention("no-such-locale",
                                   QStringLiteral("%1: такой локали в системе нет").arg(wanted),
                                   QStringLiteral("dpkg-reconfigure locales, или %1").arg(advice))};
    const QString charset = QString::fromLatin1(::nl_langinfo_l(CODESET, chosen));
    ::freelocale(chosen);
    const QString text = wanted.isEmpty() ? QStringLiteral("LANG не задан, кодировка %1").arg(charset)
                                          : QStringLiteral("%1, кодировка %2").arg(wanted, charset);
    if (charset == QLatin1String("UTF-8"))
        return {Finding::good(text)};
    return {Finding::attention(
        "not-utf-8",
        text + QStringLiteral("; программа пишет в UTF-8, и русские буквы могут показываться неверно"),
        advice)};
}

Findings Checks::disk(const HealthContext &around)
{
    const QString data = Global::dataSecrecyDir(around.level).absolutePath();
    const QString settings = Global::settingsDir().absolutePath();
    Findings findings = {diskOf(data)};
    if (Global::storageOf(QDir(settings)).rootPath() != Global::storageOf(QDir(data)).rootPath())
        findings.push_back(diskOf(settings));
    findings.push_back(strangersRoom(around));
    rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
        findings.push_back(Finding::attention(
            "file-size-limit",
            QStringLiteral("файлы не могут быть больше %1").arg(Global::sizeString(qint64(limit.rlim_cur))),
            QStringLiteral("ulimit -f unlimited; в службе LimitFSIZE=infinity")));
    return findings;
}

Findings Checks::growth(const HealthContext &around)
{
    Findings findings = {logGrowth(around)};
    const QFileInfo journal(Global::journalsFilePath(around.level));
    const QStringList aside =
        journal.dir().entryList({journal.fileName() + QStringLiteral(".damaged-*")}, QDir::Files);
    if (!aside.isEmpty())
        findings.push_back(Finding::attention(
            "journal-put-aside",
            QStringLiteral("отложен поврежденный журнал: %1").arg(aside.join(QStringLiteral(", "))),
            QStringLiteral("Если записи нужны: sqlite3 ФАЙЛ .recover; потом удалите его")));
    if (!journal.exists())
        return findings;
    QString trouble;
    CMessageJournal::entries(journal.filePath(), QDateTime(), QString(), 1, &trouble);
    const qint64 bytes = journal.size() + QFileInfo(journal.filePath() + QStringLiteral("-wal")).size();
    const QString text = QStringLiteral("журнал сообщений: %1").arg(Global::sizeString(bytes));
    if (!trouble.isNull())
        findings.push_back(Finding::error(
            "journal-unusable", trouble,
            QStringLiteral("Проверьте права; поврежденный журнал listen отложит сам и начнет новый")));
    else if (bytes > largeJournal)
        findings.push_back(Finding::attention("journal-grows", text,
                                              QStringLiteral("abonent settings set Journal/keepDays=365")));
    else
        findings.push_back(Finding::good(text));
    return findings;
}

Findings Checks::outbox(const HealthContext &around)
{
    const QStringList numbers = Outbox::numbers(around.level);
    if (numbers.isEmpty())
        return {Finding::good(QStringLiteral("ничего не ждет"))};
    const QString text = QStringLiteral("ждут: %1 (abonent outbox)").arg(numbers.size());
    if (around.resident.pid == 0)
        return {Finding::attention("outbox-waits", text + QStringLiteral(", а listen не запущен"),
                                   QStringLiteral("abonent listen, или abonent outbox retry"))};
    return {Finding::good(text)};
}
