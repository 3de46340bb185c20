#include "common/logformat.h"

#include <QDateTime>

#include <cstring>
#include <ctime>

namespace {

constexpr int sourceColumns = 25;
constexpr int sourceKept = 22; // of a longer source, before "..."
constexpr int timeColumns = 12;
constexpr int blanksPerTab = 4;

void putTwoDigits(char *to, int number)
{
    to[0] = static_cast<char>('0' + number / 10);
    to[1] = static_cast<char>('0' + number % 10);
}

// Each line of the text behind `first` or, once that was used, behind `later`; empty lines stand bare.
QByteArray lines(const QString &text, const QByteArray &first, const QByteArray &later)
{
    const QByteArray utf8 = text.toUtf8();
    QByteArray result;
    result.reserve(first.size() + utf8.size() + 1);
    const QByteArray *head = &first;
    for (int start = 0; start <= utf8.size();) {
        int end = utf8.indexOf('\n', start);
        if (end < 0)
            end = utf8.size();
        if (end > start) {
            result += *head;
            result.append(utf8.constData() + start, end - start);
            head = &later;
        }
        result += '\n';
        start = end + 1;
    }
    return result;
}

} // namespace

namespace LogFormat {

QByteArray timeStamp()
{
    // Plain data per thread: no lock, and nothing to destroy while a thread ends.
    struct Second
    {
        time_t number;
        char text[8]; // hh:mm:ss
    };
    thread_local Second second = {-1, {}};

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != second.number) {
        const QTime time = QDateTime::fromSecsSinceEpoch(now.tv_sec).time();
        std::memcpy(second.text, "00:00:00", sizeof second.text);
        putTwoDigits(second.text, time.hour());
        putTwoDigits(second.text + 3, time.minute());
        putTwoDigits(second.text + 6, time.second());
        second.number = now.tv_sec;
    }

    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    QByteArray result(timeColumns, '.');
    std::memcpy(result.data(), second.text, sizeof second.text);
    result[9] = static_cast<char>('0' + ms / 100);
    putTwoDigits(result.data() + 10, ms % 100);
    return result;
}

QByteArray record(const QByteArray &time, const QString &source, int tabLevel, const QString &text)
{
    const QString column = source.size() > sourceColumns
                               ? source.leftRef(sourceKept) + QLatin1String("...")
                               : source.rightJustified(sourceColumns, QLatin1Char(' '));
    const QByteArray indentation(tabLevel * blanksPerTab, ' ');
    return lines(text, time + ' ' + column.toUtf8() + indentation,
                 QByteArray(timeColumns + 1 + sourceColumns, ' ') + indentation);
}

QByteArray emergencyRecord(const QByteArray &time, const QString &text)
{
    return lines(text, time + "                forceDebug    ", QByteArrayLiteral("    "));
}

} // namespace LogFormat
