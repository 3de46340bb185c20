#include "common/logformat.h"

#include <QDateTime>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <tuple>

namespace {

constexpr int sourceColumns = 25;
constexpr int sourceKept = 22; // of a longer source, before "..."
constexpr int timeColumns = std::tuple_size<LogFormat::TimeText>::value;
constexpr int blanksPerTab = 4;

void putTwoDigits(char *to, int number)
{
    to[0] = static_cast<char>('0' + number / 10);
    to[1] = static_cast<char>('0' + number % 10);
}

char *putBlanks(char *to, int count)
{
    return std::fill_n(to, count, ' ');
}

char *put(char *to, const QByteArray &text)
{
    return std::copy(text.begin(), text.end(), to);
}

const char *lineFeed(const char *from, const char *end)
{
    const void *const found = std::memchr(from, '\n', static_cast<size_t>(end - from));
    return found == nullptr ? end : static_cast<const char *>(found);
}

// Each line of the text behind what `putFirst` or, once that was used, `putLater` puts there; empty lines
// stand bare.
// @param firstSize, laterSize bytes that they put at most
template <typename PutFirst, typename PutLater>
QByteArray lines(const QByteArray &text, int firstSize, int laterSize, const PutFirst &putFirst,
                 const PutLater &putLater)
{
    const char *const end = text.constData() + text.size();
    int lineFeeds = 0;
    for (const char *at = text.constData(); (at = lineFeed(at, end)) != end; ++at)
        ++lineFeeds;
    QByteArray result(firstSize + lineFeeds * laterSize + text.size() + 1, Qt::Uninitialized);
    char *to = result.data();
    bool isFirst = true;
    for (const char *from = text.constData();; ++from) {
        const char *const stop = lineFeed(from, end);
        if (stop != from) {
            to = isFirst ? putFirst(to) : putLater(to);
            to = std::copy(from, stop, to);
            isFirst = false;
        }
        *to++ = '\n';
        from = stop;
        if (from == end)
            break;
    }
    result.truncate(static_cast<int>(to - result.constData()));
    return result;
}

} // namespace

namespace LogFormat {

TimeText timeStamp()
{
    // The last second that was broken down, and the second of the day it is here, in one word: shared by
    // all threads without a lock, so that a new thread does not ask for the time zone again.
    constexpr unsigned dayBits = 17;
    static std::atomic<quint64> latest{0};

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto number = static_cast<quint64>(now.tv_sec);
    quint64 known = latest.load(std::memory_order_relaxed);
    if (known >> dayBits != number) {
        const int secondOfDay =
            QDateTime::fromSecsSinceEpoch(now.tv_sec).time().msecsSinceStartOfDay() / 1000;
        known = number << dayBits | static_cast<quint64>(secondOfDay);
        latest.store(known, std::memory_order_relaxed);
    }

    const int secondOfDay = static_cast<int>(known & ((1U << dayBits) - 1));
    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    TimeText text;
    std::memcpy(text.data(), "00:00:00.000", text.size());
    putTwoDigits(text.data(), secondOfDay / 3600);
    putTwoDigits(text.data() + 3, secondOfDay / 60 % 60);
    putTwoDigits(text.data() + 6, secondOfDay % 60);
    text[9] = static_cast<char>('0' + ms / 100);
    putTwoDigits(text.data() + 10, ms % 100);
    return text;
}

QByteArray record(const TimeText &time, const QString &source, int tabLevel, const QString &text)
{
    const bool isLong = source.size() > sourceColumns;
    const QByteArray name = (isLong ? source.left(sourceKept) + QLatin1String("...") : source).toUtf8();
    const int blanks = 1 + std::max(sourceColumns - source.size(), 0);
    const int indentation = tabLevel * blanksPerTab;
    const int laterSize = timeColumns + 1 + sourceColumns + indentation;
    return lines(
        text.toUtf8(), timeColumns + blanks + name.size() + indentation, laterSize,
        [&](char *to) {
            to = putBlanks(std::copy(time.begin(), time.end(), to), blanks);
            return putBlanks(put(to, name), indentation);
        },
        [&](char *to) { return putBlanks(to, laterSize); });
}

QByteArray emergencyRecord(const TimeText &time, const QString &text)
{
    const QByteArray mark = QByteArrayLiteral("                forceDebug    ");
    return lines(
        text.toUtf8(), timeColumns + mark.size(), blanksPerTab,
        [&](char *to) { return put(std::copy(time.begin(), time.end(), to), mark); },
        [](char *to) { return putBlanks(to, blanksPerTab); });
}

} // namespace LogFormat
