// The rows of commandtable.cpp in English, for the English manual page: the same commands, forms, options and
// paragraphs in the same order. A test compares the two; a row reads as there.
#include "host/commands/commandtable.h"

namespace {

const CommandOption nameOption = {"name", "NAME",
                                  "name of this abonent; without the option that of the system's user"};
const CommandOption verboseOption = {"verbose", nullptr,
                                     "show the events of the channel and what is written into the log"};

} // namespace

const std::vector<Command> &englishCommandTable()
{
    static const std::vector<Command> table = {
        {"listen",
         {{"", "answer calls, receive messages, deliver what waits"}},
         {nameOption,
          {"to", "DIRECTORY", "put the contents of received messages there; nothing is overwritten"},
          {"metrics", "FILE", "write figures for Prometheus into a file, every 15 s and at the end"},
          {"verbose", nullptr, "show what is written into the log, too"}},
         "Loads all modules of the directory channelPlugins, answers calls, stores messages in the directory "
         "data/LEVEL/messages/input and delivers what abonent send has accepted. On a terminal a table of "
         "the "
         "connections stands at the bottom and events appear above; without one all is printed in lines.\n"
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
          verboseOption},
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
         {},
         "The outbox is what abonent send has accepted and what has not been delivered yet. An abonent may "
         "be "
         "named instead of a number.",
         nullptr},

        {"ping",
         {{"ABONENT [ADDRESS[:PORT]]", "ask whether an abonent is there"}},
         {nameOption, verboseOption},
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
         {{"json", nullptr, "list: each contact is a JSON object on a line of its own"},
          {"address", "ADDRESS[:PORT]", "export: where this installation can be reached"}},
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
          {"json", nullptr, "each row is a JSON object on a line of its own"}},
         "Shows the journal of messages, from old rows to new ones.",
         nullptr},

        {"settings",
         {{"show", "show the settings"}, {"set KEY=VALUE...", "change settings"}},
         {{"repair", nullptr,
           "write a damaged channelIp.conf anew; keys that are not named get their defaults"}},
         "show prints the settings of the IP channel (file channelIp.conf), the general ones (settings.ini) "
         "and "
         "those of messages (generalSettings.ini): value, default, range and meaning of each key.\n"
         "set changes the keys that are named, for example:\n"
         "  abonent settings set port=18002 maxConnections=50\n"
         "  abonent settings set Details/maxWritingTime=3000\n"
         "If one value is not allowed or cannot be written, nothing is changed. A running abonent listen "
         "notices new settings of the IP channel by itself.",
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
