#include "common/emergencylog.h"

#include "common/logfile.h"
#include "common/logformat.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <atomic>
#include <memory>

#include <fcntl.h>

namespace {

// Published whole and never freed: another thread may be reading it.
std::atomic<const LogPlace *> currentPlace{nullptr};

void append(const QString &file, const QByteArray &record)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        const CDescriptor log = TrustedFile::openTrustedLinks(file, nullptr, O_WRONLY | O_CREAT | O_APPEND);
        if (log.isOpen()) {
            Io::writeAll(log, record); // as far as it goes: there is nobody left to tell
            return;
        }
    }
}

} // namespace

void emergecyDebug(const QString &text)
{
    const CTerminationGuard guard;
    const LogFormat::Record record = LogFormat::emergencyRecord(LogFormat::timeStamp(), text);

    const LogPlace *place = currentPlace.load(std::memory_order_acquire);
    std::unique_ptr<const LogPlace> found;
    if (place == nullptr) {
        found = std::make_unique<const LogPlace>(LogFile::findPlace());
        place = found.get();
    }

    bool created = false;
    if (!LogFile::makeDirectory(place->directory, &created)) {
        currentPlace.store(nullptr, std::memory_order_release);
        return;
    }
    append(place->file, QByteArray::fromRawData(record.constData(), record.size()));

    const LogPlace *none = nullptr;
    if (found && currentPlace.compare_exchange_strong(none, found.get(), std::memory_order_acq_rel))
        static_cast<void>(found.release());
}
