// The table of commands. Reader, help, manual pages and completion are made of it, so a new command is a
// file of its own here, a row in commandtable.cpp, and the row in English in commandenglish.cpp.
#pragma once

#include <QStringList>

#include <vector>

class CommandLine;

struct CommandOption
{
    enum EmptyValue
    {
        NotEmpty,
        MayBeEmpty,
    };

    const char *name;    // without dashes
    const char *value;   // what stands for its value; null: a switch; "[N]": a number that may be left out;
                         // "АБОНЕНТ": completion offers the contacts
    const char *meaning; // null: not for people, left out of the help
    EmptyValue emptyValue = NotEmpty;
    bool endsOptions = false; // all words behind it are operands

    bool isSwitch() const { return !value; }
    bool isValueOptional() const { return value && *value == '['; }
    bool isContact() const;

    /// "--name ИМЯ"
    QString usage() const;
};

/// One way to call a command.
struct CommandForm
{
    /// Separated by blanks. "АБОНЕНТ": one word, for which completion offers the contacts; "[ФАЙЛ...]": any
    /// number; "КЛЮЧ=ЗНАЧЕНИЕ...": at least one; "set": this very word; "--list": no operand, the form goes
    /// with that switch.
    const char *operands;
    const char *purpose; // one line; null: not for people, left out of the help

    /// The word by which this form is chosen ("set"), or null.
    QString action() const;

    int leastOperands() const;
    int mostOperands() const;

    /// Which operand names a contact, from 1 on; 0: none.
    int contactOperand() const;
};

struct Command
{
    const char *name;
    std::vector<CommandForm> forms;
    std::vector<CommandOption> options;
    const char *details; // paragraphs of the help, separated by line feeds
    int (*run)(const CommandLine &line);
    QStringList (*completions)() = nullptr; // further words that an operand may begin with

    const CommandOption *option(const QString &optionName) const;
};

const std::vector<Command> &commandTable();

/// The rows that people see, in English, for the manual page; their commands cannot be run.
const std::vector<Command> &englishCommandTable();

/// @return null when there is none
const Command *findCommand(const QString &name);
