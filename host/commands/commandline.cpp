#include "host/commands/commandline.h"

#include "host/commands/commandtable.h"

#include <QCommandLineParser>
#include <QTranslator>

#include <algorithm>
#include <cstring>

namespace {

/// What QCommandLineParser says, in Russian.
class RussianMessages : public QTranslator
{
public:
    bool isEmpty() const override { return false; }

    QString translate(const char *context, const char *source, const char *, int) const override
    {
        static constexpr const char *texts[][2] = {
            {"Missing value after '%1'.", "Параметру %1 нужно значение"},
            {"Unexpected value after '%1'.", "Параметр %1 не принимает значения"},
        };
        for (const auto &text : texts) {
            if (std::strcmp(context, "QCommandLineParser") == 0 && std::strcmp(source, text[0]) == 0)
                return QString::fromUtf8(text[1]);
        }
        return QString();
    }
};

const CommandOption *optionOf(const Command &command, const QString &word)
{
    const int dashes = word.startsWith(QLatin1String("--")) ? 2 : 1; // the parser takes one as well
    return word.startsWith(QLatin1Char('-')) ? command.option(word.mid(dashes)) : nullptr;
}

/// Joins options whose value may be left out with their value: the parser knows no such options. Only a
/// number that follows counts as the value.
QStringList withOptionalValuesJoined(const Command &command, QStringList rest)
{
    QStringList result;
    while (!rest.isEmpty()) {
        const QString word = rest.takeFirst();
        result << word;
        if (word == QLatin1String("--"))
            return result + rest;
        const CommandOption *option = optionOf(command, word);
        if (option && option->endsOptions)
            return result << QStringLiteral("--") << rest;
        if (!option || option->isSwitch())
            continue;
        bool isNumber = false;
        rest.value(0).toUInt(&isNumber);
        if (option->isValueOptional())
            result.last() += QLatin1Char('=') + (isNumber ? rest.takeFirst() : QString());
        else if (!rest.isEmpty())
            result << rest.takeFirst();
    }
    return result;
}

} // namespace

CommandLine CommandLine::parse(const QStringList &arguments)
{
    CommandLine line;
    line.words = arguments.mid(1);
    const QString first = arguments.value(0);
    const bool isHelp =
        QStringList{QStringLiteral("help"), QStringLiteral("--help"), QStringLiteral("-h")}.contains(first);
    const QString name = isHelp ? arguments.value(1) : first;
    line.command = findCommand(name);
    line.help = isHelp;
    line.version = first == QLatin1String("--version");

    if (line.version || (isHelp && name.isEmpty()))
        return line;
    if (name.isEmpty())
        line.mistake = QStringLiteral("Не указана команда");
    else if (!line.command && name.startsWith(QLatin1Char('-')))
        line.mistake = QStringLiteral("Неизвестный параметр: %1").arg(name);
    else if (!line.command)
        line.mistake = QStringLiteral("Неизвестная команда: %1").arg(name);
    else if (!isHelp)
        line.read();
    return line;
}

void CommandLine::read()
{
    RussianMessages messages;
    QCoreApplication::installTranslator(&messages); // until it is destroyed
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    parser.addOption(helpOption);
    for (const CommandOption &option : command->options) {
        QCommandLineOption known{QString::fromLatin1(option.name)};
        if (!option.isSwitch())
            known.setValueName(QString::fromUtf8(option.value));
        parser.addOption(known);
    }

    const bool isRead = parser.parse(QStringList(QString()) + withOptionalValuesJoined(*command, words));
    help = parser.isSet(helpOption);
    if (help)
        return;
    if (!isRead) {
        const QString unknown = parser.unknownOptionNames().value(0);
        const QString dashes = QLatin1String(unknown.size() > 1 ? "--" : "-");
        mistake = unknown.isNull() ? parser.errorText()
                                   : QStringLiteral("Неизвестный параметр: %1").arg(dashes + unknown);
        return;
    }
    operands = parser.positionalArguments();
    for (const CommandOption &option : command->options) {
        const QString name = QString::fromLatin1(option.name);
        if (!parser.isSet(name))
            continue;
        const QStringList given = option.isSwitch() ? QStringList(QString()) : parser.values(name);
        options.insert(name, given);
        const bool needsValue =
            !option.isSwitch() && !option.isValueOptional() && option.emptyValue == CommandOption::NotEmpty;
        if (needsValue && given.contains(QString()))
            mistake = QStringLiteral("Пустое значение параметра --%1").arg(name);
    }
    if (mistake.isNull())
        checkOperands();
}

void CommandLine::checkOperands()
{
    const int count = operands.size();
    const QString action = operands.value(0);
    int most = 0;
    bool isKnown = false;
    for (const CommandForm &form : command->forms) {
        if (!form.action().isNull() && form.action() != action)
            continue;
        if (count >= form.leastOperands() && count <= form.mostOperands())
            return;
        isKnown = true;
        most = std::max(most, form.mostOperands());
    }
    const QString name = QString::fromLatin1(command->name);
    if (!isKnown && count > 0)
        mistake = QStringLiteral("Неизвестное действие команды %1: %2").arg(name, action);
    else if (isKnown && count > most)
        mistake = QStringLiteral("Лишний аргумент: %1").arg(operands[most]);
    else
        mistake = QStringLiteral("Не хватает аргументов команды %1").arg(name);
}

bool CommandLine::has(const char *option) const
{
    return options.contains(QLatin1String(option));
}

QString CommandLine::value(const char *option) const
{
    const QStringList given = values(option);
    return given.isEmpty() ? QString() : given.last();
}

QStringList CommandLine::values(const char *option) const
{
    Q_ASSERT_X(command && command->option(QLatin1String(option)), "CommandLine",
               "the command has no such option");
    return options.value(QLatin1String(option));
}
