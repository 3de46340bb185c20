// The full screen without a terminal: what is shown of an installation, where it lies, what the keys do.
#include "host/screen/cells.h"
#include "host/screen/cscreenstate.h"
#include "host/screen/messagerows.h"
#include "host/screen/pathcompletion.h"
#include "host/screen/screenpicture.h"
#include "host/text/textwidth.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

using Strings = QStringList;

const QDateTime noon(QDate(2026, 11, 23), QTime(12, 0));
const QString hostile =
    "e\u0301\u0302\u0303\u0304 \u202Eобман\u202C \x1b[2J 日本語 👍🏽 \t a\u200Bb \U000E0001 "_s;

ScreenMessage message(ScreenMessage::State state, const QString &identity, const QString &text, int minute)
{
    ScreenMessage made;
    made.state = state;
    made.identity = identity;
    made.abonent = "Борис"_s;
    made.text = text;
    made.date = noon.addSecs(minute * 60);
    made.place = state == ScreenMessage::Received ? "/data/0/messages/input/1"_s : QString();
    return made;
}

JournalEntry row(JournalRow kind, const QString &identity, int minute)
{
    JournalEntry made;
    made.kind = kind;
    made.abonent = "БОРИС!"_s;
    made.message = identity;
    made.size = 5;
    made.date = noon.addSecs(minute * 60);
    return made;
}

CContact contact(const QString &name)
{
    CContact made;
    made.name = name;
    return made;
}

/// An installation that shows everything at its worst.
ScreenContents hostileContents()
{
    ScreenSources sources;
    for (int i = 0; i < 40; ++i)
        sources.contacts << contact("%1 %2"_s.arg(hostile).arg(i));
    for (int i = ScreenMessage::Received; i <= ScreenMessage::Event; ++i) {
        const auto state = ScreenMessage::State(i);
        for (const QString &text :
             {hostile.repeated(20), "строка\n\n"_s + hostile, "x"_s.repeated(500), QString()}) {
            ScreenMessage made = message(state, QString::number(sources.received.size()), text, i);
            made.abonent = hostile + "0"_s;
            made.reason = hostile.repeated(3);
            sources.received.push_back(made);
            made.kind = OfferFrame::File;
            made.name = hostile;
            made.identity += "f"_s;
            sources.received.push_back(made);
        }
        sources.transfers.push_back({QString::number(i), hostile, hostile, 1 << 30, 34, state, hostile});
        JournalEntry entry = row(JournalRow(i), QString(), i);
        entry.text = hostile.repeated(4);
        sources.journal << entry;
    }
    ScreenContents contents = assemble(sources);
    contents.ownName = hostile;
    contents.trouble = hostile.repeated(5);
    return contents;
}

ScreenAction type(CScreenState *state, const ScreenContents &contents, const QString &text)
{
    ScreenAction last;
    for (const QChar letter : text)
        last = state->press({ScreenKey::Character, QString(letter), 0}, contents);
    return last;
}

ScreenAction press(CScreenState *state, const ScreenContents &contents, ScreenKey::Code code, int number = 0)
{
    return state->press({code, QString(), number}, contents);
}

QString rowText(const ScreenRow &spans)
{
    QString text;
    for (const ScreenSpan &span : spans)
        text += span.text;
    return text;
}

/// What is wrong with a picture; null when nothing is.
QString fault(const ScreenPicture &picture, int width, int height)
{
    if (int(picture.rows.size()) != height)
        return "%1 rows of %2"_s.arg(picture.rows.size()).arg(height);
    if (picture.cursorRow >= height || picture.cursorCell >= width)
        return "the cursor is outside"_s;
    for (const ScreenRow &spans : picture.rows) {
        const QString text = rowText(spans);
        if (cellsOf(text) > width || Cells::shown(text) != text)
            return text;
    }
    return QString();
}

} // namespace

class TestScreen : public QObject
{
    Q_OBJECT

private slots:
    void textTakesTheCellsItTakes_data();
    void textTakesTheCellsItTakes();
    void everyPictureFitsWhateverStrangersSend();
    void theDiskIsJoinedIntoConversations();
    void keysDoWhatTheySay();
    void aPasteIsOneText();
    void pathsAreCompleted();
};

void TestScreen::textTakesTheCellsItTakes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("cells");
    QTest::addColumn<int>("width");
    QTest::addColumn<Strings>("rows");
    QTest::addColumn<QString>("middle");
    QTest::newRow("letters") << "один два три"_s << 8 << 12 << Strings{"один два"_s, "три"_s} << "один…три"_s;
    QTest::newRow("exact") << "один два"_s << 8 << 8 << Strings{"один два"_s} << "один два"_s;
    QTest::newRow("a long word") << "ab абвгдеж"_s << 4 << 10 << Strings{"ab"_s, "абвг"_s, "деж"_s}
                                 << "ab…ж"_s;
    QTest::newRow("wide") << "日本語"_s << 5 << 6 << Strings{"日本"_s, "語"_s} << "日…語"_s;
    QTest::newRow("wide in one cell") << "日本"_s << 1 << 4 << Strings{"日"_s, "本"_s} << "…"_s;
    QTest::newRow("marks stay") << "e\u0301e\u0301e\u0301"_s << 2 << 3
                                << Strings{"e\u0301e\u0301"_s, "e\u0301"_s} << "e\u0301…"_s;
    QTest::newRow("indented") << "  a b"_s << 4 << 5 << Strings{"  a"_s, "b"_s} << "  …b"_s;
    QTest::newRow("nothing") << QString() << 4 << 0 << Strings{QString()} << QString();
}

void TestScreen::textTakesTheCellsItTakes()
{
    QFETCH(QString, text);
    QFETCH(int, cells);
    QTEST(cellsOf(text), "width");
    QTEST(Cells::wrapped(text, cells), "rows");
    QTEST(shortenedInMiddle(text, cells), "middle");
    QVERIFY(cellsOf(cutToCells(text, cells)) <= cells);
    CEditor editor;
    editor.insert(text);
    for (const QString &line : editor.layout(qMax(2, cells)).rows)
        QVERIFY(cellsOf(line) <= qMax(2, cells));
}

void TestScreen::everyPictureFitsWhateverStrangersSend()
{
    const ScreenContents contents = hostileContents();
    for (const int width : {20, 40, 64, 200}) {
        for (const int height : {5, 10, 24}) {
            for (int view = 1; view <= 8; ++view) { // F7 and F8 ask
                CScreenState state;
                state.fit(contents);
                press(&state, contents, ScreenKey::Enter);
                type(&state, contents, hostile.repeated(9));
                press(&state, contents, ScreenKey::LineFeed);
                press(&state, contents, ScreenKey::Function, view);
                for (int round = 0; round < 3; ++round) {
                    const ScreenPicture picture = drawScreen(state, contents, width, height);
                    QCOMPARE(fault(picture, width, height), QString());
                    state.setExtent(picture.page, picture.mostScroll);
                    press(&state, contents, ScreenKey::PageUp);
                    press(&state, contents, round == 1 ? ScreenKey::Tab : ScreenKey::Down);
                    state.say(round == 1 ? hostile.repeated(30) : QString());
                }
            }
        }
    }
}

void TestScreen::theDiskIsJoinedIntoConversations()
{
    ScreenSources sources;
    sources.contacts = {contact("Анна"_s), contact("борис"_s)};
    sources.received = {message(ScreenMessage::Received, "1"_s, "старое"_s, 1),
                        message(ScreenMessage::Received, "2"_s, "новое"_s, 9)};
    sources.outgoing = {message(ScreenMessage::Waiting, "3"_s, "ждет"_s, 5),
                        message(ScreenMessage::Waiting, "4"_s, "только что ушло"_s, 6),
                        message(ScreenMessage::Refused, "5"_s, "отказ"_s, 7)};
    // "6" has left the outbox long ago; "7" was deleted from the inbox by the user.
    sources.journal = {row(JournalRow::Received, "1"_s, 1),   row(JournalRow::Sent, "4"_s, 8),
                       row(JournalRow::Refused, "5"_s, 7),    row(JournalRow::Sent, "6"_s, 8),
                       row(JournalRow::Received, "7"_s, 3),   row(JournalRow::BrokenOff, QString(), 4),
                       row(JournalRow::Started, QString(), 0)};
    sources.written.insert("6"_s, message(ScreenMessage::Delivered, "6"_s, "давно ушло"_s, 2));
    sources.seen = {"1"_s};

    const ScreenContents contents = assemble(sources);
    Strings shown;
    for (const ScreenMessage &each : contents.messages)
        shown << (each.isNew ? "+"_s : QString()) + (each.text.isNull() ? "-"_s : each.text) +
                     (each.isOutgoing() ? ": "_s + stateText(each) : QString());
    QCOMPARE(shown,
             (Strings{"старое"_s, "давно ушло: доставлено"_s, "-"_s, "оборвано, 5 Байт"_s, "ждет: ждет"_s,
                      "только что ушло: доставлено"_s, "отказ: не принято: "_s, "+новое"_s}));
    QCOMPARE(contents.contacts.size(), std::size_t(2));
    QCOMPARE(contents.contacts[0].name, "борис"_s); // the latest conversation first
    QCOMPARE(contents.contacts[0].unseen, 1);
    QCOMPARE(contents.contacts[0].waiting, 1);
}

void TestScreen::keysDoWhatTheySay()
{
    ScreenSources sources;
    sources.contacts = {contact("Анна"_s), contact("Борис"_s)};
    sources.transfers = {{"00000007"_s, "Борис"_s, "x"_s, 1, 0, ScreenMessage::Waiting, {}},
                         {"k.offer"_s, {}, "y"_s, 1, 0, ScreenMessage::Received, {}}};
    const ScreenContents contents = assemble(sources);
    CScreenState state;
    state.fit(contents);
    press(&state, contents, ScreenKey::Down);
    QVERIFY(state.read().isEmpty()); // chosen only, not opened
    type(&state, contents, "а?q"_s); // writing opens; letters there, not keys
    QCOMPARE(state.read(), "борис"_s);
    press(&state, contents, ScreenKey::Left);
    press(&state, contents, ScreenKey::Backspace);
    const ScreenAction sent = press(&state, contents, ScreenKey::Enter);
    QCOMPARE(sent.kind, ScreenAction::SendText);
    QCOMPARE(sent.abonent + sent.text, "Борисаq"_s);
    QCOMPARE(press(&state, contents, ScreenKey::Enter).kind, ScreenAction::Nothing); // nothing is written

    type(&state, contents, "черновик"_s);
    QCOMPARE(press(&state, contents, ScreenKey::Interrupt).kind, ScreenAction::Nothing);
    QCOMPARE(press(&state, contents, ScreenKey::Interrupt).kind, ScreenAction::Quit);
    state.giveBack("борис"_s, "не ушло"_s); // must not overwrite what is being written
    QCOMPARE(state.editor().text(), "черновик"_s);

    press(&state, contents, ScreenKey::Function, 3);
    QCOMPARE(press(&state, contents, ScreenKey::Delete).kind, ScreenAction::Nothing);
    press(&state, contents, ScreenKey::Up); // thought better of it
    QCOMPARE(press(&state, contents, ScreenKey::Delete).kind, ScreenAction::Nothing);
    const ScreenAction taken = press(&state, contents, ScreenKey::Delete);
    QCOMPARE(taken.kind, ScreenAction::Withdraw);
    QCOMPARE(taken.number, "00000007"_s);
    press(&state, contents, ScreenKey::Down); // what arrives is not ours to take back
    for (int i = 0; i < 2; ++i)
        QCOMPARE(press(&state, contents, ScreenKey::Delete).kind, ScreenAction::Nothing);
}

void TestScreen::aPasteIsOneText()
{
    ScreenSources sources;
    sources.contacts = {contact("Борис"_s)};
    const ScreenContents contents = assemble(sources);
    CScreenState state;
    state.fit(contents);
    press(&state, contents, ScreenKey::Enter);
    QCOMPARE(state.press({ScreenKey::Paste, "б\nв\t\x1b[2J\n"_s, 0}, contents).kind, ScreenAction::Nothing);
    QCOMPARE(state.editor().text(), "б\nв\t[2J\n"_s);
    // Up and down within the text, the column kept in characters; then the conversation scrolls.
    state.press({ScreenKey::Paste, "e\u0301ё"_s, 0}, contents);
    press(&state, contents, ScreenKey::Up);
    type(&state, contents, "^"_s);
    press(&state, contents, ScreenKey::Up);
    type(&state, contents, "!"_s);
    press(&state, contents, ScreenKey::Down);
    press(&state, contents, ScreenKey::Delete);
    QCOMPARE(state.editor().text(), "б!\nв\t[2J\ne\u0301ё"_s);
    QCOMPARE(press(&state, contents, ScreenKey::Enter).kind, ScreenAction::SendText);
}

void TestScreen::pathsAreCompleted()
{
    const QTemporaryDir place;
    TestInstallation::plant(place.path(), "отчет-1.txt= отчет-2.txt= папка/ .скрытый="_s);
    const QString start = place.path() + "/"_s;
    const auto completed = [&start](const QString &typed) {
        const PathCompletion found = PathCompletion::of(start + typed);
        return found.path.mid(start.size()) + "|"_s + found.candidates.join(" "_s);
    };
    QCOMPARE(completed("о"_s), "отчет-|отчет-1.txt отчет-2.txt"_s);
    QCOMPARE(completed("отчет-2"_s), "отчет-2.txt|"_s);
    QCOMPARE(completed("п"_s), "папка/|"_s);
    QCOMPARE(completed("."_s), ".скрытый|"_s);
    QCOMPARE(completed("нет"_s), "нет|"_s);
    QCOMPARE(withHome("~/x"_s), QDir::homePath() + "/x"_s);
}

QTEST_GUILESS_MAIN(TestScreen)
#include "tst_screen.moc"
