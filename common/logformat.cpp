#include "common/logformat.h"

#include <QDateTime>

#include <algorithm>
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
    // Plain data per thread: no lock, and nothing to destroy while a thread ends.
    struct Second
    {
        time_t number;
        TimeText text;
    };
    thread_local Second second = {-1, {}};

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != second.number) {
        const QTime time = QDateTime::fromSecsSinceEpoch(now.tv_sec).time();
        std::memcpy(second.text.data(), "00:00:00.000", second.text.size());
        putTwoDigits(second.text.data(), time.hour());
        putTwoDigits(second.text.data() + 3, time.minute());
        putTwoDigits(second.text.data() + 6, time.second());
        second.number = now.tv_sec;
    }

    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    second.text[9] = static_cast<char>('0' + ms / 100);
    putTwoDigits(second.text.data() + 10, ms % 100);
    return second.text;
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
