// What the user asks for: arguments become a command with operands and options, or a named mistake.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

struct Command;

class CommandLine
{
public:
    /// Reads the arguments, the program's own name left out, by the table of commands. The Qt
    /// application object exists.
    static CommandLine parse(const QStringList &arguments);

    const Command *command = nullptr; // null: none given, or an unknown one
    QString mistake;                  // what is wrong, in Russian; null when nothing is
    bool help = false;
    bool version = false;
    QStringList operands;
    QStringList words; // all that stands behind the command, as it was given

    // Options are named without dashes, as in the command's row; of several values the last one counts.
    bool has(const char *option) const;
    QString value(const char *option) const; // null: not given; empty: an optional value was left out
    QStringList values(const char *option) const;

private:
    void read();
    void checkOperands();

    QHash<QString, QStringList> options;
};
