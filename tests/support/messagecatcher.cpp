#include "tests/support/messagecatcher.h"

#include <QMutex>
#include <QMutexLocker>
#include <QPair>

#include <utility>

namespace {

QMutex mutex; // guards the caught
QList<QPair<QtMsgType, QString>> caught;
std::function<void(const QString &)> react;

void handler(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    {
        const QMutexLocker locker(&mutex);
        caught.append({type, text});
    }
    if (react)
        react(text);
}

} // namespace

MessageCatcher::MessageCatcher(std::function<void(const QString &)> reaction)
{
    takeAll();
    react = std::move(reaction);
    previous = qInstallMessageHandler(handler);
}

MessageCatcher::~MessageCatcher()
{
    qInstallMessageHandler(previous);
}

QStringList MessageCatcher::texts(QtMsgType type) const
{
    const QMutexLocker locker(&mutex);
    QStringList result;
    for (const auto &message : qAsConst(caught)) {
        if (message.first == type)
            result += message.second;
    }
    return result;
}

QStringList MessageCatcher::takeAll()
{
    const QMutexLocker locker(&mutex);
    QStringList result;
    for (const auto &message : qAsConst(caught))
        result += message.second;
    caught.clear();
    return result;
}
