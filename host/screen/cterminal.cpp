#include "host/screen/cterminal.h"

#include "host/text/textwidth.h"

#include <QSocketNotifier>

#include <array>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#define NCURSES_NOMACROS
#include <curses.h>

namespace {

constexpr int escapeDelayMs = 25;
constexpr int mostPasted = 2 * 1024 * 1024; // characters; more than can be sent
constexpr wint_t interrupt = 3;
constexpr wint_t escape = 27;
constexpr char pasteOn[] = "\033[?2004h";
constexpr char pasteOff[] = "\033[?2004l";

enum OwnKey
{
    KeyPasteBegin = KEY_MAX + 1,
    KeyPasteEnd,
};

enum ColourPair : short
{
    PairOwn = 1,
    PairAlert,
};

// What a crash needs to give the terminal back; filled in before the handlers are set.
termios gOriginal;
std::array<char, 256> gFarewell;
std::size_t gFarewellSize = 0;
constexpr int crashes[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

extern "C" void giveBackAndEnd(int number)
{
    const ssize_t count = ::write(STDOUT_FILENO, gFarewell.data(), gFarewellSize);
    static_cast<void>(count); // nothing more can be done
    ::tcsetattr(STDIN_FILENO, TCSANOW, &gOriginal);
    ::raise(number); // the handler is set for one time
}

void addToFarewell(const char *sequence)
{
    const std::size_t size = sequence ? std::strlen(sequence) : 0;
    if (gFarewellSize + size > gFarewell.size())
        return;
    std::memcpy(gFarewell.data() + gFarewellSize, sequence ? sequence : "", size);
    gFarewellSize += size;
}

char *capability(const char *name)
{
    std::array<char, 16> copy{};
    std::strncpy(copy.data(), name, copy.size() - 1);
    char *value = ::tigetstr(copy.data());
    return reinterpret_cast<std::intptr_t>(value) == -1 ? nullptr : value; // -1: not a text
}

void prepareForCrashes()
{
    gFarewellSize = 0;
    addToFarewell(pasteOff);
    for (const char *name : {"sgr0", "cnorm", "rmkx", "rmcup"})
        addToFarewell(capability(name));
    addToFarewell("\r\n");
    struct sigaction action = {};
    action.sa_handler = giveBackAndEnd;
    action.sa_flags = int(SA_RESETHAND | SA_NODEFER);
    for (const int number : crashes)
        ::sigaction(number, &action, nullptr);
}

void forgetCrashes()
{
    for (const int number : crashes)
        std::signal(number, SIG_DFL);
}

void say(const char *sequence)
{
    const ssize_t count = ::write(STDOUT_FILENO, sequence, std::strlen(sequence));
    static_cast<void>(count); // without it pasted line feeds send
}

/// ncurses writes UTF-8 only in a locale that has it. @return false when the system has none
bool useUtf8()
{
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0 || std::setlocale(LC_CTYPE, "C.UTF-8");
}

/// For ncurses, which knows fewer characters than Qt.
std::wstring wideText(const QString &text)
{
    std::wstring wide = text.toStdWString();
    for (wchar_t &character : wide) {
        if (::wcwidth(character) < 0)
            character = QChar::ReplacementCharacter;
    }
    return wide;
}

sigset_t terminalSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGWINCH, SIGTSTP, SIGCONT})
        sigaddset(&set, number);
    return set;
}

struct KeyRow
{
    wint_t key;
    ScreenKey::Code code;
};

// What ncurses tells as a key, and control characters.
constexpr KeyRow specialKeys[] = {
    {KEY_UP, ScreenKey::Up},        {KEY_DOWN, ScreenKey::Down},      {KEY_LEFT, ScreenKey::Left},
    {KEY_RIGHT, ScreenKey::Right},  {KEY_HOME, ScreenKey::Home},      {KEY_END, ScreenKey::End},
    {KEY_PPAGE, ScreenKey::PageUp}, {KEY_NPAGE, ScreenKey::PageDown}, {KEY_BACKSPACE, ScreenKey::Backspace},
    {KEY_DC, ScreenKey::Delete},    {KEY_ENTER, ScreenKey::Enter},
};
constexpr KeyRow controlKeys[] = {
    {1, ScreenKey::Home},       {3, ScreenKey::Interrupt},   {4, ScreenKey::Delete},
    {5, ScreenKey::End},        {8, ScreenKey::Backspace},   {9, ScreenKey::Tab},
    {10, ScreenKey::LineFeed},  {12, ScreenKey::Redraw},     {13, ScreenKey::Enter},
    {21, ScreenKey::DeleteAll}, {23, ScreenKey::DeleteWord}, {26, ScreenKey::Suspend},
    {27, ScreenKey::Escape},    {127, ScreenKey::Backspace},
};

template <std::size_t size>
bool findKey(const KeyRow (&table)[size], wint_t character, ScreenKey *key)
{
    for (const KeyRow &row : table) {
        if (row.key == character) {
            key->code = row.code;
            return true;
        }
    }
    return false;
}

/// @return whether it is one that we know
bool keyOf(int kind, wint_t character, ScreenKey *key)
{
    if (kind == KEY_CODE_YES) {
        if (character > KEY_F(0) && character <= KEY_F(12)) {
            key->code = ScreenKey::Function;
            key->number = int(character) - KEY_F(0);
            return true;
        }
        return findKey(specialKeys, character, key);
    }
    if (findKey(controlKeys, character, key))
        return true;
    const uint code = character;
    key->text = QString::fromUcs4(&code, 1);
    return character >= ' ';
}

/// Alt is an escape in front: Alt with a digit is a function key, Alt-Enter a new line.
bool altKeyOf(wint_t character, ScreenKey *key)
{
    if (character == '\r' || character == '\n') {
        key->code = ScreenKey::LineFeed;
        return true;
    }
    key->code = ScreenKey::Function;
    key->number = character == '0' ? 10 : int(character) - '0';
    return character >= '0' && character <= '9';
}

attr_t attributesOf(ScreenStyle style, bool hasColours)
{
    switch (style) {
    case ScreenStyle::Title:
    case ScreenStyle::Chosen:
        return A_REVERSE;
    case ScreenStyle::Own:
        return hasColours ? attr_t(COLOR_PAIR(PairOwn)) : A_NORMAL;
    case ScreenStyle::Strong:
        return A_BOLD;
    case ScreenStyle::Faint:
        return A_DIM;
    case ScreenStyle::Alert:
        return hasColours ? A_BOLD | attr_t(COLOR_PAIR(PairAlert)) : A_BOLD;
    default:
        return A_NORMAL;
    }
}

} // namespace

CTerminal::CTerminal() = default;

CTerminal::~CTerminal()
{
    leave();
}

QString CTerminal::enter()
{
    const QString name = QString::fromLocal8Bit(qgetenv("TERM"));
    if (!useUtf8())
        return QStringLiteral("В системе нет ни одной локали с UTF-8");
    ::tcgetattr(STDIN_FILENO, &gOriginal);
    const sigset_t set = terminalSignals();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr); // before ncurses: it would handle them itself
    if (!::newterm(nullptr, stdout, stdin) || !capability("cup")) {
        ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &gOriginal);
        return QStringLiteral("Терминал '%1' не подходит для полного экрана").arg(name);
    }
    std::signal(SIGTSTP, SIG_DFL);
    setUp();
    isEntered = true;
    prepareForCrashes();

    keyNotifier = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
    connect(keyNotifier.get(), &QSocketNotifier::activated, this, &CTerminal::readKeys);
    signalDescriptor.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    signalNotifier = std::make_unique<QSocketNotifier>(signalDescriptor.get(), QSocketNotifier::Read);
    connect(signalNotifier.get(), &QSocketNotifier::activated, this, &CTerminal::readSignals);
    return QString();
}

void CTerminal::setUp()
{
    ::raw(); // Ctrl-C, Ctrl-Z and Ctrl-S are keys
    ::noecho();
    ::nonl();
    ::nodelay(stdscr, true);
    ::keypad(stdscr, true);
    ::set_escdelay(escapeDelayMs);
    ::define_key("\033[200~", KeyPasteBegin);
    ::define_key("\033[201~", KeyPasteEnd);
    hasColours = ::has_colors() && qEnvironmentVariableIsEmpty("NO_COLOR");
    if (hasColours) {
        ::start_color();
        ::use_default_colors();
        ::init_pair(PairOwn, COLOR_CYAN, -1);
        ::init_pair(PairAlert, COLOR_RED, -1);
    }
    ::refresh(); // the first one clears: not in the middle of the first picture
    say(pasteOn);
}

void CTerminal::leave()
{
    if (!isEntered)
        return;
    isEntered = false;
    keyNotifier.reset();
    signalNotifier.reset();
    signalDescriptor.reset();
    say(pasteOff);
    ::endwin();
    forgetCrashes();
    const sigset_t set = terminalSignals();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void CTerminal::draw(const ScreenPicture &picture)
{
    ::erase();
    for (std::size_t i = 0; i < picture.rows.size(); ++i) {
        ::move(int(i), 0);
        ::clrtoeol(); // the row above may have been wider for ncurses than for us
        int cell = 0;
        for (const ScreenSpan &span : picture.rows[i]) {
            ::attrset(int(attributesOf(span.style, hasColours)));
            ::mvaddwstr(int(i), cell, wideText(span.text).c_str());
            cell += cellsOf(span.text);
        }
        ::attrset(int(A_NORMAL));
    }
    ::curs_set(picture.cursorRow >= 0 ? 1 : 0);
    if (picture.cursorRow >= 0)
        ::move(picture.cursorRow, picture.cursorCell);
    ::refresh();
}

void CTerminal::redraw()
{
    ::clearok(curscr, true);
    emit resized();
}

void CTerminal::bell()
{
    ::beep();
    ::refresh();
}

int CTerminal::width() const
{
    return ::getmaxx(stdscr);
}

int CTerminal::height() const
{
    return ::getmaxy(stdscr);
}

void CTerminal::suspend()
{
    say(pasteOff);
    ::endwin();
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    ::kill(0, SIGTSTP);
    ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr); // the process stops here
    ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    resume();
}

/// After a stop the shell has had the terminal, and it may have another size.
void CTerminal::resume()
{
    winsize size{};
    ::reset_prog_mode();
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
        ::resizeterm(size.ws_row, size.ws_col);
    ::refresh();
    say(pasteOn);
    redraw();
}

void CTerminal::readSignals()
{
    signalfd_siginfo info{};
    bool hasToStop = false;
    bool isAnother = false;
    while (::read(signalDescriptor.get(), &info, sizeof(info)) == sizeof(info)) {
        hasToStop |= info.ssi_signo == SIGTSTP;
        isAnother |= info.ssi_signo != SIGTSTP;
    }
    if (hasToStop)
        suspend();
    else if (isAnother)
        resume();
}

void CTerminal::readKeys()
{
    while (isEntered && takeKey()) {
    }
    if (isEntered && hasHungUp())
        emit gone();
}

/// @return whether there was one
bool CTerminal::takeKey()
{
    wint_t character = 0;
    const int kind = ::get_wch(&character);
    if (kind == ERR)
        return false;
    ScreenKey key;
    wint_t second = 0;
    if (isPasting || (kind == KEY_CODE_YES && character == KeyPasteBegin)) {
        takePasted(kind, character);
    } else if (kind == OK && character == escape && ::get_wch(&second) == OK) {
        if (altKeyOf(second, &key))
            emit pressed(key);
    } else if (keyOf(kind, character, &key)) {
        emit pressed(key);
    }
    return true;
}

/// Collects what is pasted. It ends as the terminal says, or with Ctrl-C should the end have been lost.
void CTerminal::takePasted(int kind, wint_t character)
{
    const uint code = character == '\r' ? uint('\n') : uint(character);
    if (kind == OK && character != interrupt) {
        if (pasted.size() < mostPasted)
            pasted += QString::fromUcs4(&code, 1);
        return;
    }
    if (kind == KEY_CODE_YES && character != KeyPasteBegin && character != KeyPasteEnd)
        return;
    isPasting = kind == KEY_CODE_YES && character == KeyPasteBegin;
    ScreenKey key;
    key.code = ScreenKey::Paste;
    key.text = pasted;
    pasted.clear();
    if (!key.text.isEmpty())
        emit pressed(key);
}

bool CTerminal::hasHungUp() const
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return ::poll(&input, 1, 0) > 0 && (input.revents & (POLLHUP | POLLERR | POLLNVAL));
}
