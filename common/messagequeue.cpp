#include "common/messagequeue.h"

#include <QDebug>
#include <QMessageLogger>

#include <algorithm>

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
    const QMessageLogger logger(nullptr, 0, nullptr); // without these it has no category either
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

// Russian and ASCII texts without the characters that QDebug escapes.
bool isPlain(const QString &text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) {
        const ushort code = c.unicode();
        return (code >= ' ' && code < 0x7f && code != '"' && code != '\\') ||
               (code >= 0x410 && code <= 0x44f);
    });
}

QString quoted(const QString &text)
{
    const QLatin1Char quote('"');
    if (isPlain(text)) // most texts are, and QDebug takes twenty times as long
        return quote + text + quote;
    QString result;
    QDebug(&result).nospace() << text;
    return result;
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
    QString result = text;
    for (const QString &item : items) {
        if (!result.isEmpty())
            result += QLatin1Char(' ');
        result += quoted(item);
    }
    return result;
}

} // namespace Messages
