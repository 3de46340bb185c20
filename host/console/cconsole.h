// Standard output: lines, and on a terminal a few live rows below them.
//
// A thread of its own writes, so a terminal that has been stopped (Ctrl-S) or a pipe that nobody reads
// holds up neither the network nor the program; what cannot be shown in time is counted and skipped.
// Everything passes printable(): no control character of a stranger reaches the terminal.
#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class CConsole
{
public:
    CConsole();

    /// Shows what is still waiting, for a second at the most.
    ~CConsole();

    CConsole(const CConsole &) = delete;
    CConsole &operator=(const CConsole &) = delete;

    /// Whether live rows are shown. The same for the life of the object. [any thread]
    bool isTerminal() const;

    /// Adds a line. [any thread], never blocks
    void line(const QString &text);

    /// Adds a line in columns: time, kind of record ("событие"), source ("IP-канал 3"), text.
    /// [any thread], never blocks
    void record(const QString &kind, const QString &source, const QString &text);

    /// Replaces the rows below the lines; as many are shown as the terminal has room for. Without a
    /// terminal nothing happens. [any thread], never blocks
    void setLiveRows(const QStringList &rows);

private:
    struct State;
    static void run(const std::shared_ptr<State> &state);

    std::shared_ptr<State> state; // also the writer's: it may have to be left behind, blocked
};
