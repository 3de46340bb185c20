#include "host/commands/exitcodes.h"

#include <algorithm>

QString ExitCodeRow::shownCode() const
{
    return code < ExitInterrupted ? QString::number(code) : QStringLiteral("%1 + N").arg(code);
}

const std::vector<ExitCodeRow> &exitCodeTable()
{
    static const std::vector<ExitCodeRow> table = {
        {ExitDone, "done", "выполнено", "done"},
        {ExitTrouble, "installation", "неисправность установки: нет модуля канала, нет прав, нет места",
         "the installation is out of order: no channel module, no rights, no room"},
        {ExitUsage, "usage", "ошибка в командной строке", "a mistake in the command line"},
        {ExitNoAnswer, "no-answer", "абонент не отвечает", "the abonent does not answer"},
        {ExitSomebodyElse, "somebody-else", "ответил другой абонент", "another abonent has answered"},
        {ExitNotDelivered, "not-delivered", "соединение было, но передано или подтверждено не все",
         "connected, but not all was sent or confirmed"},
        {ExitBadValue, "bad-value", "недопустимое значение настройки", "a value of a setting is not allowed"},
        {ExitBadChannel, "bad-channel", "модуль канала нарушает договор",
         "the channel module breaks the contract"},
        {ExitKeyChanged, "key-changed", "абонент показал другой ключ, чем тот, с которым он известен",
         "the abonent has shown another key than the one it is known by"},
        {ExitRefused, "refused", "одна из сторон не принимает другую: запрещено контактами или настройкой",
         "one side does not accept the other: contacts or a setting forbid it"},
        {ExitNoRoom, "no-room", "у абонента сейчас нет места или исчерпан предел",
         "the abonent has no room now, or a limit is reached"},
        {ExitNameTaken, "name-taken", "имя записано с другим ключом: свое у абонента или его здесь",
         "a name is recorded with another key: the own one over there, or the abonent's here"},
        {ExitOtherVersion, "other-version", "у абонента другая версия протокола",
         "the abonent speaks another version of the protocol"},
        {ExitInterrupted, "interrupted", "работа прервана сигналом N", "ended by the signal N"},
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
