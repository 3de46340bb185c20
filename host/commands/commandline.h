// What the user asks for: arguments become a command or a named mistake. Looks at nothing else.
#pragma once

#include <QString>
#include <QStringList>

/// A command as given by the user. Only the members of its own command are filled.
struct CommandLine
{
    static constexpr int retryForEver = -1;
    static constexpr int defaultPort = 18001;

    QString command; // "listen", "send", "settings", ...; empty: none given
    QString mistake; // what is wrong, in Russian; null when nothing is
    bool help = false;
    bool version = false;

    QString name;         // --name: how this abonent calls itself; empty: the user's name
    bool verbose = false; // --verbose
    bool repair = false;  // --repair

    // send
    QString abonent;
    QString address;
    int port = defaultPort;
    QStringList files;
    QStringList texts;
    int retries = 0; // --retry: further attempts, or retryForEver

    // The words that follow commands without a form of their own ("settings").
    QStringList operands;
};

/// Reads the arguments, the program's own name left out.
CommandLine parseCommandLine(const QStringList &arguments);

/// Splits "host", "host:port", "10.0.0.1:18002", "[::1]:18002" or "::1".
///
/// @return whether the text has such a form; @a port stays as it is when none is given
bool parseAddress(const QString &text, QString *address, int *port);
