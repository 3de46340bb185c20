#include "host/console/progressrow.h"

#include "common/global.h"
#include "host/text/textwidth.h"

#include <cmath>

namespace {

constexpr int cellsWithSpeed = 60;
constexpr int cellsWithSize = 76;
constexpr int cellsWithAmounts = 100;
constexpr qint64 leastSampleMs = 100;
constexpr double smoothingMs = 2000;
constexpr qint64 restMs = 3000;

QString speedText(qint64 speed)
{
    return speed > 0 ? Global::sizeString(speed) + QStringLiteral("/с") : QString();
}

} // namespace

int percentOf(qint64 done, qint64 size)
{
    return size > 0 ? int(double(qMin(done, size)) * 100 / double(size)) : 100;
}

QString clockText(qint64 seconds)
{
    const auto two = [](qint64 number) {
        return QString::number(number).rightJustified(2, QLatin1Char('0'));
    };
    const qint64 minutes = seconds / 60;
    return minutes < 60 ? QStringLiteral("%1:%2").arg(QString::number(minutes), two(seconds % 60))
                        : QStringLiteral("%1:%2:%3")
                              .arg(QString::number(minutes / 60), two(minutes % 60), two(seconds % 60));
}

QString progressRow(const Progress &progress, int cells)
{
    constexpr qint64 longestSeconds = 99 * 3600;
    const bool isWide = cells >= cellsWithSpeed;
    const QString gap(isWide ? 2 : 1, QLatin1Char(' '));
    QString left;
    if (progress.done < progress.size && progress.speed > 0) {
        const qint64 seconds = (progress.size - progress.done + progress.speed - 1) / progress.speed;
        left = seconds <= longestSeconds ? clockText(seconds) : QStringLiteral("долго");
        if (isWide)
            left.prepend(QStringLiteral("еще "));
    }
    QString row = QStringLiteral("%1 %").arg(percentOf(progress.done, progress.size), 3) + gap +
                  paddedRight(left, isWide ? 9 : 7) + gap + paddedRight(progress.state, 11) + gap;
    if (isWide)
        row += paddedLeft(speedText(progress.speed), 13) + gap;
    const QString size = Global::sizeString(progress.size);
    if (cells >= cellsWithAmounts)
        row += paddedRight(QStringLiteral("%1 из %2").arg(Global::sizeString(progress.done), size), 28) + gap;
    else if (cells >= cellsWithSize)
        row += paddedRight(size, 12) + gap;
    const QString name = isWide && !progress.abonent.isEmpty()
                             ? QStringLiteral("%1: %2").arg(progress.abonent, progress.name)
                             : progress.name;
    return row + shortenedInMiddle(name, cells - cellsOf(row));
}

void CSpeedMeter::add(qint64 bytes, qint64 nowMs)
{
    if (lastBytes < 0 || bytes < lastBytes) { // the first time, or begun anew
        lastBytes = bytes;
        lastMs = movedMs = nowMs;
        smoothed = 0;
        return;
    }
    const qint64 passedMs = nowMs - lastMs;
    if (passedMs < leastSampleMs)
        return;
    if (bytes > lastBytes)
        movedMs = nowMs;
    resting = nowMs - movedMs >= restMs;
    const double now = double(bytes - lastBytes) * 1000 / double(passedMs);
    const double old = smoothed > 0 ? std::exp(-double(passedMs) / smoothingMs) : 0;
    smoothed = resting ? 0 : smoothed * old + now * (1 - old);
    lastBytes = bytes;
    lastMs = nowMs;
}
