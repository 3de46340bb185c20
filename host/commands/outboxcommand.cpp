// `abonent outbox`: what waits to be delivered.
#include "host/commands/commands.h"

#include "common/global.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/conversation/coutbox.h"
#include "host/conversation/transporttasks.h"
#include "host/text/untrustedtext.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QThread>

namespace {

constexpr int removalPatienceMs = 5000;
constexpr int removalPollMs = 20;
constexpr int shownTitles = 3;

QString stateOf(const COutboxEntry &entry)
{
    QStringList refusals;
    int stored = 0;
    for (std::size_t i = 0; i < entry.states.size(); ++i) {
        stored += entry.states[i] == COutboxEntry::Stored;
        if (entry.states[i] == COutboxEntry::Refused)
            refusals << QStringLiteral("%1: %2").arg(entry.messages[i].title(), entry.reasons[i]);
    }
    QString text = entry.hasWaiting() ? QStringLiteral("ждет") : QStringLiteral("не принято");
    if (stored > 0)
        text += QStringLiteral(", доставлено %1 из %2").arg(stored).arg(entry.states.size());
    if (!entry.lastAttempt.isEmpty() && entry.hasWaiting())
        text += QStringLiteral(" (%1)").arg(entry.lastAttempt);
    if (!refusals.isEmpty())
        text += QStringLiteral("; отказ: %1").arg(refusals.join(QStringLiteral("; ")));
    return text;
}

QJsonObject jsonOf(const COutboxEntry &entry)
{
    static constexpr const char *states[] = {"waiting", "stored", "refused"};
    static constexpr const char *kinds[] = {"", "text", "file", "tree"};
    QJsonArray messages;
    for (std::size_t i = 0; i < entry.messages.size(); ++i) {
        const OfferFrame &offer = entry.messages[i].offer;
        messages.append(QJsonObject{{QStringLiteral("kind"), QLatin1String(kinds[offer.kind])},
                                    {QStringLiteral("name"), QFile::decodeName(offer.name)},
                                    {QStringLiteral("size"), offer.size},
                                    {QStringLiteral("state"), QLatin1String(states[entry.states[i]])},
                                    {QStringLiteral("text"), entry.reasons[i]}});
    }
    return {{QStringLiteral("event"), QStringLiteral("entry")},
            {QStringLiteral("number"), entry.number},
            {QStringLiteral("time"), jsonTime(entry.created)},
            {QStringLiteral("abonent"), entry.abonent},
            {QStringLiteral("size"), entry.size()},
            {QStringLiteral("waiting"), entry.hasWaiting()},
            {QStringLiteral("text"), entry.lastAttempt},
            {QStringLiteral("messages"), messages}};
}

void show(const COutboxEntry &entry)
{
    if (outputStyle() == OutputStyle::Json)
        return printJsonLine(jsonOf(entry));
    QStringList titles;
    for (const OutgoingMessage &message : entry.messages) {
        if (titles.size() < shownTitles)
            titles << message.title();
    }
    if (int(entry.messages.size()) > shownTitles)
        titles << QStringLiteral("...");
    printLine(printable(QStringLiteral("%1  %2  '%3'  %4  %5: %6")
                            .arg(entry.number, entry.created.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss")),
                                 entry.abonent, Global::sizeString(entry.size()),
                                 titles.join(QStringLiteral(", ")), stateOf(entry))));
}

/// Says that something was done with an entry.
void tell(const COutboxEntry &entry, const char *event, const QString &text)
{
    printNote(text);
    if (outputStyle() != OutputStyle::Json)
        return;
    QJsonObject object = jsonEvent(QLatin1String(event));
    object.insert(QStringLiteral("number"), entry.number);
    object.insert(QStringLiteral("abonent"), entry.abonent);
    printJsonLine(object);
}

/// @return the entries that are meant: by number, without leading zeros as well, or by abonent
std::vector<std::shared_ptr<COutboxEntry>> chosen(int level, const QStringList &words)
{
    std::vector<std::shared_ptr<COutboxEntry>> entries;
    const QStringList numbers = Outbox::numbers(level);
    for (const QString &number : numbers) {
        const auto entry = COutboxEntry::load(Outbox::directory(level), number);
        bool isChosen = words.isEmpty();
        for (const QString &word : words) {
            isChosen |= entry && (number == word.rightJustified(number.size(), QLatin1Char('0')) ||
                                  Global::filterName(word) == Global::filterName(entry->abonent));
        }
        if (entry && isChosen)
            entries.push_back(entry);
    }
    return entries;
}

/// @return whether it is gone
bool withdraw(int level, const COutboxEntry &entry)
{
    QElapsedTimer clock;
    clock.start();
    bool isTold = false;
    while (clock.elapsed() < removalPatienceMs) {
        CTransportLock lock;
        if (lock.tryLock(level)) { // nobody delivers
            COutboxEntry gone;
            gone.directory = entry.directory;
            return gone.remove();
        }
        if (!isTold && !TransportTasks::add(level, {TransportTask::Withdraw, entry.number}).isNull())
            return false;
        isTold = true;
        if (!QDir(entry.directory).exists())
            return true;
        QThread::msleep(removalPollMs);
    }
    return false;
}

} // namespace

int runOutbox(const CommandLine &line)
{
    const int level = Global::currentSecrecy();
    const QString action = line.operands.value(0, QStringLiteral("list"));
    const QStringList words = line.operands.mid(1);
    const auto entries = chosen(level, words);
    if (entries.empty() && !words.isEmpty()) {
        return fail(ExitUsage,
                    QStringLiteral("В исходящих нет такого сообщения: %1").arg(words.join(QLatin1Char(' '))));
    }
    int code = ExitDone;
    for (const auto &entry : entries) {
        if (action == QLatin1String("retry")) {
            const QString error = TransportTasks::add(level, {TransportTask::Deliver, entry->number});
            if (error.isNull())
                tell(*entry, "retried", QStringLiteral("Передается снова: сообщение %1").arg(entry->number));
            else
                code = fail(ExitTrouble, error);
        } else if (action == QLatin1String("remove")) {
            if (withdraw(level, *entry))
                tell(*entry, "withdrawn", QStringLiteral("Отозвано: сообщение %1").arg(entry->number));
            else
                code =
                    fail(ExitTrouble, QStringLiteral("Не удалось отозвать сообщение %1").arg(entry->number));
        } else {
            show(*entry);
        }
    }
    if (action == QLatin1String("list") && entries.empty())
        printNote(QStringLiteral("В исходящих ничего нет"));
    if (action == QLatin1String("retry")) {
        CTransportLock lock;
        if (lock.tryLock(level))
            printError(QStringLiteral("Передавать некому: запустите abonent listen"));
    }
    return code;
}
