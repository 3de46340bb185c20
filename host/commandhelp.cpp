#include "host/commandhelp.h"

#include <QString>

namespace {

constexpr char overview[] =
    "abonent - обмен сообщениями и файлами между абонентами через модули каналов\n"
    "\n"
    "Команды:\n"
    "  abonent listen [--name ИМЯ]                       принимать вызовы и сообщения\n"
    "  abonent send АБОНЕНТ АДРЕС[:ПОРТ] ФАЙЛ...         передать файлы\n"
    "  abonent send АБОНЕНТ АДРЕС[:ПОРТ] --text ТЕКСТ    передать текст\n"
    "  abonent settings show                             показать настройки\n"
    "  abonent settings set КЛЮЧ=ЗНАЧЕНИЕ...             изменить настройки\n"
    "\n"
    "  abonent КОМАНДА --help                            подробно о команде\n"
    "  abonent --version                                 версия программы\n"
    "\n"
    "Код завершения:\n"
    "  0  выполнено                          4  ответил другой абонент\n"
    "  1  неисправность установки            5  передано или подтверждено не все\n"
    "  2  ошибка в командной строке          6  недопустимое значение настройки\n"
    "  3  абонент не отвечает                128 + номер сигнала: работа прервана\n";

constexpr char listenHelp[] =
    "abonent listen [--name ИМЯ] [--verbose]\n"
    "\n"
    "Загружает все модули каталога channelPlugins, принимает вызовы и сохраняет сообщения\n"
    "в каталог data/УРОВЕНЬ/messages/input. На терминале внизу показана таблица соединений,\n"
    "выше появляются события; без терминала все печатается строками.\n"
    "Работа завершается по Ctrl-C (SIGINT, SIGTERM); повторное нажатие прерывает ее немедленно.\n"
    "\n"
    "  --name ИМЯ   имя этого абонента; без параметра - имя пользователя системы\n"
    "  --verbose    показывать и то, что записывается в журнал работы (лог)\n";

constexpr char sendHelp[] =
    "abonent send АБОНЕНТ АДРЕС[:ПОРТ] [ФАЙЛ...] [--text ТЕКСТ] [--retry [N]]\n"
    "             [--name ИМЯ] [--verbose]\n"
    "\n"
    "Вызывает абонента, передает ему текст и файлы и ждет, пока он сохранит их и подтвердит\n"
    "контрольной суммой SHA-256. Имена абонентов сравниваются без учета регистра, только по\n"
    "буквам и цифрам. Порт по умолчанию 18001; адрес IPv6 с портом пишется как [::1]:18001.\n"
    "\n"
    "  --text ТЕКСТ   передать текст, не более 1 МБайт\n"
    "  --retry [N]    повторять вызов не более N раз, без числа - пока не удастся;\n"
    "                 пауза растет: 10, 20, 30, 60, 90, 120 секунд\n"
    "  --name ИМЯ     имя этого абонента; без параметра - имя пользователя системы\n"
    "  --verbose      показывать события самого канала и то, что записывается в лог\n"
    "  --             дальше только имена файлов\n"
    "\n"
    "Слушать порт для передачи не обязательно: если его занимает работающий abonent listen\n"
    "той же установки, передаче это не мешает.\n";

constexpr char settingsHelp[] =
    "abonent settings show\n"
    "abonent settings set КЛЮЧ=ЗНАЧЕНИЕ...\n"
    "\n"
    "show печатает настройки IP-канала (файл channelIp.conf) и общие настройки (settings.ini):\n"
    "значение, значение по умолчанию, допустимый диапазон и смысл каждого ключа.\n"
    "set изменяет названные ключи, например:\n"
    "\n"
    "  abonent settings set port=18002 maxConnections=50\n"
    "  abonent settings set Details/maxWritingTime=3000\n"
    "\n"
    "Если хотя бы одно значение недопустимо, не меняется ничего. Работающий abonent listen\n"
    "замечает новые настройки IP-канала сам.\n";

} // namespace

QString commandHelp(const QString &command)
{
    const char *text = overview;
    if (command == QLatin1String("listen"))
        text = listenHelp;
    else if (command == QLatin1String("send"))
        text = sendHelp;
    else if (command == QLatin1String("settings"))
        text = settingsHelp;
    return QString::fromUtf8(text);
}
