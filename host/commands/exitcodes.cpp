#include "host/commands/exitcodes.h"

#include <algorithm>

QString ExitCodeRow::shownCode() const
{
    return code < ExitInterrupted ? QString::number(code) : QStringLiteral("%1 + N").arg(code);
}

const std::vector<ExitCodeRow> &exitCodeTable()
{
    static const std::vector<ExitCodeRow> table = {
        {ExitDone, "done", "выполнено"},
        {ExitTrouble, "installation", "неисправность установки: нет модуля канала, нет прав, нет места"},
        {ExitUsage, "usage", "ошибка в командной строке"},
        {ExitNoAnswer, "no-answer", "абонент не отвечает"},
        {ExitSomebodyElse, "somebody-else", "ответил другой абонент"},
        {ExitNotDelivered, "not-delivered", "соединение было, но передано или подтверждено не все"},
        {ExitBadValue, "bad-value", "недопустимое значение настройки"},
        {ExitBadChannel, "bad-channel", "модуль канала нарушает договор"},
        {ExitKeyChanged, "key-changed", "абонент показал другой ключ, чем тот, с которым он известен"},
        {ExitRefused, "refused", "одна из сторон не принимает другую: запрещено контактами или настройкой"},
        {ExitNoRoom, "no-room", "у абонента сейчас нет места или исчерпан предел"},
        {ExitNameTaken, "name-taken", "имя записано с другим ключом: свое у абонента или его здесь"},
        {ExitOtherVersion, "other-version", "у абонента другая версия протокола"},
        {ExitInterrupted, "interrupted", "работа прервана сигналом N"},
    };
    return table;
}

QString exitWord(int code)
{
    const auto &table = exitCodeTable();
    const auto next =
        std::find_if(table.begin(), table.end(), [code](const ExitCodeRow &row) { return row.code > code; });
    return QLatin1String(std::prev(next)->word);
}
