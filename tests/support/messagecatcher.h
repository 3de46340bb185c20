// What goes to the Qt message stream while one of these lives; nothing of it is shown.
#pragma once

#include <QStringList>

#include <functional>

/// One at a time. Its functions: [any thread].
class MessageCatcher
{
public:
    /// @param reaction called for every message, as a host's handler might act, on the speaker's thread
    explicit MessageCatcher(std::function<void(const QString &text)> reaction = nullptr);

    /// Puts the previous handler back.
    ~MessageCatcher();

    MessageCatcher(const MessageCatcher &) = delete;
    MessageCatcher &operator=(const MessageCatcher &) = delete;

    /// The texts of one type, oldest first.
    QStringList texts(QtMsgType type) const;
    int count(QtMsgType type) const { return texts(type).size(); }

    /// All texts, oldest first, and forgets them.
    QStringList takeAll();

private:
    QtMessageHandler previous;
};
