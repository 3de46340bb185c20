#include "host/commands/commandtable.h"

#include "host/commands/commands.h"
#include "host/settings/settingstable.h"

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

const QString contactWord = QStringLiteral("АБОНЕНТ");

const CommandOption nameOption = {"name", "ИМЯ",
                                  "имя этого абонента; без параметра - имя пользователя системы"};

const CommandOption jsonOption = {"json", nullptr,
                                  "печатать для программ: каждая строка вывода - объект JSON; слово в event "
                                  "говорит, что произошло, в code - "
                                  "почему не удалось"};
const CommandOption quietOption = {"quiet", nullptr, "не сообщать об успехе, только об ошибках"};
const CommandOption verboseOption = {
    "verbose", nullptr, "показывать события самого канала, контрольные суммы и то, что записывается в лог"};

} // namespace

const std::vector<Command> &commandTable()
{
    static const std::vector<Command> table = {
        {"listen",
         {{"", "принимать вызовы и сообщения, передавать исходящие"}},
         {nameOption,
          {"to", "КАТАЛОГ", "складывать содержимое принятых сообщений в этот каталог; ничего не затирается"},
          {"metrics", "ФАЙЛ",
           "записывать в файл показатели работы для Prometheus, каждые 15 с и при завершении"},
          verboseOption,
          quietOption,
          jsonOption},
         "Загружает все модули каталога channelPlugins, принимает вызовы, сохраняет сообщения в каталог "
         "data/УРОВЕНЬ/messages/input и доставляет то, что принял abonent send. На терминале внизу показано, "
         "что передается и принимается, и соединения, выше появляются события; без терминала все печатается "
         "строками.\n"
         "Работа завершается по Ctrl-C (SIGINT, SIGTERM); повторное нажатие прерывает ее немедленно.",
         runListen},

        {"send",
         {{"АБОНЕНТ [АДРЕС[:ПОРТ]] [ФАЙЛ...]", "передать тексты, файлы и каталоги"}},
         {{"text", "ТЕКСТ", "передать текст, не более 1 МБайт; можно повторять"},
          {"now", nullptr, "доставить сейчас или отказаться: не оставлять в исходящих"},
          {"retry", "[N]",
           "ждать еще N неудачных попыток, без числа - пока не удастся; пауза между ними растет: 10, 20, 30, "
           "60, 90, 120 секунд"},
          nameOption,
          verboseOption,
          quietOption,
          jsonOption},
         "Принимает тексты, файлы, каталоги (целиком) и стандартный ввод (-) в исходящие и ждет, пока "
         "абонент "
         "сохранит их и подтвердит контрольной суммой SHA-256. Если абонент не отвечает, команда "
         "завершается, а "
         "принятое остается в исходящих: его доставит работающий abonent listen этой установки, сколько бы "
         "попыток ни понадобилось.\n"
         "Адрес нужен один раз: дальше абонент известен по имени (abonent contact). Имена сравниваются без "
         "учета "
         "регистра, только по буквам и цифрам. Порт по умолчанию 18001; адрес IPv6 с портом пишется как "
         "[::1]:18001. После слова -- идут только имена файлов.",
         runSend},

        {"outbox",
         {{"", "показать исходящие"},
          {"list [НОМЕР...]", "показать исходящие"},
          {"retry [НОМЕР...]", "передать сейчас, и то, что не было принято"},
          {"remove НОМЕР...", "отозвать"}},
         {quietOption, jsonOption},
         "Исходящие - то, что принял abonent send и что еще не доставлено. Вместо номера можно назвать "
         "абонента.",
         runOutbox},

        {"ping",
         {{"АБОНЕНТ [АДРЕС[:ПОРТ]]", "проверить, отвечает ли абонент"}},
         {nameOption, verboseOption, quietOption, jsonOption},
         "Вызывает абонента и показывает его имя, ключ, версию программы и время ответа. Настройка "
         "canCheckOnline может это запретить.",
         runPing},

        {"contact",
         {{"", "показать контакты"},
          {"add ИМЯ АДРЕС[:ПОРТ]", "добавить контакт; если он есть, задать новый адрес, ключ остается"},
          {"list", "показать контакты"},
          {"show [АБОНЕНТ]", "показать контакт, без имени - себя: имя, слова и ключ этой установки"},
          {"trust АБОНЕНТ [СЛОВА...]",
           "принять изменившийся ключ; если показаны разные - тот, чьи слова указаны"},
          {"block АБОНЕНТ", "больше не принимать ничего от абонента и от его ключа"},
          {"unblock АБОНЕНТ", "принимать снова"},
          {"remove АБОНЕНТ", "удалить контакт и забыть его ключ"},
          {"export [АБОНЕНТ]", "напечатать контакт, без имени - свой, чтобы послать его письмом"},
          {"import ФАЙЛ", "взять контакт из письма; вместо файла - стандартный ввод (-)"}},
         {{"address", "АДРЕС[:ПОРТ]", "export: где доступна эта установка"}, quietOption, jsonOption},
         "Контакт - это имя и ключ, с которым абонент впервые вышел на связь под этим именем. Другой ключ "
         "под тем "
         "же именем отвергается. Ключ показывается десятью словами: прочитайте их друг другу по телефону, "
         "они "
         "должны совпасть.\n"
         "Кто может писать, задает abonent settings set Contacts/policy=known, \"first contact\" или all; "
         "свое имя "
         "- Abonent/name.",
         runContact},

        {"journal",
         {{"", "показать, что передано, принято и отклонено"}},
         {{"since", "КОГДА",
           "начиная с даты и времени (2026-11-23, \"2026-11-23 09:00\") или за последние минуты, часы, "
           "сутки: "
           "30m, 12h, 7d"},
          {"with", "АБОНЕНТ", "только то, что касается абонента"},
          jsonOption},
         "Показывает журнал сообщений, от старых записей к новым.",
         runJournal},

        {"settings",
         {{"show", "показать настройки"},
          {"set КЛЮЧ=ЗНАЧЕНИЕ...", "изменить настройки"},
          {"export", "напечатать все настройки одним текстом, чтобы перенести их"},
          {"import ФАЙЛ", "взять настройки из такого текста; вместо файла - стандартный ввод (-)"},
          {"check", "проверить: что вне диапазона, неизвестно, повреждено, не действует"}},
         {{"repair", nullptr,
           "записать непригодный channelIp.conf заново; неназванные ключи получают значения по умолчанию"},
          quietOption,
          jsonOption},
         "show печатает настройки IP-канала (файл channelIp.conf), общие настройки (settings.ini) и "
         "настройки сообщений (generalSettings.ini): "
         "значение, "
         "значение по умолчанию, допустимый диапазон и смысл каждого ключа.\n"
         "set изменяет названные ключи, например:\n"
         "  abonent settings set port=18002 maxConnections=50\n"
         "  abonent settings set Details/maxWritingTime=3000\n"
         "Если хотя бы одно значение недопустимо или не записалось, не меняется ничего; так же и import. "
         "Работающий abonent listen "
         "замечает новые настройки IP-канала сам.\n"
         "Код завершения check: 0 - замечаний нет, 6 - есть недопустимые или неизвестные ключи, 1 - файл "
         "поврежден или не читается.",
         runSettings,
         settingAssignments},

        {"log",
         {{"", "показать лог этого уровня"}},
         {{"follow", nullptr, "показать последнее и дальше то, что появляется, и в новых файлах"},
          {"since", "КОГДА",
           "начиная с даты и времени (2026-11-23, \"2026-11-23 09:00\"), с времени этих суток (09:00) "
           "или за последние минуты, часы, сутки: 30m, 12h, 7d"},
          {"until", "КОГДА", "до этого времени; дата без времени - до конца суток"},
          {"source", "ИМЯ", "только записи этого источника, например CIpServer; можно повторять"},
          {"thread", "N", "только записи этого потока: N - отступ его строк"},
          {"grep", "ОБРАЗЕЦ",
           "только записи, текст которых подходит под регулярное выражение; без больших букв в нем "
           "регистр не важен"},
          {"last", "N", "только N последних записей"},
          {"json", nullptr, "каждая запись - объект JSON на своей строке"}},
         "Соединяет строки лога в записи, дополняет их датой и показывает по порядку времени, из всех "
         "файлов каталога data/УРОВЕНЬ/log. Дата берется из имени файла и переходов через полночь; если "
         "за целые сутки записей не было, - еще и из времени изменения файла. Сжатые файлы (.gz) не "
         "читаются.",
         runLog},

        {"doctor",
         {{"", "проверить эту установку: что не так и что делать"},
          {"АБОНЕНТ [АДРЕС[:ПОРТ]]", "проверить вызов по шагам и сказать, где он прервался"}},
         {{"json", nullptr, "каждая строка - объект JSON"}},
         "Проверяет уровень, права, настройки, ключ, контакты, модули, порт, listen, дескрипторы, время, "
         "язык, диск, лог и исходящие. В каждой строке - верно, внимание или ОШИБКА, ниже - что делать. "
         "Ничего не исправляет.\n"
         "Вызов проверяется от имени до кадра туда и обратно; на той стороне он виден как два коротких "
         "соединения. Тот, кто ответил впервые, становится контактом, как и при других вызовах.\n"
         "Код завершения: 0 - ошибок нет, 1 - есть; при вызове - как у abonent ping.",
         runDoctor},

        {"check",
         {{"МОДУЛЬ.so", "проверить модуль канала"},
          {"--host ПРОГРАММА [АРГУМЕНТ...]", "проверить программу, работающую с каналами"},
          {"--list", "показать все проверки"}},
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
          {"debugger", nullptr, "каждая проверка ждет, пока к ее процессу присоединится отладчик"},
          {"host", nullptr,
           "проверить программу: она дважды запускается во временной установке, где вместо каналов - "
           "наблюдатель. Аргумент {} заменяется именем его файла",
           CommandOption::NotEmpty, true},
          {"child", "ИМЯ", nullptr},
          {"known", "ИМЯ", nullptr}},
         "Исполняет роль программы перед модулем канала любого вида и проверяет, соблюдает ли он договор. "
         "Каждая "
         "проверка идет в отдельном процессе и во временной установке; эта установка не затрагивается. "
         "IP-канал "
         "проверка настраивает сама.\n"
         "Код завершения: 0 - ошибок нет, 7 - есть ошибки (у программы - 1), 1 - проверить ничего не "
         "удалось, 2 - "
         "ошибка в командной строке.",
         runCheck},

        {"print-manual", {{"[ЯЗЫК]", nullptr}}, {}, "", runPrintManual},
        {"print-completion", {{"", nullptr}}, {}, "", runPrintCompletion},
        {"print-contacts", {{"", nullptr}}, {}, "", runPrintContacts},
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

int CommandForm::contactOperand() const
{
    const QStringList words = wordsOf(*this);
    return std::max(words.indexOf(contactWord),
                    words.indexOf(QLatin1Char('[') + contactWord + QLatin1Char(']'))) +
           1;
}

bool CommandOption::isContact() const
{
    return QString::fromUtf8(value) == contactWord;
}
