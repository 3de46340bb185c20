#include "host/cprogram.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/commands/newslines.h"
#include "host/console/jsonlines.h"
#include "host/delivery/fingerprintwords.h"
#include "host/service/owndescriptors.h"
#include "transportIp/ipsettings.h"

#include <QDateTime>
#include <QFile>

#include <atomic>
#include <sys/resource.h>

namespace {

constexpr int residentLingerMs = 5000;

// Where Qt's messages go. Set while a program lives.
std::atomic<CConsole *> gConsole{nullptr};
std::atomic<bool> gIsVerbose{false};

/// The runtime tells its own troubles through Qt's message stream, and echoes the log there.
void showQtMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Q_UNUSED(context)
    CConsole *console = gConsole;
    if (console && (type != QtDebugMsg || gIsVerbose))
        console->error(text);
}

quint16 ownPort()
{
    ChannelIpSettings settings;
    QFile file(Global::channelIpSettingsFilePath());
    if (file.open(QIODevice::ReadOnly))
        settings.fromByteArray(file.readAll());
    return quint16(settings.port);
}

/// As many descriptors as the system allows: each connection needs two.
int raiseDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return int(qMin<rlim_t>(limit.rlim_cur, 1024 * 1024));
}

/// A quarter of the descriptors, at two each, may go to callers who have not named themselves.
int mostUnnamed()
{
    static const int most = qBound(32, raiseDescriptorLimit() / 8, 1024);
    return most;
}

} // namespace

CProgram::CProgram(const CommandLine &line, Role chosenRole, CConsole &shownOn, PingResult *ping)
    : level(Global::currentSecrecy()), console(shownOn),
      monitor(console, chosenRole == Resident || line.has("verbose") ? CConsoleMonitor::Shown
                                                                     : CConsoleMonitor::Silent),
      journal(console), role(chosenRole), settings(GeneralSettings::load()), givenName(line.value("name")),
      ownName(GeneralSettings::chosenName(givenName)), startTime(QDateTime::currentSecsSinceEpoch()),
      messages(level, {settings.journalKeepDays, settings.journalKeepRows}), inbox(level),
      unnamed(mostUnnamed(), mostUnnamed() / 2), messenger(console, traffic, context(ping))
{
    gIsVerbose = line.has("verbose");
    monitor.showAbove([this](int cells) { return transferRows.rows(cells); });
    gConsole = &console;
    qInstallMessageHandler(showQtMessage);
}

CProgram::~CProgram()
{
    if (isStarted)
        noteRow(JournalRow::Stopped);
    gConsole = nullptr;
    qInstallMessageHandler(nullptr);
}

CMessageProtocol::Context CProgram::context(PingResult *ping)
{
    CMessageProtocol::Context around;
    around.ownName = ownName;
    around.ownPort = ownPort();
    around.identity = &identity;
    around.contacts = &contacts;
    around.inbox = receives() ? &inbox : nullptr;
    around.queues = role == Asker ? nullptr : &queues;
    around.journal = &journal;
    around.messages = &messages;
    around.originOf = [this](const QString &label) { return monitor.originOf(label); };
    around.unnamed = &unnamed;
    around.lingerMs = role == Resident ? residentLingerMs : 0;
    around.onNews = [this](const MessageNews &news) { tellNews(console, news, gIsVerbose); };
    around.board = role == Resident && console.isTerminal() ? &board : nullptr;
    around.isWatched = role == Sender;
    around.ping = ping;
    return around;
}

bool CProgram::receives() const
{
    const bool isOwn = settings.ownName.isEmpty() || givenName.isEmpty() ||
                       Global::filterName(givenName) == Global::filterName(settings.ownName);
    return role == Resident || (role == Sender && isOwn);
}

int CProgram::prepare()
{
    if (Global::filterName(ownName).isEmpty()) {
        return fail(console, ExitUsage,
                    QStringLiteral("В имени абонента '%1' нет ни букв, ни цифр: задайте другое, --name")
                        .arg(ownName));
    }
    QString error = identity.prepare();
    if (error.isNull() && role != Asker)
        error = inbox.prepare();
    if (error.isNull() && role != Asker && settings.ownName.isEmpty() && !givenName.isEmpty())
        error = GeneralSettings::set(QStringLiteral("Abonent/name"), givenName);
    if (!error.isNull()) {
        debug(QStringLiteral("CProgram"), error, DebugAlways, DebugFlagFileOnly);
        return fail(console, ExitTrouble, error);
    }
    if (!messenger.load())
        return fail(console, ExitTrouble,
                    QStringLiteral("В каталоге %1 нет ни одного пригодного модуля канала")
                        .arg(Global::channelPluginsDir().absolutePath()));
    console.line(
        QStringLiteral("Абонент '%1', установка %2").arg(ownName, Global::installDir().absolutePath()));
    if (role == Resident)
        console.line(QStringLiteral("Свой ключ: %1").arg(shownFingerprint(identity.fingerprint())));
    QJsonObject object = jsonEvent(QStringLiteral("prepared"));
    object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
    object.insert(QStringLiteral("abonent"), ownName);
    object.insert(QStringLiteral("installation"), Global::installDir().absolutePath());
    object.insert(QStringLiteral("key"), QString::fromLatin1(identity.fingerprint().toHex()));
    console.json(object);
    return ExitDone;
}

void CProgram::open(const QString &only, const QString &fresh)
{
    queues.setListener([this](const QString &filteredName) {
        const auto tell = [this, filteredName] {
            if (office)
                office->queueChanged(filteredName);
        };
        QMetaObject::invokeMethod(&messenger, tell, Qt::QueuedConnection);
    });
    messenger.open(!receives());
    if (role == Resident) {
        isStarted = true;
        noteRow(JournalRow::Started);
    }
    if (const CChannelServer *server = messenger.server(ipKind))
        traffic.follow(*server);
    if (role == Asker || !messenger.server(ipKind))
        return;
    CPostOffice::Around around;
    around.server = messenger.server(ipKind);
    around.plugin = messenger.plugin(ipKind);
    around.contacts = &contacts;
    around.journal = &journal;
    around.queues = &queues;
    around.level = level;
    around.takeReason = [this](const QString &abonent) { return journal.takeReason(abonent); };
    around.only = only;
    around.fresh = fresh;
    office = std::make_unique<CPostOffice>(around);
    office->begin();
}

void CProgram::close()
{
    if (office)
        callsPlaced = office->placedCalls();
    office.reset(); // it uses the servers
    messenger.close();
}

CServiceNotifier::State CProgram::state() const
{
    const CTraffic::Counts now = traffic.counts();
    // A kind of channel that listens nowhere is ready when it has started.
    const bool isReady = !messenger.server(ipKind) || OwnDescriptors::look().isListening;
    return {isReady, QStringLiteral("%1. Соединений: %2; принято сообщений: %3, доставлено: %4")
                         .arg(now.state, QString::number(now.openNow),
                              QString::number(messages.count(JournalRow::Received).rows),
                              QString::number(messages.count(JournalRow::Sent).rows))};
}

Metrics CProgram::metrics() const
{
    const CTraffic::Counts now = traffic.counts();
    const JournalCount received = messages.count(JournalRow::Received);
    const JournalCount sent = messages.count(JournalRow::Sent);
    Metrics result;
    result.startTime = startTime;
    result.connections = now.openNow;
    result.connectionsTotal = now.connections;
    result.conversationsTotal = now.conversations;
    result.callsTotal = office ? office->placedCalls() : callsPlaced;
    result.failedCallsTotal = now.failedCalls;
    result.receivedBytes = now.received;
    result.sentBytes = now.sent;
    result.messagesReceived = received.rows;
    result.messageBytesReceived = received.bytes;
    result.messagesSent = sent.rows;
    result.messageBytesSent = sent.bytes;
    result.refusals = messages.count(JournalRow::Refused).rows;
    result.brokenOff = messages.count(JournalRow::BrokenOff).rows;
    result.keyChanges = messages.count(JournalRow::KeyChanged).rows;
    return result;
}

void CProgram::noteRow(JournalRow kind)
{
    JournalEntry row;
    row.kind = kind;
    row.abonent = ownName;
    messages.add(row);
}
