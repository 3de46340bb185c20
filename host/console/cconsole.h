// Standard output and standard error: lines, and on a terminal a few live rows below them.
//
// A thread of its own writes, so a terminal that has been stopped (Ctrl-S) or a pipe that nobody reads
// holds up neither the network nor the program; what cannot be shown in time is counted and skipped.
// A reader that has gone costs the output and nothing else (CInterruption::block() ignores SIGPIPE).
// Everything passes printable(): no control character from the network reaches the terminal.
//
// By outputStyle() it shows all, errors only, or on standard output nothing but the objects of json().
#pragma once

#include <QJsonObject>
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

    /// The cells that a live row may take now: the last one of the terminal stays free, where the cursor
    /// rests. [any thread]
    int rowWidth() const;

    enum Stream
    {
        Results, // standard output
        Errors,  // standard error
    };

    /// Adds a line. Lines keep their order across both streams. [any thread], never blocks
    void line(const QString &text, Stream stream = Results);

    /// Adds a line of standard error. [any thread], never blocks
    void error(const QString &text) { line(text, Errors); }

    /// Adds a line in columns: time, kind of record ("событие"), source ("IP-канал 3"), text. The first one
    /// of a new day has the date on a line before it.
    /// @param below lines that belong to it, such as a text that has arrived, made by printableLines()
    /// [any thread], never blocks
    void record(const QString &kind, const QString &source, const QString &text, Stream stream = Results,
                const QStringList &below = QStringList());

    /// Adds an object as a line of standard output when that is the style, else nothing. [any thread], never
    /// blocks
    void json(const QJsonObject &object);

    /// Replaces the rows below the lines, each cut to rowWidth(); as many are shown as the terminal has room
    /// for. Without a terminal nothing happens. [any thread], never blocks
    void setLiveRows(const QStringList &rows);

private:
    struct State;
    static void run(const std::shared_ptr<State> &state);

    std::shared_ptr<State> state; // shared with the writing thread, which may stay blocked for ever
};
