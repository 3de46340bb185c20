// What is on its way at the moment, for people to look at.
//
// A conversation puts up what takes longer than a moment and counts its bytes there, without a lock; the
// entry is gone when the conversation lets go of it.
#pragma once

#include <QString>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

class CTransferBoard
{
public:
    struct Transfer
    {
        bool isIncoming = false;
        QString abonent;
        QString name; // of the file or tree; "текст"
        qint64 size = 0;
        std::atomic<qint64> done{0}; // the conversation writes it
    };

    /// Puts a transfer up, for as long as the caller keeps it. [any thread]
    std::shared_ptr<Transfer> putUp(bool isIncoming, const QString &abonent, const QString &name, qint64 size)
    {
        const auto transfer = std::make_shared<Transfer>();
        transfer->isIncoming = isIncoming;
        transfer->abonent = abonent;
        transfer->name = name;
        transfer->size = size;
        const std::lock_guard lock(mutex);
        transfers.erase(std::remove_if(transfers.begin(), transfers.end(),
                                       [](const std::weak_ptr<Transfer> &each) { return each.expired(); }),
                        transfers.end());
        transfers.push_back(transfer);
        return transfer;
    }

    /// In the order they were put up. [any thread]
    std::vector<std::shared_ptr<Transfer>> underWay() const
    {
        std::vector<std::shared_ptr<Transfer>> result;
        const std::lock_guard lock(mutex);
        for (const std::weak_ptr<Transfer> &each : transfers) {
            if (auto transfer = each.lock())
                result.push_back(std::move(transfer));
        }
        return result;
    }

private:
    mutable std::mutex mutex; // guards the list
    std::vector<std::weak_ptr<Transfer>> transfers;
};
