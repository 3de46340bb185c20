#include "host/commands/commandhelp.h"

#include "common/buildconstants.h"
#include "host/commands/commandline.h"
#include "host/commands/commandtable.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/printing.h"

#include <algorithm>

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

QString usageWithOptions(const Command &command, const CommandForm &form)
{
    return usage(command, form) +
           (shownOptions(command).empty() ? QString() : QStringLiteral(" [ПАРАМЕТРЫ]"));
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

QString manualPage()
{
    QString page = QStringLiteral("'\\\" -*- coding: utf-8 -*-\n"
                                  ".TH ABONENT 1 \"\" \"abonent %1\" \"Команды пользователя\"\n"
                                  ".SH НАЗВАНИЕ\nabonent \\- %2\n"
                                  ".SH ВЫЗОВ\n")
                       .arg(QLatin1String(BuildConstants::version), QString::fromUtf8(summary));
    page += QStringLiteral("abonent\n.br\n");
    for (const Command &command : commandTable()) {
        for (const CommandForm &form : shownForms(command))
            page += roff(usageWithOptions(command, form)) + QStringLiteral("\n.br\n");
    }
    page += QStringLiteral(".SH КОМАНДЫ\n.SS abonent\n%1.\n").arg(roff(QString::fromUtf8(screenPurpose)));
    for (const Command &command : commandTable()) {
        if (!shownForms(command).empty())
            page += manualOf(command);
    }
    page += QStringLiteral(".SH ФАЙЛЫ\nВсе лежит рядом с каталогом программы.\n");
    for (const auto &[file, meaning] : {std::pair("settings/channelIp.conf", "порт и пределы IP-канала"),
                                        std::pair("settings/settings.ini", "общие настройки"),
                                        std::pair("data/УРОВЕНЬ/log", "журнал работы (лог)"),
                                        std::pair("data/УРОВЕНЬ/messages/input", "принятые сообщения")})
        page += roffItem(QString::fromUtf8(file), QString::fromUtf8(meaning));
    page +=
        QStringLiteral(".PP\nВ пакете Debian settings и data находятся в /var/lib/ipchannel и открыты группе "
                       "ipchannel.\n.SH \"КОД ЗАВЕРШЕНИЯ\"\n");
    for (const ExitCodeRow &row : exitCodeTable())
        page += roffItem(QStringLiteral("%1 (%2)").arg(row.shownCode(), QLatin1String(row.word)),
                         QString::fromUtf8(row.meaning));
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
        for (const CommandOption &option : shownOptions(command)) {
            options << QStringLiteral("--") + QLatin1String(option.name);
            if (!option.isSwitch() && !option.isValueOptional())
                valued << options.last();
        }
        QStringList actions;
        for (const CommandForm &form : shownForms(command))
            actions << form.action();
        actions.removeAll(QString());
        names << QLatin1String(command.name);
        cases += QStringLiteral("    %1) options='%2' valued='%3' actions='%4' words='%5' ;;\n")
                     .arg(names.last(), options.join(QLatin1Char(' ')), valued.join(QLatin1Char(' ')),
                          actions.join(QLatin1Char(' ')),
                          command.completions ? command.completions().join(QLatin1Char(' ')) : QString());
    }
    return QStringLiteral(
               R"(# Completion for abonent, made from its table of commands. Where nothing fits, bash offers files.
_abonent()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]}
    local commands='%1' options='' valued='' actions='' words='' choice
    case ${COMP_WORDS[1]} in
%2    esac
    if ((COMP_CWORD == 1)) || [[ ${COMP_WORDS[1]} == help && $COMP_CWORD -eq 2 ]]; then
        choice="$commands help --help --version"
    elif [[ " $valued " == *" $before "* ]]; then
        choice=''
    elif [[ $word == -* ]]; then
        choice=$options
    elif ((COMP_CWORD == 2)) && [[ -n $actions ]]; then
        choice=$actions
    else
        choice=$words
    fi
    COMPREPLY=($(compgen -W "$choice" -- "$word"))
    if [[ ${COMPREPLY[0]} == *= ]]; then compopt -o nospace 2>/dev/null; fi
}
complete -o default -F _abonent abonent
)")
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
