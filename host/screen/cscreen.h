// The full screen of `abonent` without arguments: a client of the installation.
//
// It reads what lies on the disk and puts what is sent into the outbox. Receiving and delivering are the
// resident's
// (`abonent listen`), which it can start but which does not depend on it.
#pragma once

#include "host/cinterruption.h"
#include "host/screen/cbackgroundrun.h"
#include "host/screen/cinstallation.h"
#include "host/screen/cscreenstate.h"
#include "host/screen/csendoff.h"
#include "host/screen/cterminal.h"

#include <QObject>
#include <QThread>
#include <QTimer>

#include <memory>

class CScreen : public QObject
{
    Q_OBJECT

public:
    CScreen();
    ~CScreen() override;

    /// Until the user leaves or a signal ends it. @return exit code of the program
    int run();

private:
    void pressed(const ScreenKey &key);
    void act(const ScreenAction &action);
    void send(const Outgoing &what);
    void sendDone(const Outgoing &what, const QString &trouble, const QString &remark);
    void addContact(const QString &nameAndAddress);
    void retry(const QString &number);
    void withdraw(const QString &number);
    void startResident();
    void stopResident();
    void ping(const QString &abonent);
    void installationChanged();
    void noticeNew();
    void leaveWhenSent(int code);
    void say(const QString &text);
    void drawSoon();
    void draw();

    const int level;
    CInterruption interruption;
    CInstallation installation;
    CScreenState state;
    QThread sendThread;
    CSendOff *sendOff = nullptr; // lives in sendThread, which deletes it
    int sending = 0;             // not yet in the outbox
    bool isLeaving = false;
    int exitCode = 0;
    QTimer drawing;
    int newBefore = -1; // messages that nobody has seen; -1: not counted yet
    std::unique_ptr<CBackgroundRun> resident;
    std::unique_ptr<CBackgroundRun> pinging;
    CTerminal terminal; // given back first
};

/// Whether standard input and output are a terminal.
bool isOnTerminal();

/// The full screen. @return the exit code
int runScreen();
