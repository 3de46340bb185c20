#include "host/service/cmetricsfile.h"

#include "common/buildconstants.h"
#include "common/global.h"
#include "host/conversation/coutbox.h"
#include "host/service/owndescriptors.h"

#include <QDirIterator>
#include <QFile>
#include <QSaveFile>

#include <algorithm>
#include <condition_variable>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <thread>

namespace {

constexpr int intervalMs = 15000; // as often as most collectors look

struct Row
{
    const char *name;
    const char *type;
    const char *help;
    qint64 Metrics::*value;
};

// Names by the conventions of Prometheus: a counter ends in _total, the unit stands before that.
constexpr Row rows[] = {
    {"abonent_running", "gauge", "1: работает; 0: завершился в порядке", &Metrics::running},
    {"abonent_start_time_seconds", "gauge", "Когда запущен, секунд с 1970 года", &Metrics::startTime},
    {"abonent_listening", "gauge", "1: вызовы принимаются", &Metrics::listening},
    {"abonent_connections", "gauge", "Соединения и вызовы сейчас", &Metrics::connections},
    {"abonent_connections_total", "counter", "Соединения и вызовы, входящие и исходящие",
     &Metrics::connectionsTotal},
    {"abonent_conversations_total", "counter", "Соединения, в которых абонент назвался и узнан",
     &Metrics::conversationsTotal},
    {"abonent_calls_total", "counter", "Исходящие вызовы", &Metrics::callsTotal},
    {"abonent_failed_calls_total", "counter", "Исходящие вызовы, которые не удались",
     &Metrics::failedCallsTotal},
    {"abonent_received_bytes_total", "counter", "Принято по каналам, байт", &Metrics::receivedBytes},
    {"abonent_sent_bytes_total", "counter", "Передано по каналам, байт", &Metrics::sentBytes},
    {"abonent_messages_received_total", "counter", "Принятые сообщения", &Metrics::messagesReceived},
    {"abonent_messages_sent_total", "counter", "Доставленные сообщения", &Metrics::messagesSent},
    {"abonent_message_received_bytes_total", "counter", "Размер принятых сообщений, байт",
     &Metrics::messageBytesReceived},
    {"abonent_message_sent_bytes_total", "counter", "Размер доставленных сообщений, байт",
     &Metrics::messageBytesSent},
    {"abonent_refusals_total", "counter", "Отказы: сообщения и абоненты", &Metrics::refusals},
    {"abonent_broken_off_total", "counter", "Прерванные приемы", &Metrics::brokenOff},
    {"abonent_key_changes_total", "counter", "Абоненты с чужим ключом", &Metrics::keyChanges},
    {"abonent_outbox_entries", "gauge", "Недоставленные записи исходящих", &Metrics::outboxEntries},
    {"abonent_outbox_bytes", "gauge", "Место, занятое исходящими, байт", &Metrics::outboxBytes},
    {"abonent_outbox_oldest_age_seconds", "gauge",
     "Сколько ждет старейшая запись исходящих; 0: ничего не ждет", &Metrics::outboxOldestSeconds},
    {"abonent_log_size_bytes", "gauge", "Размер логов уровня, байт", &Metrics::logBytes},
    {"abonent_journal_size_bytes", "gauge", "Размер журнала сообщений, байт", &Metrics::journalBytes},
    {"abonent_open_descriptors", "gauge", "Открытые дескрипторы", &Metrics::openDescriptors},
    {"abonent_max_descriptors", "gauge", "Предел дескрипторов", &Metrics::mostDescriptors},
};

QByteArray labelValue(const QString &text)
{
    return text.toUtf8().replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

qint64 sizeOfFiles(const QDir &directory, const QStringList &patterns)
{
    qint64 size = 0;
    QDirIterator files(directory.path(), patterns, QDir::Files | QDir::Hidden);
    while (files.hasNext()) {
        files.next();
        size += files.fileInfo().size();
    }
    return size;
}

/// When a directory was made, or, where the file system does not know, changed. @return seconds since 1970
qint64 madeAt(const QString &directory)
{
    struct statx status = {};
    if (::statx(AT_FDCWD, QFile::encodeName(directory).constData(), AT_SYMLINK_NOFOLLOW,
                STATX_BTIME | STATX_MTIME, &status) != 0)
        return ::time(nullptr); // gone by now
    return (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime.tv_sec : status.stx_mtime.tv_sec;
}

} // namespace

void Metrics::lookAround(int level)
{
    // Only by names and sizes: the entries themselves are the business of those who send them.
    const QStringList numbers = Outbox::numbers(level);
    const qint64 now = ::time(nullptr);
    for (const QString &number : numbers) {
        const QDir entry(Outbox::directory(level).filePath(number));
        if (!entry.exists(QStringLiteral("message")))
            continue; // not accepted yet
        ++outboxEntries;
        outboxBytes += sizeOfFiles(entry, {});
        outboxOldestSeconds = std::max(outboxOldestSeconds, now - madeAt(entry.path()));
    }
    const QDir journal = QFileInfo(Global::journalsFilePath(level)).dir();
    journalBytes =
        sizeOfFiles(journal, {QFileInfo(Global::journalsFilePath(level)).fileName() + QLatin1Char('*')});
    logBytes = sizeOfFiles(Global::logDir(level), {});
    const OwnDescriptors own = OwnDescriptors::look();
    openDescriptors = own.open;
    mostDescriptors = own.limit;
    listening = own.isListening;
}

QByteArray Metrics::text(const std::vector<std::pair<QByteArray, QString>> &labels) const
{
    QByteArray shown;
    for (const auto &[name, value] : labels)
        shown += (shown.isEmpty() ? QByteArray() : QByteArray(",")) + name + "=\"" + labelValue(value) + '"';
    QByteArray result = "# HELP abonent_info Версия программы\n# TYPE abonent_info gauge\nabonent_info{" +
                        shown + ",version=\"" + BuildConstants::version + "\"} 1\n";
    for (const Row &row : rows) {
        const QByteArray name = row.name;
        result += "# HELP " + name + ' ' + row.help + "\n# TYPE " + name + ' ' + row.type + '\n';
        result += name + '{' + shown + "} " + QByteArray::number(this->*row.value) + '\n';
    }
    return result;
}

/// The thread that writes.
class CMetricsFile::Writer
{
public:
    Writer(const QString &toPath, int ofLevel, const QString &ownName,
           std::function<void(const QString &)> reportTo)
        : path(toPath), level(ofLevel),
          report(std::move(reportTo)), labels{{"abonent", ownName},
                                              {"installation", Global::installDir().absolutePath()},
                                              {"level", QString::number(ofLevel)}}
    {
        try {
            thread = std::thread([this] { run(); });
        } catch (const std::system_error &error) {
            report(QStringLiteral("Показатели не записываются. %1").arg(QString::fromUtf8(error.what())));
        }
    }

    ~Writer()
    {
        {
            const std::lock_guard lock(mutex);
            isEnding = true;
        }
        wanted.notify_one();
        if (thread.joinable())
            thread.join();
    }

    /// The figures to be written next; of several only the last ones are.
    void put(const Metrics &metrics)
    {
        {
            const std::lock_guard lock(mutex);
            next = metrics;
        }
        wanted.notify_one();
    }

private:
    void run()
    {
        std::unique_lock lock(mutex);
        while (next || !isEnding) {
            wanted.wait(lock, [this] { return next || isEnding; });
            std::optional<Metrics> metrics;
            std::swap(metrics, next);
            lock.unlock();
            if (metrics)
                write(*metrics);
            lock.lock();
        }
    }

    void write(Metrics metrics)
    {
        metrics.lookAround(level);
        if (metrics.running == 0)
            metrics.listening = 0;
        QSaveFile file(path);
        const QByteArray text = metrics.text(labels);
        const bool isWritten =
            file.open(QIODevice::WriteOnly) && file.write(text) == text.size() &&
            file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther) &&
            file.commit();
        if (!isWritten && !isReported)
            report(QStringLiteral("Не удалось записать показатели в %1. %2").arg(path, file.errorString()));
        isReported = !isWritten;
    }

    const QString path;
    const int level;
    const std::function<void(const QString &)> report;
    const std::vector<std::pair<QByteArray, QString>> labels;
    bool isReported = false; // the thread's own
    std::mutex mutex;        // guards the following
    std::condition_variable wanted;
    std::optional<Metrics> next;
    bool isEnding = false;
    std::thread thread;
};

CMetricsFile::CMetricsFile(const QString &path, int level, const QString &ownName,
                           std::function<Metrics()> giveLive, std::function<void(const QString &)> report)
    : live(std::move(giveLive)), writer(std::make_unique<Writer>(path, level, ownName, std::move(report)))
{
    QObject::connect(&timer, &QTimer::timeout, &timer, [this] { writer->put(live()); });
    timer.start(intervalMs);
    writer->put(live());
}

CMetricsFile::~CMetricsFile()
{
    Metrics last = live();
    last.running = 0;
    writer->put(last);
}
