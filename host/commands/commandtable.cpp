#include "host/commands/commandtable.h"

#include "host/commands/commands.h"

#include <algorithm>
#include <limits>

namespace {

QStringList wordsOf(const CommandForm &form)
{
    return QString::fromUtf8(form.operands).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

bool isOperand(const QString &word)
{
    return !word.startsWith(QLatin1String("--"));
}

const CommandOption nameOption = {"name", "ИМЯ",
                                  "имя этого абонента; без параметра - имя пользователя системы"};

} // namespace

const std::vector<Command> &commandTable()
{
    static const std::vector<Command> table = {
        {"listen",
         {{"", "принимать вызовы и сообщения"}},
         {nameOption, {"verbose", nullptr, "показывать и то, что записывается в журнал работы (лог)"}},
         "Загружает все модули каталога channelPlugins, принимает вызовы и сохраняет сообщения в каталог "
         "data/УРОВЕНЬ/messages/input. На терминале внизу показана таблица соединений, выше появляются "
         "события; "
         "без терминала все печатается строками.\n"
         "Работа завершается по Ctrl-C (SIGINT, SIGTERM); повторное нажатие прерывает ее немедленно.",
         runListen},

        {"send",
         {{"АБОНЕНТ АДРЕС[:ПОРТ] [ФАЙЛ...]", "передать тексты и файлы"}},
         {{"text", "ТЕКСТ", "передать текст, не более 1 МБайт; можно повторять"},
          {"retry", "[N]",
           "повторять вызов не более N раз, без числа - пока не удастся; пауза растет: 10, 20, 30, 60, 90, "
           "120 "
           "секунд"},
          nameOption,
          {"verbose", nullptr, "показывать события самого канала и то, что записывается в лог"}},
         "Вызывает абонента, передает ему тексты и файлы и ждет, пока он сохранит их и подтвердит "
         "контрольной "
         "суммой SHA-256. То, что передать нельзя, не мешает остальному; в конце названо, что передано и что "
         "нет. "
         "Имена абонентов сравниваются без учета регистра, только по буквам и цифрам. Порт по умолчанию "
         "18001; "
         "адрес IPv6 с портом пишется как [::1]:18001. После слова -- идут только имена файлов.\n"
         "Слушать порт для передачи не обязательно: если его занимает работающий abonent listen той же "
         "установки, "
         "передаче это не мешает.",
         runSend},

        {"settings",
         {{"show", "показать настройки"}, {"set КЛЮЧ=ЗНАЧЕНИЕ...", "изменить настройки"}},
         {{"repair", nullptr,
           "записать непригодный channelIp.conf заново; неназванные ключи получают значения по умолчанию"}},
         "show печатает настройки IP-канала (файл channelIp.conf) и общие настройки (settings.ini): "
         "значение, "
         "значение по умолчанию, допустимый диапазон и смысл каждого ключа.\n"
         "set изменяет названные ключи, например:\n"
         "  abonent settings set port=18002 maxConnections=50\n"
         "  abonent settings set Details/maxWritingTime=3000\n"
         "Если хотя бы одно значение недопустимо или не записалось, не меняется ничего. Работающий abonent "
         "listen "
         "замечает новые настройки IP-канала сам.",
         runSettings,
         settingsCompletions},

        {"check",
         {{"МОДУЛЬ.so", "проверить модуль канала"}, {"--list", "показать все проверки"}},
         {{"list", nullptr, "показать все проверки"},
          {"only", "ИМЯ[,ИМЯ...]", "выполнить только названные проверки"},
          {"json", nullptr, "напечатать итог в виде JSON"},
          {"verbose", nullptr, "показывать сообщения модуля"},
          {"seed", "N", "зерно случайной проверки: то же зерно - те же действия"},
          {"limit", "МС",
           "сколько ждать того, что должно случиться; обычно 5000. Молчание вдвое дольше считается "
           "зависанием"},
          {"jobs", "N", "сколько проверок идет сразу; обычно по числу процессоров"},
          {"abonent-data", "HEX", "данные абонента, ведущие обратно к этому же каналу или к эху",
           CommandOption::MayBeEmpty},
          {"abonent-file", "ФАЙЛ", "то же, из файла"},
          {"silent-data", "HEX", "данные абонента, который заведомо не отвечает", CommandOption::MayBeEmpty},
          {"settings", "ИМЯ=ФАЙЛ", "положить копию файла под этим именем в каталог settings"},
          {"child", "ИМЯ", nullptr}},
         "Исполняет роль программы перед модулем канала любого вида и проверяет, соблюдает ли он договор. "
         "Каждая "
         "проверка идет в отдельном процессе и во временной установке; эта установка не затрагивается. "
         "IP-канал "
         "проверка настраивает сама.\n"
         "Код завершения: 0 - ошибок нет, 7 - есть ошибки, 1 - нет места для проверок, 2 - ошибка в "
         "командной "
         "строке.",
         runCheck},

        {"print-manual", {{"", nullptr}}, {}, "", runPrintManual},
        {"print-completion", {{"", nullptr}}, {}, "", runPrintCompletion},
    };
    return table;
}

const Command *findCommand(const QString &name)
{
    const auto &table = commandTable();
    const auto found = std::find_if(table.begin(), table.end(), [&name](const Command &command) {
        return name == QLatin1String(command.name);
    });
    return found == table.end() ? nullptr : &*found;
}

const CommandOption *Command::option(const QString &optionName) const
{
    const auto found =
        std::find_if(options.begin(), options.end(), [&optionName](const CommandOption &option) {
            return optionName == QLatin1String(option.name);
        });
    return found == options.end() ? nullptr : &*found;
}

QString CommandOption::usage() const
{
    const QString text = QStringLiteral("--") + QLatin1String(name);
    return isSwitch() ? text : text + QLatin1Char(' ') + QString::fromUtf8(value);
}

QString CommandForm::action() const
{
    const QString first = wordsOf(*this).value(0);
    return !first.isEmpty() && first.at(0).isLower() ? first : QString();
}

int CommandForm::leastOperands() const
{
    const QStringList words = wordsOf(*this);
    return int(std::count_if(words.begin(), words.end(), [](const QString &word) {
        return isOperand(word) && !word.startsWith(QLatin1Char('['));
    }));
}

int CommandForm::mostOperands() const
{
    const QStringList words = wordsOf(*this);
    if (QString::fromUtf8(operands).contains(QLatin1String("...")))
        return std::numeric_limits<int>::max();
    return int(std::count_if(words.begin(), words.end(), isOperand));
}
