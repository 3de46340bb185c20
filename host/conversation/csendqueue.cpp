#include "host/conversation/csendqueue.h"

#include <algorithm>

bool CSendQueue::add(const std::shared_ptr<COutboxEntry> &entry, bool isOld)
{
    const std::lock_guard lock(mutex);
    const auto place = std::lower_bound(
        waiting.begin(), waiting.end(), entry->number,
        [](const Entry &there, const QString &number) { return there.entry->number < number; });
    if (place != waiting.end() && place->entry->number == entry->number)
        return false;
    waiting.insert(place, {entry, std::vector<bool>(entry->messages.size(), false),
                           std::vector<bool>(entry->messages.size(), isOld)});
    if (user)
        user->wake();
    return true;
}

std::shared_ptr<COutboxEntry> CSendQueue::withdraw(const QString &number)
{
    const std::lock_guard lock(mutex);
    const auto found = std::find_if(waiting.begin(), waiting.end(),
                                    [&number](const Entry &there) { return there.entry->number == number; });
    if (found == waiting.end())
        return nullptr;
    const std::shared_ptr<COutboxEntry> entry = found->entry;
    entry->isWithdrawn = true;
    waiting.erase(found);
    if (user)
        user->wake();
    return entry;
}

void CSendQueue::retry(const QString &number)
{
    const std::lock_guard lock(mutex);
    for (Entry &there : waiting) {
        if (there.entry->number != number)
            continue;
        there.entry->retryRefused();
        there.next = there.nextText = 0;
    }
    if (user)
        user->wake();
}

std::pair<QString, int> CSendQueue::address() const
{
    const std::lock_guard lock(mutex);
    for (const Entry &there : waiting) {
        if (there.entry->hasWaiting() && !there.entry->address.isEmpty())
            return {there.entry->address, there.entry->port};
    }
    return {};
}

void CSendQueue::noteAttempt(const Trouble &why)
{
    const std::lock_guard lock(mutex);
    for (Entry &there : waiting) {
        if (there.entry->hasWaiting())
            there.entry->noteAttempt(why.code, why.reason);
    }
}

bool CSendQueue::hasWaiting() const
{
    const std::lock_guard lock(mutex);
    return std::any_of(waiting.begin(), waiting.end(),
                       [](const Entry &entry) { return entry.entry->hasWaiting(); });
}

bool CSendQueue::attach(CQueueUser *connection)
{
    const std::lock_guard lock(mutex);
    if (!user)
        user = connection;
    return user == connection;
}

void CSendQueue::detach(CQueueUser *connection)
{
    {
        const std::lock_guard lock(mutex);
        if (user != connection)
            return;
        user = nullptr;
        current = Job();
        for (Entry &entry : waiting) {
            entry.underWay.assign(entry.underWay.size(), false);
            entry.next = entry.nextText = 0;
        }
    }
    changed();
}

bool CSendQueue::isAttached() const
{
    const std::lock_guard lock(mutex);
    return user != nullptr;
}

CSendQueue::Job CSendQueue::takeUp(qint64 smallBytes, bool mayBeLarge)
{
    const std::lock_guard lock(mutex);
    const auto begin = [](Entry &entry, std::size_t index) {
        const bool isAgain = entry.wasUnderWay[index];
        entry.underWay[index] = entry.wasUnderWay[index] = true;
        return Job{entry.entry, index, isAgain};
    };
    const auto isFree = [](const Entry &entry, std::size_t index) {
        return !entry.underWay[index] && entry.entry->states[index] == COutboxEntry::Waiting;
    };
    for (Entry &entry : waiting) {
        const auto &messages = entry.entry->messages;
        for (; entry.nextText < messages.size(); ++entry.nextText) {
            const std::size_t index = entry.nextText;
            if (messages[index].offer.kind == OfferFrame::Text && isFree(entry, index))
                return begin(entry, index);
        }
    }
    for (Entry &entry : waiting) {
        const auto &messages = entry.entry->messages;
        while (entry.next < messages.size() && !isFree(entry, entry.next))
            ++entry.next;
        for (std::size_t index = entry.next; index < messages.size(); ++index) {
            if (isFree(entry, index) && (mayBeLarge || messages[index].offer.size <= smallBytes))
                return begin(entry, index);
        }
    }
    return {};
}

void CSendQueue::sent(const Job &job, qint64 bytes)
{
    const std::lock_guard lock(mutex);
    current = job;
    currentBytes = bytes;
}

CSendQueue::Entry *CSendQueue::find(const COutboxEntry *entry)
{
    for (Entry &there : waiting) {
        if (there.entry.get() == entry)
            return &there;
    }
    return nullptr;
}

/// @return whether the entry is done and out of the queue
bool CSendQueue::finish(const Job &job, COutboxEntry::State state, const QString &detail)
{
    const std::lock_guard lock(mutex);
    Entry *entry = find(job.entry.get());
    if (!entry)
        return false;
    entry->underWay[job.index] = false;
    job.entry->settle(job.index, state, detail);
    if (!job.entry->isDone())
        return false;
    waiting.erase(waiting.begin() + (entry - waiting.data()));
    return true;
}

void CSendQueue::stored(const Job &job, const QByteArray &digest)
{
    if (!finish(job, COutboxEntry::Stored, QString::fromLatin1(digest.toHex())))
        return;
    job.entry->remove();
    changed();
}

void CSendQueue::refused(const Job &job, const QString &reason)
{
    finish(job, COutboxEntry::Refused, reason);
    changed();
}

void CSendQueue::setTrouble(Code code, const QString &reason)
{
    const std::lock_guard lock(mutex);
    trouble = {code, reason};
}

void CSendQueue::setTroubleUnlessSet(Code code, const QString &reason)
{
    const std::lock_guard lock(mutex);
    if (trouble.code == NoTrouble)
        trouble = {code, reason};
}

CSendQueue::Trouble CSendQueue::takeTrouble()
{
    const std::lock_guard lock(mutex);
    return std::exchange(trouble, Trouble());
}

void CSendQueue::showLive()
{
    Job job;
    qint64 bytes = 0;
    {
        const std::lock_guard lock(mutex);
        if (!current.entry || currentBytes == shownBytes)
            return;
        job = current;
        bytes = shownBytes = currentBytes;
    }
    job.entry->showLive(job.index, bytes);
}

std::shared_ptr<CSendQueue> CSendQueues::of(const QString &filteredName)
{
    const std::lock_guard lock(mutex);
    std::shared_ptr<CSendQueue> &queue = queues[filteredName];
    if (!queue)
        queue = std::make_shared<CSendQueue>([this, filteredName] {
            if (changed)
                changed(filteredName);
        });
    return queue;
}
