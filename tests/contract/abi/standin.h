// Stands in for the parts of Qt that the contract's headers use, with Qt's sizes. For carrier.cpp alone.
#pragma once

class QString
{
    void *d;
};
class QByteArray
{
    void *d;
};
class QMutex
{
    void *d;
};
template <typename Type>
class QList
{
    void *d;
};

struct QMetaObject;
class QObject
{
public:
    virtual const QMetaObject *metaObject() const;
    virtual void *qt_metacast(const char *);
    virtual int qt_metacall(int, int, void **);
    virtual ~QObject();
    virtual bool event(void *);
    virtual bool eventFilter(QObject *, void *);
    virtual void timerEvent(void *);
    virtual void childEvent(void *);
    virtual void customEvent(void *);
    virtual void connectNotify(const void *);
    virtual void disconnectNotify(const void *);

private:
    void *d;
};

#define Q_OBJECT                                                                                             \
public:                                                                                                      \
    const QMetaObject *metaObject() const override;                                                          \
    void *qt_metacast(const char *) override;                                                                \
    int qt_metacall(int, int, void **) override;
#define Q_SIGNALS public
#define Q_SLOTS
