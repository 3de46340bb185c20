#include "host/console/cconsolejournal.h"

#include "common/global.h"
#include "host/console/cconsole.h"
#include "host/console/jsonlines.h"
#include "host/text/reasons.h"

namespace {

/// What scripts get for the texts that channels record.
QString wordOf(const QString &text)
{
    static constexpr const char *words[][2] = {
        {"Запуск", "starting"},
        {"TCP сервер успешно запущен", "listening"},
        {"Ошибка запуска TCP сервера", "listen-failed"},
        {"Ошибка приема входящего соединения", "accept-failed"},
        {"Входящее соединение от", "incoming"},
        {"Вызываем абонента", "calling"},
        {"Вызов отменен", "call-cancelled"},
        {"Установлено соединение с '", "conversing"},
        {"Установлено соединение с", "connected"},
        {"Не удалось установить соединение с", "not-connected"},
        {"Соединение разорвано", "broken-off"},
        {"Потеряно соединение с", "disconnected"},
        {"Первая связь с", "first-contact"},
        {"Абонент отказался", "refused-by-abonent"},
        {"Сообщения для", "waiting"},
        {"Остановка", "stopping"},
    };
    for (const auto &word : words) {
        if (text.startsWith(QString::fromUtf8(word[0])))
            return QLatin1String(word[1]);
    }
    return QStringLiteral("record");
}

} // namespace

void CConsoleJournal::addRecord(int kind, const QString &source, const QString &text)
{
    keepReason(text);
    const QString word = wordOf(text);
    if (isRoutineHidden && (kind != JournalError || word == QLatin1String("listen-failed")) &&
        word != QLatin1String("first-contact"))
        return;
    QJsonObject object = jsonEvent(word);
    object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
    object.insert(QStringLiteral("source"), source);
    object.insert(QStringLiteral("text"), text);
    if (kind == JournalError)
        object.insert(QStringLiteral("code"), QStringLiteral("error"));
    console.json(object);
    if (kind == JournalError)
        console.record(QStringLiteral("ошибка"), source, text, CConsole::Errors);
    else
        console.record(QStringLiteral("событие"), source, text);
}

/// Notes why a call came to nothing: the channel's signal does not say it.
void CConsoleJournal::keepReason(const QString &text)
{
    static const QString beginning = QStringLiteral("Не удалось установить соединение с '");
    const int end = text.startsWith(beginning) ? text.lastIndexOf(QLatin1String("'. ")) : -1;
    if (end < 0)
        return;
    const QString reason = text.mid(end + 3);
    const QString russian = explanationOf(reason);
    const std::lock_guard lock(mutex);
    reasons[Global::filterName(text.mid(beginning.size(), end - beginning.size()))] =
        russian.isNull() ? reason : russian;
}

QString CConsoleJournal::takeReason(const QString &abonentName)
{
    const std::lock_guard lock(mutex);
    return reasons.take(Global::filterName(abonentName));
}
