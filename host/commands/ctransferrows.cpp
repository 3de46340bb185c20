#include "host/commands/ctransferrows.h"

#include <utility>

namespace {

QString stateOf(const CTransferBoard::Transfer &transfer, qint64 done, bool isResting)
{
    if (done >= transfer.size)
        return transfer.isIncoming ? QStringLiteral("сохраняется") : QStringLiteral("ждем ответа");
    if (isResting)
        return QStringLiteral("стоит");
    return transfer.isIncoming ? QStringLiteral("принимается") : QStringLiteral("передается");
}

} // namespace

CTransferRows::CTransferRows(const CTransferBoard &ofBoard) : board(ofBoard)
{
    clock.start();
}

QStringList CTransferRows::rows(int cells)
{
    QStringList result;
    Progress total;
    std::map<const void *, CSpeedMeter> kept;
    const auto transfers = board.underWay();
    for (const auto &transfer : transfers) {
        CSpeedMeter &meter = kept[transfer.get()] = meters[transfer.get()];
        Progress progress;
        progress.done = transfer->done.load(std::memory_order_relaxed);
        progress.size = transfer->size;
        meter.add(progress.done, clock.elapsed());
        progress.speed = meter.speed();
        progress.state = stateOf(*transfer, progress.done, meter.isResting());
        progress.name = transfer->name;
        progress.abonent = transfer->abonent;
        result << progressRow(progress, cells);
        total.done += progress.done;
        total.size += progress.size;
        total.speed += progress.speed;
    }
    meters = std::move(kept);
    if (transfers.size() > 1) {
        total.state = QStringLiteral("всего");
        total.name = QStringLiteral("передач: %1").arg(transfers.size());
        result << progressRow(total, cells);
    }
    return result;
}
