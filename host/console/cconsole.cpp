#include "host/console/cconsole.h"

#include "common/global.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/text/localtime.h"
#include "host/text/reasons.h"
#include "host/text/textwidth.h"
#include "host/text/untrustedtext.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t mostLinesWaiting = 4096;
constexpr int longestLine = 4000;
constexpr std::chrono::seconds lastWriteTime{1};

/// Lines that stay together, ready to be written.
struct Block
{
    QString text;
    CConsole::Stream stream;
};

constexpr int leastColumns = 20;
constexpr int textIndent = 10; // of a text that has arrived, below the time of its record

/// Bytes for one stream.
struct Piece
{
    CConsole::Stream stream;
    QByteArray bytes;
};

/// Writes all of it. An error loses the piece: a reader that has gone must not end a transfer.
void writeAll(const Piece &piece)
{
    const int descriptor = piece.stream == CConsole::Errors ? STDERR_FILENO : STDOUT_FILENO;
    int done = 0;
    while (done < piece.bytes.size()) {
        const ssize_t count =
            ::write(descriptor, piece.bytes.constData() + done, std::size_t(piece.bytes.size() - done));
        if (count < 0 && errno == EAGAIN) { // whoever shares the terminal has made it non-blocking
            pollfd room{descriptor, POLLOUT, 0};
            ::poll(&room, 1, -1);
        } else if (count < 0 && errno != EINTR) {
            return;
        }
        done += int(qMax<ssize_t>(count, 0));
    }
}

winsize terminalSize()
{
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row <= 2 || size.ws_col < leastColumns)
        size = {24, 80, 0, 0};
    return size;
}

int widthOfRows()
{
    return terminalSize().ws_col - 1;
}

QString shownLine(const QString &text)
{
    return printable(Global::cut(explained(text), longestLine));
}

} // namespace

struct CConsole::State
{
    const OutputStyle style = outputStyle();
    const bool isTerminal = style == OutputStyle::Plain && ::isatty(STDOUT_FILENO) == 1;

    std::mutex mutex; // guards the members below
    std::condition_variable changed;
    std::deque<Block> blocks;
    QString day; // of the latest record
    quint64 skipped = 0;
    QStringList rows;
    bool rowsChanged = false;
    bool ending = false;
    bool ended = false;

    std::vector<int> rowsOnScreen; // their cells; the writing thread's own

    void add(const QString &text, Stream stream);
    bool shows(Stream stream) const { return stream == Errors || style == OutputStyle::Plain; }
    std::vector<Piece> takeWaiting(std::unique_lock<std::mutex> &lock);
    std::vector<Piece> draw(const std::deque<Block> &newBlocks, const QStringList &liveRows);
    int linesAboveCursor() const;
};

CConsole::CConsole() : state(std::make_shared<State>())
{
    std::thread(&CConsole::run, state).detach();
}

CConsole::~CConsole()
{
    std::unique_lock lock(state->mutex);
    state->rows.clear();
    state->ending = true;
    state->changed.notify_all();
    state->changed.wait_for(lock, lastWriteTime, [this] { return state->ended; });
}

bool CConsole::isTerminal() const
{
    return state->isTerminal;
}

int CConsole::rowWidth() const
{
    return widthOfRows();
}

/// Adds what is shown, with the lock held.
void CConsole::State::add(const QString &text, Stream stream)
{
    if (blocks.size() >= mostLinesWaiting) {
        blocks.pop_front();
        ++skipped;
    }
    blocks.push_back({text, stream});
    changed.notify_all();
}

void CConsole::line(const QString &text, Stream stream)
{
    if (!state->shows(stream))
        return;
    const std::lock_guard lock(state->mutex);
    state->add(shownLine(text), stream);
}

void CConsole::record(const QString &kind, const QString &source, const QString &text, Stream stream,
                      const QStringList &below)
{
    if (!state->shows(stream))
        return;
    QStringList lines{shownLine(
        QStringLiteral("%1  %2 %3 %4")
            .arg(localTime("%H:%M:%S"), paddedRight(kind, 10), paddedRight(printable(source), 14), text))};
    for (const QString &each : below)
        lines << QString(textIndent, QLatin1Char(' ')) + each;
    const QString today = localTime("%d.%m.%Y");
    const std::lock_guard lock(state->mutex);
    if (!state->day.isNull() && state->day != today)
        state->add(today, stream);
    state->day = today;
    state->add(lines.join(QLatin1Char('\n')), stream);
}

void CConsole::json(const QJsonObject &object)
{
    if (state->style != OutputStyle::Json)
        return;
    const std::lock_guard lock(state->mutex);
    state->add(jsonLine(object), Results);
}

void CConsole::setLiveRows(const QStringList &rows)
{
    if (!state->isTerminal)
        return;
    const std::lock_guard lock(state->mutex);
    state->rowsChanged |= rows != state->rows;
    state->rows = rows;
    state->changed.notify_all();
}

void CConsole::run(const std::shared_ptr<State> &state)
{
    std::unique_lock lock(state->mutex);
    bool ending = false;
    while (!ending) {
        state->changed.wait(
            lock, [&state] { return !state->blocks.empty() || state->rowsChanged || state->ending; });
        ending = state->ending;
        const std::vector<Piece> pieces = state->takeWaiting(lock);
        lock.unlock();
        for (const Piece &piece : pieces)
            writeAll(piece);
        lock.lock();
    }
    state->ended = true;
    state->changed.notify_all();
}

/// What is to be written now; called and left with the lock held.
std::vector<Piece> CConsole::State::takeWaiting(std::unique_lock<std::mutex> &lock)
{
    std::deque<Block> newBlocks;
    newBlocks.swap(blocks);
    if (skipped > 0) {
        QJsonObject object = jsonEvent(QStringLiteral("skipped"));
        object.insert(QStringLiteral("count"), qint64(skipped));
        const bool isJson = style == OutputStyle::Json;
        newBlocks.push_front(
            {isJson ? jsonLine(object) : QStringLiteral("... не показано строк: %1").arg(skipped), Results});
    }
    skipped = 0;
    rowsChanged = false;
    const QStringList liveRows = rows;

    lock.unlock();
    std::vector<Piece> pieces = draw(newBlocks, liveRows);
    lock.lock();
    return pieces;
}

/// How far up the first live row is. A terminal that has become narrower has broken rows in two.
int CConsole::State::linesAboveCursor() const
{
    const int columns = widthOfRows() + 1;
    int lines = -1;
    for (const int cells : rowsOnScreen)
        lines += 1 + qMax(cells - 1, 0) / columns;
    return lines;
}

// On a terminal the cursor rests behind the last live row. Each time the rows are wiped, the new lines
// take their place, and the rows are drawn again below. The terminal is told not to break them even if it
// takes a character for wider than we do.
std::vector<Piece> CConsole::State::draw(const std::deque<Block> &newBlocks, const QStringList &liveRows)
{
    std::vector<Piece> pieces{{Results, {}}};
    const auto put = [&pieces](Stream stream, const QByteArray &bytes) {
        if (pieces.back().stream != stream)
            pieces.push_back({stream, {}});
        pieces.back().bytes += bytes;
    };
    if (linesAboveCursor() > 0)
        put(Results, "\033[" + QByteArray::number(linesAboveCursor()) + "A");
    if (!rowsOnScreen.empty())
        put(Results, "\r\033[J");
    for (const Block &each : newBlocks)
        put(each.stream, each.text.toUtf8() + '\n');

    rowsOnScreen.clear();
    const int most = isTerminal ? terminalSize().ws_row - 1 : 0;
    const int width = widthOfRows();
    QByteArray drawn;
    const QStringList drawnRows = liveRows.mid(0, most);
    for (const QString &row : drawnRows) {
        QString shown = cutToCells(printable(row), width);
        // A terminal that becomes narrower does not count blanks at the end either.
        while (shown.endsWith(QLatin1Char(' ')))
            shown.chop(1);
        drawn += (rowsOnScreen.empty() ? QByteArray() : QByteArray("\r\n")) + shown.toUtf8();
        rowsOnScreen.push_back(cellsOf(shown));
    }
    if (!drawn.isEmpty())
        put(Results, "\033[?7l" + drawn + "\033[?7h");
    return pieces;
}
