// The rows of commandtable.cpp in English, for the English manual page: the same commands, forms, options and
// paragraphs in the same order. A test compares the two; a row reads as there.
#include "host/commands/commandtable.h"

namespace {

const CommandOption nameOption = {"name", "NAME",
                                  "name of this abonent; without the option that of the system's user"};
const CommandOption jsonOption = {
    "json", nullptr,
    "print for programs: each line of output is a JSON object; the word in event says what happened, the one "
    "in code why something failed"};
const CommandOption quietOption = {"quiet", nullptr, "say nothing of success, only of errors"};
const CommandOption verboseOption = {
    "verbose", nullptr, "show the events of the channel, digests and what is written into the log"};

} // namespace

const std::vector<Command> &englishCommandTable()
{
    static const std::vector<Command> table = {
        {"listen",
         {{"", "answer calls, receive messages, deliver what waits"}},
         {nameOption,
          {"to", "DIRECTORY", "put the contents of received messages there; nothing is overwritten"},
          {"metrics", "FILE", "write figures for Prometheus into a file, every 15 s and at the end"},
          verboseOption,
          quietOption,
          jsonOption},
         "Loads all modules of the directory channelPlugins, answers calls, stores messages in the directory "
         "data/LEVEL/messages/input and delivers what abonent send has accepted. On a terminal what is on "
         "its way and the connections stand at the bottom and events appear above; without one all is "
         "printed in lines.\n"
         "Ctrl-C (SIGINT, SIGTERM) ends the work; the second one ends it at once.",
         nullptr},

        {"send",
         {{"ABONENT [ADDRESS[:PORT]] [FILE...]", "send texts, files and directories"}},
         {{"text", "TEXT", "send a text of 1 MiB at most; may be repeated"},
          {"now", nullptr, "deliver now or refuse: leave nothing in the outbox"},
          {"retry", "[N]",
           "wait for N more failed attempts, without a number until it succeeds; the pause between them "
           "grows: "
           "10, 20, 30, 60, 90, 120 seconds"},
          nameOption,
          verboseOption,
          quietOption,
          jsonOption},
         "Accepts texts, files, directories (whole) and standard input (-) into the outbox and waits until "
         "the "
         "abonent has stored them and confirmed that with the SHA-256. If the abonent does not answer, the "
         "command ends and what was accepted stays in the outbox: a running abonent listen of the "
         "installation "
         "delivers it, however many attempts that takes.\n"
         "The address is needed once: after that the abonent is known by name (abonent contact). Names are "
         "compared by letters and digits only, whatever their case. The port is 18001 unless given; IPv6 "
         "with a port is written [::1]:18001. Behind the word -- there are only file names.",
         nullptr},

        {"outbox",
         {{"", "show the outbox"},
          {"list [NUMBER...]", "show the outbox"},
          {"retry [NUMBER...]", "send now, also what was refused"},
          {"remove NUMBER...", "withdraw"}},
         {quietOption, jsonOption},
         "The outbox is what abonent send has accepted and what has not been delivered yet. An abonent may "
         "be "
         "named instead of a number.",
         nullptr},

        {"ping",
         {{"ABONENT [ADDRESS[:PORT]]", "ask whether an abonent is there"}},
         {nameOption, verboseOption, quietOption, jsonOption},
         "Calls an abonent and shows its name, key, version of the program and the time that the answer "
         "took. "
         "The setting canCheckOnline may forbid that.",
         nullptr},

        {"contact",
         {{"", "show the contacts"},
          {"add NAME ADDRESS[:PORT]",
           "add a contact; if there is one, give it another address, the key stays"},
          {"list", "show the contacts"},
          {"show [ABONENT]",
           "show a contact, without a name oneself: name, words and key of this installation"},
          {"trust ABONENT [WORDS...]",
           "accept a changed key; when several were shown, the one whose words are given"},
          {"block ABONENT", "accept nothing any more from the abonent and its key"},
          {"unblock ABONENT", "accept again"},
          {"remove ABONENT", "remove a contact and forget its key"},
          {"export [ABONENT]", "print a contact, without a name one's own, to be mailed"},
          {"import FILE", "take a contact from a mail; instead of a file standard input (-)"}},
         {{"address", "ADDRESS[:PORT]", "export: where this installation can be reached"},
          quietOption,
          jsonOption},
         "A contact is a name and the key with which the abonent first came under it. Another key under that "
         "name is refused. A key is shown as ten words: read them to each other over the telephone, they "
         "have "
         "to agree.\n"
         "Who may write is set by abonent settings set Contacts/policy=known, \"first contact\" or all; the "
         "own name by Abonent/name.",
         nullptr},

        {"journal",
         {{"", "show what was sent, received and refused"}},
         {{"since", "WHEN",
           "from a date and time (2026-11-23, \"2026-11-23 09:00\") or of the last minutes, hours, days: "
           "30m, 12h, 7d"},
          {"with", "ABONENT", "only what concerns the abonent"},
          jsonOption},
         "Shows the journal of messages, from old rows to new ones.",
         nullptr},

        {"settings",
         {{"show", "show the settings"},
          {"set KEY=VALUE...", "change settings"},
          {"export", "print all settings as one text, to carry them elsewhere"},
          {"import FILE", "take the settings from such a text; instead of a file standard input (-)"},
          {"check", "check: what is out of range, unknown, damaged, not in force"}},
         {{"repair", nullptr,
           "write a damaged channelIp.conf anew; keys that are not named get their defaults"},
          quietOption,
          jsonOption},
         "show prints the settings of the IP channel (file channelIp.conf), the general ones (settings.ini) "
         "and "
         "those of messages (generalSettings.ini): value, default, range and meaning of each key.\n"
         "set changes the keys that are named, for example:\n"
         "  abonent settings set port=18002 maxConnections=50\n"
         "  abonent settings set Details/maxWritingTime=3000\n"
         "If one value is not allowed or cannot be written, nothing is changed; so it is with import. A "
         "running abonent listen notices new settings of the IP channel by itself.\n"
         "Exit code of check: 0 nothing to remark, 6 there are keys that are not allowed or unknown, 1 a "
         "file "
         "is damaged or cannot be read.",
         nullptr},

        {"log",
         {{"", "show the log of this level"}},
         {{"follow", nullptr, "show the latest and go on with what comes, also in new files"},
          {"since", "WHEN",
           "from a date and time (2026-11-23, \"2026-11-23 09:00\"), a time of today (09:00) or of the last "
           "minutes, hours, days: 30m, 12h, 7d"},
          {"until", "WHEN", "up to this time; a date without a time means to the end of its day"},
          {"source", "NAME", "only records of this source, CIpServer for example; may be repeated"},
          {"thread", "N", "only records of this thread: N is the indentation of its lines"},
          {"grep", "PATTERN",
           "only records whose text fits the regular expression; without capitals in it, case does not "
           "matter"},
          {"last", "N", "only the last N records"},
          {"json", nullptr, "each record is a JSON object on a line of its own"}},
         "Joins lines of the log to records, adds their date and shows them in order of time, from all files "
         "of the directory data/LEVEL/log. The date comes from the file's name and from passing midnight; "
         "after a whole day without records also from the time of the file's change. Compressed files (.gz) "
         "are not read.",
         nullptr},

        {"doctor",
         {{"", "check this installation: what is wrong and what to do"},
          {"ABONENT [ADDRESS[:PORT]]", "check a call step by step and say where it stopped"}},
         {{"json", nullptr, "each line is a JSON object"}},
         "Checks level, rights, settings, key, contacts, modules, port, listen, descriptors, time, language, "
         "disk, log and outbox. Each line says right, attention or ERROR, and below it what to do. Repairs "
         "nothing.\n"
         "A call is checked from the name to a frame there and back; the other side sees it as two short "
         "connections. Who answers for the first time becomes a contact, as with other calls.\n"
         "Exit code: 0 there are no errors, 1 there are; of a call as of abonent ping.",
         nullptr},

        {"check",
         {{"MODULE.so", "check a channel module"},
          {"--host PROGRAM [ARGUMENT...]", "check a program that works with channels"},
          {"--list", "show all checks"}},
         {{"list", nullptr, "show all checks"},
          {"only", "NAME[,NAME...]", "do only the checks that are named"},
          {"json", nullptr, "print the result as JSON"},
          {"verbose", nullptr, "show the messages of the module"},
          {"seed", "N", "seed of the random check: the same seed does the same"},
          {"limit", "MS",
           "how long to wait for what has to happen; 5000 as a rule. Twice that in silence is a hang"},
          {"jobs", "N", "how many checks run at once; as many as there are processors as a rule"},
          {"abonent-data", "HEX", "data of an abonent that lead back to this channel or to an echo",
           CommandOption::MayBeEmpty},
          {"abonent-file", "FILE", "the same from a file"},
          {"silent-data", "HEX", "data of an abonent that certainly does not answer",
           CommandOption::MayBeEmpty},
          {"settings", "NAME=FILE", "put a copy of a file under this name into the directory settings"},
          {"debugger", nullptr, "each check waits until a debugger is attached to its process"},
          {"host", nullptr,
           "check a program: it is run twice in a temporary installation, where an observer stands in for "
           "the "
           "channels. The argument {} is replaced by the name of its file",
           CommandOption::NotEmpty, true},
          {"child", "NAME", nullptr},
          {"known", "NAME", nullptr}},
         "Plays the program before a channel module of any kind and checks whether it keeps the contract. "
         "Each "
         "check runs in a process and a temporary installation of its own; this installation is not touched. "
         "The "
         "IP channel is set up by the check itself.\n"
         "Exit code: 0 nothing is wrong, 7 something is (1 of a program), 1 nothing could be checked, 2 a "
         "mistake "
         "in the command line.",
         nullptr},
    };
    return table;
}
