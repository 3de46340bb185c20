#include "host/screen/cscreenstate.h"

#include "host/screen/pathcompletion.h"

#include <algorithm>

namespace {

constexpr int quitFunction = 10;

/// The index of the element that is chosen, or -1.
template <typename List, typename IsChosen>
int indexOf(const List &list, const IsChosen &isChosen)
{
    const auto found = std::find_if(list.begin(), list.end(), isChosen);
    return found == list.end() ? -1 : int(found - list.begin());
}

/// Where an arrow or page key leads from @a index in a list.
int moved(const ScreenKey &key, int index, int size, int page)
{
    int to = index;
    switch (key.code) {
    case ScreenKey::Up:
        to = index - 1;
        break;
    case ScreenKey::Down:
        to = index + 1;
        break;
    case ScreenKey::PageUp:
        to = index - page;
        break;
    case ScreenKey::PageDown:
        to = index + page;
        break;
    case ScreenKey::Home:
        to = 0;
        break;
    case ScreenKey::End:
        to = size - 1;
        break;
    default:
        break;
    }
    return qBound(0, to, qMax(0, size - 1));
}

bool isLetter(const ScreenKey &key, const char *letters)
{
    return key.code == ScreenKey::Character && QString::fromUtf8(letters).contains(key.text);
}

} // namespace

ScreenAction CScreenState::press(const ScreenKey &key, const ScreenContents &contents)
{
    if (key.code == ScreenKey::Suspend)
        return {ScreenAction::Suspend, {}, {}, {}};
    if (key.code == ScreenKey::Redraw)
        return {ScreenAction::Redraw, {}, {}, {}};
    said.clear();
    chosenName = nameOf(contents);
    const QString warning = warned; // lasts for one key
    const ScreenAction action = [&] {
        if (key.code == ScreenKey::Interrupt)
            return quit();
        if (key.code == ScreenKey::Function)
            return pressFunction(key.number, contents);
        if (asked != NoQuestion)
            return pressInQuestion(key);
        if (shownView == Transfers)
            return pressInTransfers(key, contents);
        if (shownView != Talk)
            return pressInPages(key);
        return focused == OnText ? pressInText(key, contents) : pressInContacts(key, contents);
    }();
    if (warned == warning)
        warned.clear();
    return action;
}

void CScreenState::fit(const ScreenContents &contents)
{
    if (!contents.contact(chosen)) {
        chosen = contents.contacts.empty() ? QString() : contents.contacts.front().key;
        focused = OnContacts;
    }
    const int transfer = indexOf(
        contents.transfers, [this](const ScreenTransfer &each) { return each.number == chosenTransfer; });
    if (transfer < 0)
        chosenTransfer = contents.transfers.empty() ? QString() : contents.transfers.front().number;
}

void CScreenState::setExtent(int pageRows, int mostScroll)
{
    page = qMax(1, pageRows);
    scrolled = qMin(scrolled, qMax(0, mostScroll));
}

QString CScreenState::read() const
{
    return shownView == Talk && focused == OnText && scrolled == 0 ? chosen : QString();
}

void CScreenState::giveBack(const QString &contactKey, const QString &text)
{
    CEditor &draft = drafts[contactKey];
    if (draft.isEmpty())
        draft.setText(text);
}

const CEditor &CScreenState::editor() const
{
    static const CEditor empty;
    if (asked != NoQuestion)
        return answered;
    const auto found = drafts.find(chosen);
    return found == drafts.end() ? empty : *found;
}

CEditor &CScreenState::currentEditor()
{
    return asked != NoQuestion ? answered : drafts[chosen];
}

ScreenAction CScreenState::pressFunction(int number, const ScreenContents &contents)
{
    ask(NoQuestion);
    switch (number) {
    case 1:
        show(Help);
        break;
    case 2:
        show(Talk);
        break;
    case 3:
        show(Transfers);
        break;
    case 4:
        show(Journal);
        break;
    case 5:
        return switchResident(contents);
    case 6:
        return forContact(ScreenAction::Ping);
    case 7:
        if (forContact(ScreenAction::SendPath).kind != ScreenAction::Nothing) {
            show(Talk);
            ask(WhichFile);
        } else {
            say(QStringLiteral("Сначала нужен контакт: F8"));
        }
        break;
    case 8:
        show(Talk);
        ask(WhichContact);
        break;
    case quitFunction:
        return quit();
    default:
        break;
    }
    return {};
}

ScreenAction CScreenState::switchResident(const ScreenContents &contents)
{
    if (!contents.hasResident)
        return {ScreenAction::StartResident, {}, {}, {}};
    if (isConfirmed(QStringLiteral("Прием идет. Остановить его - F5 еще раз")))
        return {ScreenAction::StopResident, {}, {}, {}};
    return {};
}

/// An action that concerns the chosen contact; nothing when there is none.
ScreenAction CScreenState::forContact(ScreenAction::Kind kind) const
{
    return {chosen.isEmpty() ? ScreenAction::Nothing : kind, chosenName, {}, {}};
}

ScreenAction CScreenState::pressInQuestion(const ScreenKey &key)
{
    if (key.code == ScreenKey::Escape) {
        ask(NoQuestion);
    } else if (key.code == ScreenKey::Enter) {
        return answer();
    } else if (key.code == ScreenKey::Tab && asked == WhichFile) {
        const PathCompletion completion = PathCompletion::of(answered.text());
        answered.setText(completion.path);
        paths = completion.candidates;
    } else if (edit(key)) {
        paths.clear();
    }
    return {};
}

ScreenAction CScreenState::answer()
{
    const Question question = asked;
    const QString text = answered.text();
    if (text.trimmed().isEmpty()) {
        ask(NoQuestion);
        return {};
    }
    ScreenAction action = {ScreenAction::AddContact, {}, text.trimmed(), {}};
    if (question == WhichFile) {
        action = forContact(ScreenAction::SendPath);
        action.text = withHome(text);
        focused = OnText;
    }
    ask(NoQuestion);
    return action;
}

ScreenAction CScreenState::pressInContacts(const ScreenKey &key, const ScreenContents &contents)
{
    const bool isWritten = key.code == ScreenKey::Character || key.code == ScreenKey::Paste;
    const bool isOpened =
        key.code == ScreenKey::Enter || key.code == ScreenKey::Tab || key.code == ScreenKey::Right;
    if (isLetter(key, "?"))
        show(Help);
    else if ((isWritten || isOpened) && !chosen.isEmpty())
        focused = OnText;
    else
        move(key, contents);
    return isWritten && focused == OnText ? pressInText(key, contents) : ScreenAction();
}

void CScreenState::move(const ScreenKey &key, const ScreenContents &contents)
{
    if (contents.contacts.empty())
        return;
    const int index =
        indexOf(contents.contacts, [this](const ScreenContact &contact) { return contact.key == chosen; });
    const QString to =
        contents.contacts[std::size_t(moved(key, index, int(contents.contacts.size()), page))].key;
    scrolled = to == chosen ? scrolled : 0;
    chosen = to;
}

ScreenAction CScreenState::pressInText(const ScreenKey &key, const ScreenContents &contents)
{
    if (key.code == ScreenKey::Enter)
        return sendText(contents);
    if (key.code == ScreenKey::Tab || key.code == ScreenKey::Escape)
        focused = OnContacts;
    else if (key.code == ScreenKey::LineFeed)
        currentEditor().insert(QStringLiteral("\n"));
    else if (!edit(key))
        scrollBy(key);
    return {};
}

ScreenAction CScreenState::sendText(const ScreenContents &contents)
{
    const QString text = editor().text();
    if (text.trimmed().isEmpty())
        return {};
    currentEditor().clear();
    scrolled = 0;
    return {ScreenAction::SendText, nameOf(contents), text, {}};
}

ScreenAction CScreenState::pressInTransfers(const ScreenKey &key, const ScreenContents &contents)
{
    const auto &list = contents.transfers;
    const int index =
        indexOf(list, [this](const ScreenTransfer &each) { return each.number == chosenTransfer; });
    const bool isOurs = index >= 0 && list[std::size_t(index)].isOurs();
    if (isOurs && key.code == ScreenKey::Enter)
        return {ScreenAction::Retry, {}, {}, chosenTransfer};
    if (isOurs && key.code == ScreenKey::Delete) {
        if (isConfirmed(QStringLiteral("Отозвать сообщение %1? Del еще раз").arg(chosenTransfer)))
            return {ScreenAction::Withdraw, {}, {}, chosenTransfer};
        return {};
    }
    if (index >= 0)
        chosenTransfer = list[std::size_t(moved(key, index, int(list.size()), page))].number;
    return pressInPages(key);
}

ScreenAction CScreenState::pressInPages(const ScreenKey &key)
{
    if (isLetter(key, "?") && shownView != Help)
        show(Help);
    else if (isLetter(key, "qQйЙ") || key.code == ScreenKey::Escape || isLetter(key, "?"))
        show(shownView == Help ? viewBeforeHelp : Talk);
    else if (shownView != Transfers)
        scrollBy(key);
    return {};
}

ScreenAction CScreenState::quit()
{
    if (hasDrafts() && !isConfirmed(QStringLiteral("Недописанный текст пропадет. Выйти - еще раз")))
        return {};
    return {ScreenAction::Quit, {}, {}, {}};
}

bool CScreenState::hasDrafts() const
{
    return std::any_of(drafts.begin(), drafts.end(),
                       [](const CEditor &draft) { return !draft.text().trimmed().isEmpty(); });
}

/// Whether this is the second time in a row; the first time only warns.
bool CScreenState::isConfirmed(const QString &warning)
{
    const bool isSecond = warned == warning;
    warned = isSecond ? QString() : warning;
    if (!isSecond)
        say(warning);
    return isSecond;
}

/// @return whether the key was one for writing
bool CScreenState::edit(const ScreenKey &key)
{
    CEditor &now = currentEditor();
    switch (key.code) {
    case ScreenKey::Character:
        now.insert(key.text);
        return true;
    case ScreenKey::Paste: // a line feed in it does not send; a path has none
        now.insert(asked == NoQuestion ? key.text : key.text.section(QLatin1Char('\n'), 0, 0));
        return true;
    case ScreenKey::Left:
        now.left();
        return true;
    case ScreenKey::Right:
        now.right();
        return true;
    case ScreenKey::Up:
        return now.up();
    case ScreenKey::Down:
        return now.down();
    case ScreenKey::Home:
        now.toStart();
        return true;
    case ScreenKey::End:
        now.toEnd();
        return true;
    case ScreenKey::Backspace:
        now.deleteBefore();
        return true;
    case ScreenKey::Delete:
        now.deleteAfter();
        return true;
    case ScreenKey::DeleteWord:
        now.deleteWord();
        return true;
    case ScreenKey::DeleteAll:
        now.clear();
        return true;
    default:
        return false;
    }
}

bool CScreenState::scrollBy(const ScreenKey &key)
{
    const int back = shownView == Help ? -1 : 1; // the help is read from the start
    int rows = 0;
    if (key.code == ScreenKey::Up || key.code == ScreenKey::Down)
        rows = 1;
    else if (key.code == ScreenKey::PageUp || key.code == ScreenKey::PageDown)
        rows = page;
    else
        return false;
    const bool isUp = key.code == ScreenKey::Up || key.code == ScreenKey::PageUp;
    scrolled = qMax(0, scrolled + (isUp ? back : -back) * rows);
    return true;
}

void CScreenState::show(View view)
{
    if (view == Help && shownView != Help)
        viewBeforeHelp = shownView;
    shownView = view;
    scrolled = 0;
}

void CScreenState::ask(Question question)
{
    asked = question;
    answered.clear();
    paths.clear();
}

QString CScreenState::nameOf(const ScreenContents &contents) const
{
    const ScreenContact *contact = contents.contact(chosen);
    return contact ? contact->name : QString();
}
