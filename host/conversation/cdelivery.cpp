#include "host/conversation/cdelivery.h"

#include <QFileInfo>

#include <algorithm>

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int mostTextBytes = 1024 * 1024;

QString whyUnsendable(const QFileInfo &info)
{
    if (!info.exists())
        return QStringLiteral("файл не существует");
    return info.isFile() && info.isReadable() ? QString() : QStringLiteral("файл нельзя прочитать");
}

} // namespace

void CDelivery::addFile(const QString &path)
{
    const QFileInfo info(path);
    Item item;
    item.title = info.fileName().isEmpty() ? path : info.fileName();
    item.path = path;
    item.size = info.size();
    item.failure = whyUnsendable(info);
    item.outcome = item.failure.isNull() ? Waiting : Failed;
    list.push_back(item);
}

void CDelivery::addText(const QString &text)
{
    Item item;
    item.isText = true;
    item.title = QStringLiteral("текст");
    item.text = text.toUtf8();
    item.size = item.text.size();
    if (item.size > mostTextBytes) {
        item.outcome = Failed;
        item.failure = QStringLiteral("длиннее 1 МБайт: передайте его файлом");
    }
    list.push_back(item);
}

int CDelivery::beginNext()
{
    const std::lock_guard lock(mutex);
    now.current = firstWaiting();
    now.sent = 0;
    begun = steady_clock::now();
    return now.current;
}

void CDelivery::addSent(qint64 bytes)
{
    const std::lock_guard lock(mutex);
    now.sent += bytes;
}

void CDelivery::confirm()
{
    end(Confirmed, QString());
}

void CDelivery::failItem(const QString &reason)
{
    end(Failed, reason);
}

void CDelivery::end(Outcome outcome, const QString &failure)
{
    const std::lock_guard lock(mutex);
    if (now.current < 0)
        return;
    Item &item = list[std::size_t(now.current)];
    item.outcome = outcome;
    item.failure = failure;
    now.current = -1;
    if (firstWaiting() < 0)
        now.state = Done;
}

void CDelivery::refuseAbonent(const QString &trouble)
{
    const std::lock_guard lock(mutex);
    now.state = SomebodyElse;
    now.trouble = trouble;
}

void CDelivery::callEnded(const QString &trouble)
{
    const std::lock_guard lock(mutex);
    now.current = -1;
    if (!trouble.isNull() && now.state == UnderWay)
        now.trouble = trouble;
}

CDelivery::Progress CDelivery::progress() const
{
    const std::lock_guard lock(mutex);
    Progress result = now;
    if (result.current >= 0)
        result.elapsedMs = duration_cast<milliseconds>(steady_clock::now() - begun).count();
    return result;
}

CDelivery::Outcome CDelivery::outcomeOf(int item, QString *failure) const
{
    const std::lock_guard lock(mutex);
    const Item &asked = list[std::size_t(item)];
    if (failure)
        *failure = asked.failure;
    return asked.outcome;
}

bool CDelivery::hasAny(Outcome outcome) const
{
    const std::lock_guard lock(mutex);
    return std::any_of(list.begin(), list.end(),
                       [outcome](const Item &item) { return item.outcome == outcome; });
}

/// Called with the lock held.
int CDelivery::firstWaiting() const
{
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i].outcome == Waiting)
            return int(i);
    }
    return -1;
}
