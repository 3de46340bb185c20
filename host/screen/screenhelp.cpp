#include "host/screen/screenhelp.h"

#include "host/screen/cells.h"
#include "host/screen/cscreenstate.h"
#include "host/screen/messagerows.h"
#include "host/text/textwidth.h"

namespace {

constexpr int keyCells = 13;

/// A line without a key is a heading.
constexpr KeyHint allKeys[] = {
    {"", "Везде (F-клавишу заменяет Alt с цифрой)"},
    {"F1, ?", "эта страница; ? - там, где не пишется текст"},
    {"F2", "разговор"},
    {"F3", "передачи: исходящие и то, что приходит"},
    {"F4", "журнал сообщений"},
    {"F5", "запустить прием в фоне (abonent listen): он принимает и передает и после выхода отсюда; "
           "остановить его"},
    {"F6", "отвечает ли абонент"},
    {"F7", "послать файл или каталог; Tab дополняет путь, ~ - домашний каталог"},
    {"F8", "добавить контакт: ИМЯ АДРЕС[:ПОРТ]"},
    {"F10, Ctrl-C", "выход; принятое к отправке остается в исходящих"},
    {"Ctrl-Z", "приостановить, вернуться - fg"},
    {"Ctrl-L", "нарисовать заново"},
    {"Esc", "назад"},
    {"", "Контакты"},
    {"стрелки", "выбрать"},
    {"Enter, Tab", "писать, можно и сразу; сообщения этого абонента считаются прочитанными"},
    {"", "Текст"},
    {"Enter", "отправить"},
    {"Alt-Enter", "новая строка; вставленный текст сам не отправляется"},
    {"Вверх, Вниз", "по строкам текста, дальше - листать разговор; PgUp, PgDn - по странице"},
    {"Ctrl-W", "удалить слово; Ctrl-U - весь текст"},
    {"Tab, Esc", "к контактам"},
    {"", "Передачи"},
    {"Enter", "передать сейчас, и то, что не было принято"},
    {"Del", "отозвать"},
    {"", "Пометки у контакта"},
    {"2 нов", "непрочитанных сообщений"},
    {"ждет 1", "наших сообщений еще не доставлено"},
    {"ключ!", "абонент показал другой ключ: abonent contact trust"},
    {"блок", "заблокирован: abonent contact unblock"},
};

} // namespace

std::vector<KeyHint> keyHints(const CScreenState &state)
{
    if (state.question() == CScreenState::WhichFile)
        return {{"Enter", "послать"}, {"Tab", "дополнить"}, {"Esc", "отменить"}};
    if (state.question() == CScreenState::WhichContact)
        return {{"Enter", "добавить"}, {"Esc", "отменить"}};
    switch (state.view()) {
    case CScreenState::Transfers:
        return {{"?", "все"}, {"Enter", "передать"}, {"Del", "отозвать"}, {"Esc", "назад"}, {"F10", "выход"}};
    case CScreenState::Journal:
    case CScreenState::Help:
        return {{"Esc", "назад"}, {"PgUp", "выше"}, {"PgDn", "ниже"}, {"F10", "выход"}};
    default:
        break;
    }
    if (state.focus() == CScreenState::OnContacts)
        return {{"?", "все"},       {"Enter", "писать"}, {"F10", "выход"}, {"F7", "файл"},
                {"F3", "передачи"}, {"F4", "журнал"},    {"F8", "контакт"}};
    return {{"F1", "все"},      {"Enter", "отправить"}, {"Tab", "контакты"}, {"F7", "файл"},
            {"F3", "передачи"}, {"F4", "журнал"},       {"F10", "выход"}};
}

QStringList helpLines(int width)
{
    QStringList lines;
    for (const KeyHint &hint : allKeys) {
        const QString key = QString::fromUtf8(hint.key);
        const QString word = QString::fromUtf8(hint.word);
        if (key.isEmpty())
            lines << cutToCells(word + QLatin1Char(':'), width);
        else
            lines +=
                hanging(Cells::fitted(QStringLiteral("  ") + key, keyCells + 2) + word, width, keyCells + 2);
    }
    return lines;
}
