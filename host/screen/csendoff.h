// Takes what the user sends into the outbox, one after another, in a thread of its own: a large file may have
// to be copied. The same as `abonent send` up to "Принято к отправке"; delivering is the resident's.
#pragma once

#include "host/screen/csenttexts.h"

#include <QObject>

struct Outgoing
{
    QString abonent;
    QString text; // or a path
    bool isPath = false;
};

/// Lives in a thread of its own; send() is called there.
class CSendOff : public QObject
{
    Q_OBJECT

public:
    /// @param keptIn outlives it
    CSendOff(int ofLevel, const CSentTexts &keptIn) : level(ofLevel), sent(keptIn) {}

    void send(const Outgoing &what);

Q_SIGNALS:
    /// @param trouble in Russian; null: it is in the outbox, as @a number
    /// @param remark what to tell besides, or null
    void done(const Outgoing &what, const QString &trouble, const QString &remark);

private:
    QString accept(const Outgoing &what, QString *remark);

    const int level;
    const CSentTexts &sent;
};
