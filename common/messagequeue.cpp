#include "common/messagequeue.h"

#include <QDebug>
#include <QMessageLogger>

namespace {

struct Message
{
    QtMsgType type;
    QString text;
    Message *next;
};

// Plain data: it needs no destruction, so it serves a thread that speaks while it ends.
struct Kept
{
    int holds;
    Message *first;
    Message *last;
};

thread_local Kept kept = {0, nullptr, nullptr};

QDebug stream(QtMsgType type)
{
    const QMessageLogger logger;
    switch (type) {
    case QtDebugMsg:
        return logger.debug();
    case QtInfoMsg:
        return logger.info();
    case QtCriticalMsg:
        return logger.critical();
    default:
        return logger.warning();
    }
}

void speak(QtMsgType type, const QString &text)
{
    stream(type).noquote().nospace() << text;
}

} // namespace

CMessageHold::CMessageHold()
{
    ++kept.holds;
}

CMessageHold::~CMessageHold()
{
    if (--kept.holds > 0)
        return;
    // One at a time: a handler may come back to us and keep messages of its own.
    while (kept.holds == 0 && kept.first != nullptr) {
        Message *const message = kept.first;
        kept.first = message->next;
        speak(message->type, message->text);
        delete message;
    }
}

namespace Messages {

void say(QtMsgType type, const QString &text)
{
    const CTerminationGuard guard;
    if (kept.holds == 0) {
        speak(type, text);
        return;
    }
    Message *const message = new Message{type, text, nullptr};
    (kept.first == nullptr ? kept.first : kept.last->next) = message;
    kept.last = message;
}

QString format(const QString &text, std::initializer_list<QString> items)
{
    QString result;
    {
        QDebug out(&result);
        if (!text.isEmpty())
            out.noquote() << text;
        out.quote();
        for (const QString &item : items)
            out << item;
    }
    if (result.endsWith(QLatin1Char(' ')))
        result.chop(1); // QDebug's own, as it takes it from a message
    return result;
}

} // namespace Messages
