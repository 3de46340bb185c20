#include "tests/support/messagecatcher.h"

#include <QMutex>
#include <QMutexLocker>

#include <utility>

namespace {

QMutex mutex; // guards the two below
QStringList texts;
QList<QtMsgType> types;
std::function<void(const QString &)> react;

void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    {
        const QMutexLocker locker(&mutex);
        texts += text;
        // The runtime speaks as qDebug() does in a release build. Qt itself has categories of its own.
        if (context.category == nullptr || context.file != nullptr || context.line != 0)
            texts.last() += QLatin1String(" IN A STRANGE CONTEXT");
        types += type;
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

int MessageCatcher::count(QtMsgType type) const
{
    const QMutexLocker locker(&mutex);
    return types.count(type);
}

QString MessageCatcher::takeAll()
{
    const QMutexLocker locker(&mutex);
    types.clear();
    return std::exchange(texts, {}).join(QLatin1Char('|'));
}
