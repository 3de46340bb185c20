#include "host/console/cconsole.h"

#include "common/global.h"
#include "host/text/localtime.h"
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

struct Line
{
    QString text;
    CConsole::Stream stream;
};

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

int terminalHeight()
{
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 2 ? size.ws_row : 24;
}

} // namespace

struct CConsole::State
{
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;

    std::mutex mutex; // guards the members below
    std::condition_variable changed;
    std::deque<Line> lines;
    quint64 skipped = 0;
    QStringList rows;
    bool rowsChanged = false;
    bool ending = false;
    bool ended = false;

    int rowsOnScreen = 0; // the writing thread's own

    std::vector<Piece> takeWaiting(std::unique_lock<std::mutex> &lock);
    std::vector<Piece> draw(const std::deque<Line> &newLines, const QStringList &liveRows);
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

void CConsole::line(const QString &text, Stream stream)
{
    const std::lock_guard lock(state->mutex);
    if (state->lines.size() >= mostLinesWaiting) {
        state->lines.pop_front();
        ++state->skipped;
    }
    state->lines.push_back({text, stream});
    state->changed.notify_all();
}

void CConsole::record(const QString &kind, const QString &source, const QString &text, Stream stream)
{
    line(QStringLiteral("%1  %2 %3 %4")
             .arg(localTime("%H:%M:%S"), kind.leftJustified(10), source.leftJustified(14), text),
         stream);
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
            lock, [&state] { return !state->lines.empty() || state->rowsChanged || state->ending; });
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
    std::deque<Line> newLines;
    newLines.swap(lines);
    if (skipped > 0)
        newLines.push_front({QStringLiteral("... не показано строк: %1").arg(skipped), Results});
    skipped = 0;
    rowsChanged = false;
    const QStringList liveRows = rows;

    lock.unlock();
    std::vector<Piece> pieces = draw(newLines, liveRows);
    lock.lock();
    return pieces;
}

// On a terminal the cursor rests behind the last live row. Each time the rows are wiped, the new lines
// take their place, and the rows are drawn again below, each cut by the terminal at its right edge.
std::vector<Piece> CConsole::State::draw(const std::deque<Line> &newLines, const QStringList &liveRows)
{
    std::vector<Piece> pieces{{Results, {}}};
    const auto add = [&pieces](Stream stream, const QByteArray &bytes) {
        if (pieces.back().stream != stream)
            pieces.push_back({stream, {}});
        pieces.back().bytes += bytes;
    };
    if (rowsOnScreen > 1)
        add(Results, "\033[" + QByteArray::number(rowsOnScreen - 1) + "A");
    if (rowsOnScreen > 0)
        add(Results, "\r\033[J");
    for (const Line &each : newLines)
        add(each.stream, printable(Global::cut(each.text, longestLine)).toUtf8() + '\n');

    rowsOnScreen = 0;
    if (isTerminal) {
        rowsOnScreen = qMin(liveRows.size(), terminalHeight() - 1);
        if (rowsOnScreen > 0)
            add(Results, "\033[?7l");
        for (int row = 0; row < rowsOnScreen; ++row)
            add(Results, (row > 0 ? QByteArray("\r\n") : QByteArray()) + printable(liveRows[row]).toUtf8());
        if (rowsOnScreen > 0)
            add(Results, "\033[?7h");
    }
    return pieces;
}
