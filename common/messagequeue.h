// What the runtime itself says to the Qt message stream.
//
// A host may have routed that stream into its log or read settings in its handler. So nothing is
// said while a lock of ours is held: inside a CMessageHold messages wait, and the outermost hold of
// the thread speaks them, in order, when it ends.
#pragma once

#include "common/terminationguard.h"

#include <QString>

#include <initializer_list>

/// Keeps this thread's messages back. Make it before taking a lock, so that it ends after the lock.
///
/// It keeps its thread alive as well: locks and cancellation do not go together.
class CMessageHold
{
public:
    CMessageHold();

    /// The outermost one speaks what was kept.
    ~CMessageHold();

    CMessageHold(const CMessageHold &) = delete;
    CMessageHold &operator=(const CMessageHold &) = delete;

private:
    CTerminationGuard guard; // ends after the messages are spoken
};

namespace Messages {

/// Says a message in Qt's category "default" with no file, line or function, now or, inside a
/// CMessageHold, at its end. [any thread]
void say(QtMsgType type, const QString &text);

/// A message as QDebug prints it by default: @a text bare, each of @a items in double quotes with
/// its escapes, all separated by blanks. An empty @a text is left out.
QString format(const QString &text, std::initializer_list<QString> items);

} // namespace Messages
