// What the program tells the service manager that has started it (systemd, Type=notify): that it is ready,
// what it is doing, that it is still alive, that it is ending. Without one (no NOTIFY_SOCKET) nothing.
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

/// Lives in the main thread. The sign of life is given by a timer of that thread's event loop, so a loop that
/// hangs gives none, and the manager ends and restarts the program.
class CServiceNotifier : public QObject
{
    Q_OBJECT

public:
    struct State
    {
        bool isReady = false;
        QString text; // one line for people
    };

    CServiceNotifier();

    /// The start takes its time, for a good reason. To be called every few seconds while that is so.
    void delay(const QString &reason);

    /// Asks @a ask for the state every now and then, and tells what is new of it; gives signs of life. The
    /// first ready state is READY=1; later ones change the text only.
    void begin(std::function<State()> ask);

    /// The program is ending, in order. Signs of life go on.
    void stopping(const QString &reason);

private:
    void look();

    const bool isManaged;
    std::function<State()> state;
    bool isReady = false;
    QString told;
    QTimer lookTimer;
    QTimer lifeTimer;
};
