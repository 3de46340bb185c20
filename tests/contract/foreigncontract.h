// The contract as a host wrote it down for itself, years ago, from its own sources. Nothing of ours
// is included here on purpose: what the plug-in's binary does has to fit this view.
#pragma once

#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>

class CChannel
{
public:
    virtual ~CChannel() {}
    virtual void disconnectFromAbonent() = 0;
    virtual bool isConnected() = 0;
    virtual void write(const QByteArray &) = 0;
    virtual QByteArray read(int) = 0;
    virtual int idealBlockSize() = 0;
    int number;
};

class CAbstractProtocol : public QObject
{
    Q_OBJECT
public:
    explicit CAbstractProtocol(CChannel *c) : channel(c), keepAliveRequested(false), wasUseful(true) {}
    ~CAbstractProtocol() override { delete channel; }
    virtual void start() { wasUseful = false; }
    virtual void stop() {}
    CChannel *channel;
    QString remoteAbonentName;
    QString remoteAbonentFilteredName;
    QString label;
    bool keepAliveRequested;
    bool wasUseful;
Q_SIGNALS:
    void finished();
    void remoteAbonentNameChanged(const QString &remoteAbonentName);
};

class CProtocolFactory
{
public:
    virtual ~CProtocolFactory() {}
    virtual CAbstractProtocol *createProtocol(CChannel *) = 0;
};

class CChannelMonitor
{
public:
    virtual ~CChannelMonitor() {}
    virtual int addConnection(int, const QString &, const QString &) = 0;
    virtual void removeConnection(int) = 0;
    virtual void setState(int, const QString &) = 0;
    virtual void addReceived(int, int) = 0;
    virtual void addSent(int, int) = 0;
};

class CJournal
{
public:
    virtual ~CJournal() {}
    virtual void addRecord(int, const QString &, const QString &) = 0;
};

class CChannelServer : public QObject
{
    Q_OBJECT
public:
    virtual bool hasFreeChannel() const = 0;
    virtual bool isHardwareOn() const = 0;
    virtual bool canCheckOnline() const = 0;
    virtual void start() {}
    virtual void stop() {}
public Q_SLOTS:
    virtual void settingsWasChanged() {}
    virtual void connectToAbonent(const QString &abonentName, const QByteArray &abonentsData) = 0;
    virtual void disconnectFromAbonent(const QString &abonentName, int connectionId) = 0;
    virtual void keepAliveConnection(int connectionId) = 0;
Q_SIGNALS:
    void connected(const QString &abonentName, int connectionId);
    void notConnected(QString abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);
    void finished();

public:
    int first;
    int monitorHandle;
    CProtocolFactory *protocolFactory;
    CChannelMonitor *monitor;
    CJournal *journal;
};

class CChannelPlugin
{
public:
    virtual ~CChannelPlugin() {}
    virtual int type() const = 0;
    virtual QString name() const = 0;
    virtual CChannelServer *create() const = 0;
    virtual void incCallTimeout(int *) const = 0;
    virtual void decCallTimeout(int *) const = 0;
};

struct Tabulation
{
    QThread *thread;
    int tabLevel;
};

struct DebugData
{
    QList<Tabulation> tabulations;
    QMutex mutex;
};
