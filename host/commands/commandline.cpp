#include "host/commands/commandline.h"

namespace {

struct CommandForm
{
    const char *name;
    const char *options; // separated by blanks; null: the command reads its words itself
    int leastOperands;
    int mostOperands; // -1: any number
};

// A new command gets a line here, a line in main.cpp and a text in commandhelp.cpp.
constexpr CommandForm forms[] = {
    {"listen", "--name --verbose", 0, 0},
    {"send", "--name --verbose --text --retry", 2, -1},
    {"settings", "--repair", 1, -1},
    {"check", nullptr, 0, -1},
};

const CommandForm *formOf(const QString &command)
{
    for (const CommandForm &form : forms) {
        if (command == QLatin1String(form.name))
            return &form;
    }
    return nullptr;
}

/// Walks over the arguments of one command.
class Reader
{
public:
    Reader(const QStringList &arguments, CommandLine *line) : rest(arguments), result(line) {}

    void read(const CommandForm &form)
    {
        const QStringList options = QString::fromLatin1(form.options).split(QLatin1Char(' '));
        bool onlyOperands = false;
        while (!rest.isEmpty() && result->mistake.isNull()) {
            const QString word = rest.takeFirst();
            if (word == QLatin1String("--help") && !onlyOperands)
                result->help = true;
            else if (!form.options || onlyOperands || !word.startsWith(QLatin1String("--")))
                result->operands << word;
            else if (word == QLatin1String("--"))
                onlyOperands = true;
            else
                readOption(word, options);
        }
        const int count = result->operands.size();
        if (result->help || !result->mistake.isNull())
            return;
        if (count < form.leastOperands)
            result->mistake = QStringLiteral("Не хватает аргументов команды %1").arg(result->command);
        else if (form.mostOperands >= 0 && count > form.mostOperands)
            result->mistake = QStringLiteral("Лишний аргумент: %1").arg(result->operands[form.mostOperands]);
    }

private:
    void readOption(const QString &word, const QStringList &allowed)
    {
        const QString option = word.section(QLatin1Char('='), 0, 0);
        const bool hasValue = word.contains(QLatin1Char('='));
        QString value = word.section(QLatin1Char('='), 1);

        if (!allowed.contains(option)) {
            result->mistake = QStringLiteral("Неизвестный параметр: %1").arg(option);
        } else if (option == QLatin1String("--verbose")) {
            result->verbose = true;
        } else if (option == QLatin1String("--repair")) {
            result->repair = true;
        } else if (option == QLatin1String("--retry")) {
            readRetry(hasValue, value);
        } else if (!hasValue && rest.isEmpty()) {
            result->mistake = QStringLiteral("Параметру %1 нужно значение").arg(option);
        } else {
            if (!hasValue)
                value = rest.takeFirst();
            if (option == QLatin1String("--name"))
                result->name = value;
            else
                result->texts << value;
            if (value.isEmpty())
                result->mistake = QStringLiteral("Пустое значение параметра %1").arg(option);
        }
    }

    // The number may be left out, so a following word counts as one only if it is one.
    void readRetry(bool hasValue, const QString &value)
    {
        bool isNumber = false;
        int number = CommandLine::retryForEver;
        if (hasValue) {
            number = value.toInt(&isNumber);
            if (!isNumber || number < 0)
                result->mistake = QStringLiteral("Число повторов задано неверно: %1").arg(value);
        } else if (!rest.isEmpty()) {
            const int next = rest.first().toInt(&isNumber);
            if (isNumber && next >= 0) {
                number = next;
                rest.removeFirst();
            }
        }
        result->retries = number;
    }

    QStringList rest;
    CommandLine *result;
};

void finishSend(CommandLine *line)
{
    line->abonent = line->operands.takeFirst();
    const QString address = line->operands.takeFirst();
    line->files = line->operands;
    line->operands.clear();
    if (line->abonent.isEmpty())
        line->mistake = QStringLiteral("Пустое имя абонента");
    else if (!parseAddress(address, &line->address, &line->port))
        line->mistake = QStringLiteral("Адрес абонента задан неверно: %1").arg(address);
    else if (line->files.isEmpty() && line->texts.isEmpty())
        line->mistake = QStringLiteral("Нечего передавать: укажите файлы или --text");
}

} // namespace

bool parseAddress(const QString &text, QString *address, int *port)
{
    QString host = text;
    QString portText;
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (text.startsWith(QLatin1Char('['))) {
        const int bracket = text.indexOf(QLatin1Char(']'));
        if (bracket < 0)
            return false;
        host = text.mid(1, bracket - 1);
        portText = text.mid(bracket + 1);
        if (!portText.isEmpty() && !portText.startsWith(QLatin1Char(':')))
            return false;
        if (portText == QLatin1String(":"))
            return false;
        portText.remove(0, 1);
    } else if (colon >= 0 && text.indexOf(QLatin1Char(':')) == colon) {
        host = text.left(colon);
        portText = text.mid(colon + 1);
        if (portText.isEmpty())
            return false;
    }
    if (host.trimmed().isEmpty())
        return false;
    if (!portText.isEmpty()) {
        bool isNumber = false;
        const int number = portText.toInt(&isNumber);
        if (!isNumber || number < 1 || number > 65535)
            return false;
        *port = number;
    }
    *address = host.trimmed();
    return true;
}

CommandLine parseCommandLine(const QStringList &arguments)
{
    CommandLine line;
    QStringList rest = arguments;
    const QString first = rest.isEmpty() ? QString() : rest.takeFirst();
    if (first == QLatin1String("--version")) {
        line.version = true;
    } else if (first.isEmpty()) {
        line.mistake = QStringLiteral("Не указана команда");
    } else if (first == QLatin1String("--help") || first == QLatin1String("help")) {
        line.help = true;
        line.command = rest.value(0);
    } else if (const CommandForm *form = formOf(first)) {
        line.command = first;
        Reader(rest, &line).read(*form);
        if (first == QLatin1String("send") && !line.help && line.mistake.isNull())
            finishSend(&line);
    } else {
        line.mistake = QStringLiteral("Неизвестная команда: %1").arg(first);
    }
    return line;
}
