#include "host/console/cconsole.h"

#include "common/global.h"
#include "host/console/untrustedtext.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <cerrno>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t mostLinesWaiting = 4096;
constexpr int longestLine = 4000;
constexpr std::chrono::seconds farewellTime{1};

/// Writes all of it; a reader that has gone is nobody's business here.
void writeAll(const QByteArray &bytes)
{
    int done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            ::write(STDOUT_FILENO, bytes.constData() + done, std::size_t(bytes.size() - done));
        if (count < 0 && errno != EINTR)
            return;
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
    std::deque<QString> lines;
    quint64 skipped = 0;
    QStringList rows;
    bool rowsChanged = false;
    bool ending = false;
    bool ended = false;

    int rowsOnScreen = 0; // the writer's own

    QByteArray take(std::unique_lock<std::mutex> &lock);
    QByteArray draw(const std::deque<QString> &newLines, const QStringList &liveRows);
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
    state->changed.wait_for(lock, farewellTime, [this] { return state->ended; });
}

bool CConsole::isTerminal() const
{
    return state->isTerminal;
}

void CConsole::line(const QString &text)
{
    const std::lock_guard lock(state->mutex);
    if (state->lines.size() >= mostLinesWaiting) {
        state->lines.pop_front();
        ++state->skipped;
    }
    state->lines.push_back(text);
    state->changed.notify_all();
}

void CConsole::record(const QString &kind, const QString &source, const QString &text)
{
    line(QStringLiteral("%1  %2 %3 %4")
             .arg(localTime("%H:%M:%S"), kind.leftJustified(10), source.leftJustified(14), text));
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
        const QByteArray bytes = state->take(lock);
        lock.unlock();
        writeAll(bytes);
        lock.lock();
    }
    state->ended = true;
    state->changed.notify_all();
}

/// What is to be written now; called and left with the lock held.
QByteArray CConsole::State::take(std::unique_lock<std::mutex> &lock)
{
    std::deque<QString> newLines;
    newLines.swap(lines);
    if (skipped > 0)
        newLines.push_front(QStringLiteral("... не показано строк: %1").arg(skipped));
    skipped = 0;
    rowsChanged = false;
    const QStringList liveRows = rows;

    lock.unlock();
    const QByteArray bytes = draw(newLines, liveRows);
    lock.lock();
    return bytes;
}

// On a terminal the cursor rests behind the last live row. Each time the rows are wiped, the new lines
// take their place, and the rows are drawn again below, each cut by the terminal at its right edge.
QByteArray CConsole::State::draw(const std::deque<QString> &newLines, const QStringList &liveRows)
{
    QByteArray bytes;
    if (rowsOnScreen > 1)
        bytes += "\033[" + QByteArray::number(rowsOnScreen - 1) + "A";
    if (rowsOnScreen > 0)
        bytes += "\r\033[J";
    for (const QString &text : newLines)
        bytes += printable(Global::cut(text, longestLine)).toUtf8() + '\n';

    rowsOnScreen = 0;
    if (isTerminal) {
        rowsOnScreen = qMin(liveRows.size(), terminalHeight() - 1);
        if (rowsOnScreen > 0)
            bytes += "\033[?7l";
        for (int row = 0; row < rowsOnScreen; ++row)
            bytes += (row > 0 ? QByteArray("\r\n") : QByteArray()) + printable(liveRows[row]).toUtf8();
        if (rowsOnScreen > 0)
            bytes += "\033[?7h";
    }
    return bytes;
}
