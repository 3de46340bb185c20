// What the commands that converse have in common: console, monitor, journals, keys, inbox, queues and
// messenger, built in order and taken down in the reverse order.
#pragma once

#include "host/cinterruption.h"
#include "host/cmessenger.h"
#include "host/commands/ctransferrows.h"
#include "host/console/cconsole.h"
#include "host/console/cconsolejournal.h"
#include "host/console/cconsolemonitor.h"
#include "host/conversation/cinbox.h"
#include "host/conversation/cpostoffice.h"
#include "host/conversation/csendqueue.h"
#include "host/conversation/cunnamedcallers.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/cmessagejournal.h"
#include "host/service/cmetricsfile.h"
#include "host/service/cservicenotifier.h"
#include "host/service/ctraffic.h"

#include <memory>

class CommandLine;

class CProgram
{
public:
    enum Role
    {
        Resident, // receives and sends, until it is interrupted
        Sender,   // sends, and receives meanwhile if it goes by the installation's own name
        Asker,    // asks whether somebody is there
    };

    /// @param ping for an asker; outlives the program, as does the console
    CProgram(const CommandLine &line, Role role, CConsole &shownOn, PingResult *ping = nullptr);
    ~CProgram();

    CProgram(const CProgram &) = delete;
    CProgram &operator=(const CProgram &) = delete;

    /// Checks the name, prepares keys and inbox, loads the channels. A resident and a sender hold the
    /// transport's lock.
    /// @return ExitDone, or the program's exit code; what is wrong has been shown then
    int prepare();

    /// Starts the channels and, for all but an asker, the delivery.
    /// @param only filtered name of the one abonent to be served; empty: all
    /// @param fresh see CPostOffice
    void open(const QString &only = QString(), const QString &fresh = QString());

    /// Stops the delivery and the channels; the messenger says when that is done.
    void close();

    /// How it goes, for a service manager and for Prometheus. [server thread]
    CServiceNotifier::State state() const;
    Metrics metrics() const;

    /// CChannelPlugin::type() of the channel whose records we write.
    static constexpr int ipKind = 1;

    /// The contents of received messages go into this folder. Before prepare().
    /// @return null on success, else a text for people
    QString handOutTo(const QString &folder) { return inbox.handOutTo(folder); }

    const int level;
    CConsole &console;
    CConsoleMonitor monitor;
    CTraffic traffic{monitor};
    CConsoleJournal journal;
    CTransferBoard board;
    CTransferRows transferRows{board};
    CInterruption interruption;
    CIdentity identity;
    CContacts contacts;

private:
    CMessageProtocol::Context context(PingResult *ping);

    /// Under another name than the installation's nobody is answered: that name is for the calls only.
    bool receives() const;

    void noteRow(JournalRow kind);

    const Role role;
    const GeneralSettings settings;
    const QString givenName; // --name

public:
    const QString ownName;

private:
    const qint64 startTime; // seconds since 1970
    bool isStarted = false;
    qint64 callsPlaced = 0; // by an office that has closed
    CMessageJournal messages;
    CInbox inbox;
    CUnnamedCallers unnamed;
    CSendQueues queues;
    std::unique_ptr<CPostOffice> office;

public:
    CMessenger messenger;
};
