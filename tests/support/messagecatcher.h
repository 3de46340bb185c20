// What goes to the Qt message stream while one of these lives; nothing of it is shown. One at a time.
#pragma once

#include <QStringList>

#include <functional>

/// [any thread]
class MessageCatcher
{
public:
    /// @param reaction called for every message, as a host's handler might act, on the speaker's thread
    explicit MessageCatcher(std::function<void(const QString &text)> reaction = nullptr);
    ~MessageCatcher();

    MessageCatcher(const MessageCatcher &) = delete;
    MessageCatcher &operator=(const MessageCatcher &) = delete;

    int count(QtMsgType type) const;

    /// All texts so far, oldest first, between bars; forgets them.
    QString takeAll();

private:
    QtMessageHandler previous;
};
