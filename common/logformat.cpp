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
constexpr int bytesPerUnit = 3; // of UTF-8 for one of UTF-16, at most

void putTwoDigits(char *to, int number)
{
    to[0] = static_cast<char>('0' + number / 10);
    to[1] = static_cast<char>('0' + number % 10);
}

char *putBlanks(char *to, int count)
{
    return std::fill_n(to, count, ' ');
}

// One character, of one unit or two.
char *putCharacter(char *to, const QChar **next, const QChar *end)
{
    const uint code = (*next)++->unicode();
    const auto putTail = [&to](uint bits) { *to++ = static_cast<char>(0x80 | (bits & 0x3f)); };
    if (code < 0x80) {
        *to++ = static_cast<char>(code);
    } else if (code < 0x800) {
        *to++ = static_cast<char>(0xc0 | code >> 6);
        putTail(code);
    } else if (!QChar::isSurrogate(code)) {
        *to++ = static_cast<char>(0xe0 | code >> 12);
        putTail(code >> 6);
        putTail(code);
    } else if (QChar::isHighSurrogate(code) && *next != end && (*next)->isLowSurrogate()) {
        const uint pair = QChar::surrogateToUcs4(static_cast<ushort>(code), (*next)++->unicode());
        *to++ = static_cast<char>(0xf0 | pair >> 18);
        putTail(pair >> 12);
        putTail(pair >> 6);
        putTail(pair);
    } else {
        *to++ = '?';
    }
    return to;
}

// The units up to @a end as UTF-8, with a question mark for each half of a pair that stands alone.
// @param to room for three bytes a unit
char *putText(char *to, const QChar *unit, const QChar *end)
{
    constexpr int blockSize = 8; // the loops over a block become a few vector instructions
    while (unit != end) {
        while (end - unit >= blockSize) {
            char block[blockSize];
            ushort bits = 0;
            for (int i = 0; i < blockSize; ++i) {
                bits = static_cast<ushort>(bits | unit[i].unicode());
                block[i] = static_cast<char>(unit[i].unicode());
            }
            if (bits >= 0x80)
                break;
            to = std::copy_n(block, blockSize, to);
            unit += blockSize;
        }
        const QChar *const stop = unit + std::min<ptrdiff_t>(end - unit, blockSize);
        while (unit < stop)
            to = putCharacter(to, &unit, end);
    }
    return to;
}

int lineFeed(const QString &text, int from)
{
    const int found = text.indexOf(QLatin1Char('\n'), from);
    return found < 0 ? text.size() : found;
}

// Each line of the text behind what `putFirst` or, once that was used, `putLater` puts there; empty lines
// stand bare.
// @param firstSize, laterSize bytes that they put at most
template <typename PutFirst, typename PutLater>
LogFormat::Record lines(const QString &text, int firstSize, int laterSize, const PutFirst &putFirst,
                        const PutLater &putLater)
{
    int stop = lineFeed(text, 0);
    const int lineFeeds = stop == text.size() ? 0 : text.count(QLatin1Char('\n'));
    LogFormat::Record result(firstSize + lineFeeds * laterSize + text.size() * bytesPerUnit + 1);
    char *to = result.data();
    bool isFirst = true;
    for (int from = 0;; stop = lineFeed(text, from)) {
        if (stop != from) {
            to = isFirst ? putFirst(to) : putLater(to);
            to = putText(to, text.constData() + from, text.constData() + stop);
            isFirst = false;
        }
        *to++ = '\n';
        if (stop == text.size())
            break;
        from = stop + 1;
    }
    result.resize(static_cast<int>(to - result.constData()));
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

Record record(const TimeText &time, const QString &source, int tabLevel, const QString &text)
{
    const bool isLong = source.size() > sourceColumns;
    const int kept = isLong ? sourceKept : source.size();
    const int blanks = 1 + std::max(sourceColumns - source.size(), 0);
    const int indentation = tabLevel * blanksPerTab;
    const int laterSize = timeColumns + 1 + sourceColumns + indentation;
    return lines(
        text, timeColumns + blanks + sourceColumns * bytesPerUnit + indentation, laterSize,
        [&](char *to) {
            to = putBlanks(std::copy(time.begin(), time.end(), to), blanks);
            to = putText(to, source.constData(), source.constData() + kept);
            return putBlanks(isLong ? std::fill_n(to, sourceColumns - sourceKept, '.') : to, indentation);
        },
        [&](char *to) { return putBlanks(to, laterSize); });
}

Record emergencyRecord(const TimeText &time, const QString &text)
{
    constexpr char mark[] = "                forceDebug    ";
    constexpr int markSize = sizeof mark - 1;
    return lines(
        text, timeColumns + markSize, blanksPerTab,
        [&](char *to) { return std::copy_n(mark, markSize, std::copy(time.begin(), time.end(), to)); },
        [](char *to) { return putBlanks(to, blanksPerTab); });
}

} // namespace LogFormat
