// Every key of settings.ini, once: its getter, name, default, range and meaning.
//
// The class CSettings makes a getter of each row, settingsKeys[] in csettings.h lists them for programs that
// show or change settings, and the log takes the switches of its categories from there.
#pragma once

// clang-format off

// Debug/all, then the categories of the log in the order of their numbers.
#define SETTINGS_FLAGS(FLAG) \
    FLAG(debugAll,                       "Debug/all",                       false, "трассировка функций и все категории лога (после перезапуска)") \
    FLAG(debugIpcData,                   "Debug/ipcData",                   false, "лог: данные межпроцессного обмена") \
    FLAG(debugIpcExtra,                  "Debug/ipcExtra",                  false, "лог: подробности межпроцессного обмена") \
    FLAG(debugIpcSecurityDaemon,         "Debug/ipcSecurityDaemon",         true,  "лог: обмен со службой безопасности") \
    FLAG(debugIpcTransport,              "Debug/ipcTransport",              false, "лог: обмен с транспортом") \
    FLAG(debugTransportAbonents,         "Debug/transportAbonents",         false, "лог: абоненты") \
    FLAG(debugTransportTransit,          "Debug/transportTransit",          true,  "лог: транзит") \
    FLAG(debugTransportConnects,         "Debug/transportConnects",         true,  "лог: установка и потеря соединений") \
    FLAG(debugTransportDataLifetime,     "Debug/transportDataLifetime",     false, "лог: срок жизни данных") \
    FLAG(debugTransportBaseProtocol,     "Debug/transportBaseProtocol",     false, "лог: базовый протокол") \
    FLAG(debugTransportProtocol,         "Debug/transportProtocol",         true,  "лог: протокол") \
    FLAG(debugTransportProtocolAttaches, "Debug/transportProtocolAttaches", false, "лог: вложения") \
    FLAG(debugTransportIpSocketError,    "Debug/transportIpSocketError",    true,  "лог: ошибки сокетов IP-канала") \
    FLAG(debugTransportComPortError,     "Debug/transportComPortError",     true,  "лог: ошибки последовательных портов") \
    FLAG(debugTransportComAtCommands,    "Debug/transportComAtCommands",    true,  "лог: команды AT") \
    FLAG(debugTransportComPackets,       "Debug/transportComPackets",       false, "лог: пакеты последовательных портов") \
    FLAG(debugTransportComData,          "Debug/transportComData",          false, "лог: данные последовательных портов") \
    FLAG(debugTransportTasks,            "Debug/transportTasks",            true,  "лог: задания") \
    FLAG(debugJournals,                  "Debug/journals",                  true,  "лог: журналы") \
    FLAG(debugMessagesAutodelete,        "Debug/messagesAutodelete",        true,  "лог: автоудаление сообщений") \
    FLAG(debugMessagesLock,              "Debug/messagesLock",              false, "лог: блокировка сообщений")

// Milliseconds, but for transportIpMaxReconnectTimeout, which counts in the unit of the delay it bounds.
// Permissions are QFileDevice::Permissions as a number; their range is numeric, not a mask.
#define SETTINGS_NUMBERS(NUMBER) \
    NUMBER(detailsMaxWritingTime,                   "Details/maxWritingTime",                   5000,   100,    10000,  "предел одной записи в сокет или файл, мс") \
    NUMBER(detailsTransportIpConnectTimeout,        "Details/transportIpConnectTimeout",        10000,  500,    60000,  "предел ожидания соединения при вызове, мс") \
    NUMBER(detailsTransportIpThreadStartTimeout,    "Details/transportIpThreadStartTimeout",    1000,   100,    60000,  "предел ожидания запуска потока вызова, мс") \
    NUMBER(detailsTransportServerThreadStopTimeout, "Details/transportServerThreadStopTimeout", 10000,  100,    60000,  "предел ожидания потоков при остановке, мс") \
    NUMBER(detailsTransportIpMaxReconnectTimeout,   "Details/transportIpMaxReconnectTimeout",   120,    10,     3600,   "наибольшая пауза между повторными вызовами, с") \
    NUMBER(dirPermissions,                          "Permissions/dirPermissions",               0x7777, 0x7111, 0x7777, "права создаваемых каталогов (число; 30583 = 0x7777)") \
    NUMBER(filePermissions,                         "Permissions/filePermissions",              0x6666, 0x6000, 0x6666, "права создаваемых файлов (число; 26214 = 0x6666)")

// clang-format on
