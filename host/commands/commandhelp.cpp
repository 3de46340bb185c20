#include "host/commands/commandhelp.h"

#include "common/buildconstants.h"
#include "host/commands/commandline.h"
#include "host/commands/commandtable.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/printing.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int widestLine = 92;
constexpr int narrowestLine = 40;

/// How long lines of the help may be: readable, and as wide as the terminal is if there is one.
int lineWidth()
{
    winsize size{};
    const bool isTerminal = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isTerminal ? qBound(narrowestLine, size.ws_col - 1, widestLine) : widestLine;
}

/// A longer left side gets a line of its own.
int mostColumn()
{
    return lineWidth() / 2;
}

constexpr char summary[] = "обмен сообщениями и файлами между абонентами через модули каналов";

constexpr char screenPurpose[] = "полный экран: разговоры, передачи, журнал (на терминале; клавиши - F1)";

/// What a manual page says besides the table of commands.
struct ManualTexts
{
    const char *section;
    const char *name; // a headline, as are synopsis, commands, files, codes
    const char *summary;
    const char *synopsis;
    const char *options; // in the synopsis
    const char *commands;
    const char *screen; // what the program does without a command
    const char *files;
    const char *place;
    std::vector<std::pair<const char *, const char *>> fileRows;
    const char *package;
    const char *codes;
};

const ManualTexts russianTexts = {
    "Команды пользователя",
    "НАЗВАНИЕ",
    summary,
    "ВЫЗОВ",
    "[ПАРАМЕТРЫ]",
    "КОМАНДЫ",
    screenPurpose,
    "ФАЙЛЫ",
    "Все лежит рядом с каталогом программы.",
    {{"settings/channelIp.conf", "порт и пределы IP-канала"},
     {"settings/settings.ini", "общие настройки"},
     {"data/УРОВЕНЬ/log", "журнал работы (лог)"},
     {"data/УРОВЕНЬ/messages/input", "принятые сообщения"}},
    "В пакете Debian settings и data находятся в /var/lib/ipchannel и открыты группе ipchannel. Службы: "
    "abonent.service и, с установками в /var/lib/abonent, abonent@ИМЯ.service.",
    "КОД ЗАВЕРШЕНИЯ",
};

const ManualTexts englishTexts = {
    "User Commands",
    "NAME",
    "exchange messages and files between abonents through channel modules",
    "SYNOPSIS",
    "[OPTIONS]",
    "COMMANDS",
    "the full screen: conversations, transfers, journal (on a terminal; F1 tells the keys)",
    "FILES",
    "All lies beside the directory of the program. What it prints is Russian.",
    {{"settings/channelIp.conf", "port and limits of the IP channel"},
     {"settings/settings.ini", "general settings"},
     {"data/LEVEL/log", "the log"},
     {"data/LEVEL/messages/input", "received messages"}},
    "In the Debian package settings and data are in /var/lib/ipchannel and open to the group ipchannel. "
    "Services: "
    "abonent.service and, with installations in /var/lib/abonent, abonent@NAME.service.",
    "EXIT STATUS",
};

/// Breaks a text into lines. The first one is @a used characters long already.
QString wrapped(const QString &text, int indent, int used)
{
    QString result;
    int column = used;
    const int width = lineWidth();
    const QStringList words = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &word : words) {
        if (column > indent && column + 1 + word.size() > width) {
            result += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            column = indent;
        } else if (column > indent) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result;
}

struct Row
{
    QString left;
    QString right;
};

/// Two columns, the left one as wide as it has to be.
QString columns(const std::vector<Row> &rows)
{
    int width = 0;
    for (const Row &row : rows)
        width = std::max(width, row.left.size() <= mostColumn() ? row.left.size() : 0);
    const int indent = 2 + width + 3;
    QString result;
    for (const Row &row : rows) {
        QString left = QStringLiteral("  ") + row.left;
        left = row.left.size() <= width ? left.leftJustified(indent)
                                        : left + QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
        result += left + wrapped(row.right, indent, indent) + QLatin1Char('\n');
    }
    return result;
}

std::vector<CommandForm> shownForms(const Command &command)
{
    std::vector<CommandForm> result;
    std::copy_if(command.forms.begin(), command.forms.end(), std::back_inserter(result),
                 [](const CommandForm &form) { return form.purpose; });
    return result;
}

QString usage(const Command &command, const CommandForm &form)
{
    const QString operands = QString::fromUtf8(form.operands);
    return QStringLiteral("abonent %1").arg(QLatin1String(command.name)) +
           (operands.isEmpty() ? operands : QLatin1Char(' ') + operands);
}

std::vector<CommandOption> shownOptions(const Command &command)
{
    std::vector<CommandOption> result;
    std::copy_if(command.options.begin(), command.options.end(), std::back_inserter(result),
                 [](const CommandOption &option) { return option.meaning; });
    return result;
}

QString usageWithOptions(const Command &command, const CommandForm &form,
                         const ManualTexts &texts = russianTexts)
{
    return usage(command, form) +
           (shownOptions(command).empty() ? QString() : QLatin1Char(' ') + QString::fromUtf8(texts.options));
}

QStringList paragraphs(const Command &command)
{
    return QString::fromUtf8(command.details).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool isExample(const QString &paragraph)
{
    return paragraph.startsWith(QLatin1Char(' '));
}

QString overview()
{
    std::vector<Row> commands{{QStringLiteral("abonent"), QString::fromUtf8(screenPurpose)}};
    for (const Command &command : commandTable()) {
        for (const CommandForm &form : shownForms(command))
            commands.push_back({usage(command, form), QString::fromUtf8(form.purpose)});
    }
    commands.push_back({QStringLiteral("abonent help КОМАНДА"),
                        QStringLiteral("подробно о команде; то же: abonent КОМАНДА -h")});
    commands.push_back({QStringLiteral("abonent --version"), QStringLiteral("версия программы")});
    std::vector<Row> codes;
    for (const ExitCodeRow &row : exitCodeTable())
        codes.push_back({row.shownCode(), QString::fromUtf8(row.meaning)});
    return QStringLiteral("abonent - %1\n\nКоманды:\n%2\nКод завершения:\n%3")
        .arg(QString::fromUtf8(summary), columns(commands), columns(codes));
}

// The roff of the manual page: a backslash, a dash and a dot or apostrophe at the start of a line mean more
// than themselves.
QString roff(QString text)
{
    text.replace(QLatin1Char('\\'), QStringLiteral("\\e")).replace(QLatin1Char('-'), QStringLiteral("\\-"));
    if (text.startsWith(QLatin1Char('.')) || text.startsWith(QLatin1Char('\'')))
        text.prepend(QStringLiteral("\\&"));
    return text;
}

QString roffItem(const QString &term, const QString &text)
{
    return QStringLiteral(".TP\n\\fB%1\\fR\n%2\n").arg(roff(term), roff(text));
}

QString manualOf(const Command &command)
{
    QString page;
    for (const CommandForm &form : shownForms(command))
        page += QStringLiteral(".SS %1\n%2.\n")
                    .arg(roff(usage(command, form)), roff(QString::fromUtf8(form.purpose)));
    const QStringList texts = paragraphs(command);
    for (const QString &text : texts)
        page += (isExample(text) ? QStringLiteral(".br\n") : QStringLiteral(".PP\n")) + roff(text.trimmed()) +
                QLatin1Char('\n');
    for (const CommandOption &option : shownOptions(command))
        page += roffItem(option.usage(), QString::fromUtf8(option.meaning));
    return page;
}

} // namespace

QString commandHelp(const Command *command)
{
    if (!command)
        return overview();
    const std::vector<CommandOption> options = shownOptions(*command);
    QString text;
    for (const CommandForm &form : command->forms)
        text += usageWithOptions(*command, form) + QLatin1Char('\n');
    text += QLatin1Char('\n');
    const QStringList texts = paragraphs(*command);
    for (const QString &paragraph : texts)
        text += (isExample(paragraph) ? paragraph : wrapped(paragraph, 0, 0)) + QLatin1Char('\n');
    std::vector<Row> rows;
    rows.reserve(options.size());
    for (const CommandOption &option : options)
        rows.push_back({option.usage(), QString::fromUtf8(option.meaning)});
    return rows.empty() ? text : text + QLatin1Char('\n') + columns(rows);
}

QString manualPage(ManualLanguage language)
{
    const bool isEnglish = language == ManualLanguage::English;
    const ManualTexts &texts = isEnglish ? englishTexts : russianTexts;
    const std::vector<Command> &table = isEnglish ? englishCommandTable() : commandTable();
    const auto headline = [](const char *text) {
        return QStringLiteral(".SH \"%1\"\n").arg(QString::fromUtf8(text));
    };
    QString page = QStringLiteral("'\\\" -*- coding: utf-8 -*-\n.TH ABONENT 1 \"\" \"abonent %1\" \"%2\"\n")
                       .arg(QLatin1String(BuildConstants::version), QString::fromUtf8(texts.section));
    page += headline(texts.name) + QStringLiteral("abonent \\- %1\n").arg(QString::fromUtf8(texts.summary));
    page += headline(texts.synopsis) + QStringLiteral("abonent\n.br\n");
    for (const Command &command : table) {
        for (const CommandForm &form : shownForms(command))
            page += roff(usageWithOptions(command, form, texts)) + QStringLiteral("\n.br\n");
    }
    page += headline(texts.commands) +
            QStringLiteral(".SS abonent\n%1.\n").arg(roff(QString::fromUtf8(texts.screen)));
    for (const Command &command : table) {
        if (!shownForms(command).empty())
            page += manualOf(command);
    }
    page += headline(texts.files) + roff(QString::fromUtf8(texts.place)) + QLatin1Char('\n');
    for (const auto &[file, meaning] : texts.fileRows)
        page += roffItem(QString::fromUtf8(file), QString::fromUtf8(meaning));
    page += QStringLiteral(".PP\n%1\n").arg(roff(QString::fromUtf8(texts.package))) + headline(texts.codes);
    for (const ExitCodeRow &row : exitCodeTable())
        page += roffItem(QStringLiteral("%1 (%2)").arg(row.shownCode(), QLatin1String(row.word)),
                         QString::fromUtf8(isEnglish ? row.english : row.meaning));
    return page;
}

QString bashCompletion()
{
    QStringList names;
    QString cases;
    for (const Command &command : commandTable()) {
        if (shownForms(command).empty())
            continue;
        QStringList options{QStringLiteral("--help")};
        QStringList valued; // after these comes a value, not an option
        QStringList named;  // and after these the name of a contact
        for (const CommandOption &option : shownOptions(command)) {
            options << QStringLiteral("--") + QLatin1String(option.name);
            if (!option.isSwitch() && !option.isValueOptional())
                valued << options.last();
            if (option.isContact())
                named << options.last();
        }
        QStringList actions;
        QStringList people; // actions whose next operand is a contact; "1": the first operand is one
        for (const CommandForm &form : shownForms(command)) {
            actions << form.action();
            if (form.contactOperand() == 1)
                people << QStringLiteral("1");
            else if (form.contactOperand() == 2)
                people << form.action();
        }
        actions.removeAll(QString());
        names << QLatin1String(command.name);
        cases += QStringLiteral(
                     "    %1) options='%2' valued='%3' named='%4' actions='%5' people='%6' words='%7' ;;\n")
                     .arg(names.last(), options.join(QLatin1Char(' ')), valued.join(QLatin1Char(' ')),
                          named.join(QLatin1Char(' ')), actions.join(QLatin1Char(' ')),
                          people.join(QLatin1Char(' ')),
                          command.completions ? command.completions().join(QLatin1Char(' ')) : QString());
    }
    return QStringLiteral(
               R"bash(# Completion for abonent, made from its table of commands. Where nothing fits, bash offers files.
_abonent()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} program=$1
    local commands='%1' options='' valued='' named='' actions='' people='' words='' choice='' operands=0 i
    case ${COMP_WORDS[1]} in
%2    esac
    for ((i = 2; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            ((++operands))
        elif [[ " $valued " == *" ${COMP_WORDS[i]} "* ]]; then
            ((++i))
        fi
    done
    COMPREPLY=()
    if ((COMP_CWORD == 1)) || [[ ${COMP_WORDS[1]} == help && $COMP_CWORD -eq 2 ]]; then
        choice="$commands help --help --version"
    elif [[ " $named " == *" $before "* ]]; then
        _abonent_contacts "$program" "$word"
    elif [[ " $valued " == *" $before "* ]]; then
        choice=''
    elif [[ $word == -* ]]; then
        choice=$options
    elif ((COMP_CWORD == 2)) && [[ -n $actions ]]; then
        choice=$actions
    elif ((operands == 0)) && [[ $people == 1 ]]; then
        _abonent_contacts "$program" "$word"
    elif ((operands == 1)) && [[ " $people " == *" ${COMP_WORDS[2]} "* ]]; then
        _abonent_contacts "$program" "$word"
    else
        choice=$words
    fi
    COMPREPLY+=($(compgen -W "$choice" -- "$word"))
    if [[ ${COMPREPLY[0]} == *= ]]; then compopt -o nospace 2>/dev/null; fi
}
# The names that begin like the word, whatever their case; quoted, unless a quotation mark is open.
_abonent_contacts()
{
    local name begun=${2#[\"\']}
    begun=${begun//\\/}
    while IFS= read -r name; do
        [[ ${name,,} == "${begun,,}"* ]] || continue
        if [[ $2 != [\"\']* ]]; then name=$(printf %q "$name"); fi
        COMPREPLY+=("$name")
    done < <("$1" print-contacts 2>/dev/null)
}
complete -o default -F _abonent abonent
)bash")
        .arg(names.join(QLatin1Char(' ')), cases);
}

int refuse(const CommandLine &line, const QString &mistake)
{
    const QString command = line.command ? QLatin1String(line.command->name) + QLatin1Char(' ') : QString();
    if (line.words.contains(QStringLiteral("--json"))) // as far as it was understood
        setOutputStyle(OutputStyle::Json);
    fail(ExitUsage, mistake);
    printError(QStringLiteral("Подробнее: abonent %1--help").arg(command));
    return ExitUsage;
}
