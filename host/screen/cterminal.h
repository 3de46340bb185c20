// The terminal: ncurses for drawing and keys, and the way in and out of it.
//
// In every case the terminal is left as it was found: by leave() and the destructor, before a stop (Ctrl-Z),
// and by a handler of SIGSEGV, SIGABRT, SIGBUS, SIGFPE and SIGILL, which then lets the process end as it
// would.
#pragma once

#include "common/descriptor.h"
#include "host/screen/screenkey.h"
#include "host/screen/screenpicture.h"

#include <QObject>
#include <QString>

#include <cwchar>
#include <memory>

class QSocketNotifier;

/// One at a time, in the main thread.
class CTerminal : public QObject
{
    Q_OBJECT

public:
    CTerminal();
    ~CTerminal() override;

    /// Takes the terminal over. @return null on success, else what is wrong with it, in Russian
    QString enter();

    /// Gives it back. May be called again.
    void leave();

    void draw(const ScreenPicture &picture);

    /// Draws everything anew, whatever others have written over it.
    void redraw();

    /// Gives the terminal back and stops the process group, as the shell expects of Ctrl-Z; goes on after
    /// `fg`.
    void suspend();

    void bell();

    int width() const;
    int height() const;

Q_SIGNALS:
    void pressed(const ScreenKey &key);

    /// width() and height() are others, or what is shown was lost.
    void resized();

    /// Nobody will press a key any more.
    void gone();

private:
    void readKeys();
    void readSignals();
    bool hasHungUp() const;
    void setUp();
    void resume();
    bool takeKey();
    void takePasted(int kind, wint_t character);

    bool isEntered = false;
    bool hasColours = false;
    bool isPasting = false;
    QString pasted;
    CDescriptor signalDescriptor;
    std::unique_ptr<QSocketNotifier> keyNotifier;
    std::unique_ptr<QSocketNotifier> signalNotifier;
};
