#include "host/delivery/cdelivery.h"

#include <QFileInfo>

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

QString CDelivery::addFile(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return QStringLiteral("Файл %1 не существует").arg(path);
    if (!info.isFile() || !info.isReadable())
        return QStringLiteral("Файл %1 нельзя прочитать").arg(path);
    Item item;
    item.title = info.fileName();
    item.path = path;
    item.size = info.size();
    list.push_back(item);
    return QString();
}

void CDelivery::addText(const QString &text)
{
    Item item;
    item.isText = true;
    item.title = QStringLiteral("текст");
    item.text = text.toUtf8();
    item.size = item.text.size();
    list.push_back(item);
}

int CDelivery::takeUp()
{
    const std::lock_guard lock(mutex);
    now.current = now.confirmed < int(list.size()) ? now.confirmed : -1;
    now.sent = 0;
    begun = steady_clock::now();
    return now.current;
}

void CDelivery::addSent(qint64 bytes)
{
    const std::lock_guard lock(mutex);
    now.sent += bytes;
}

void CDelivery::confirm()
{
    const std::lock_guard lock(mutex);
    ++now.confirmed;
    now.current = -1;
    if (now.confirmed == int(list.size()))
        now.state = Done;
}

void CDelivery::fail(State state, const QString &trouble)
{
    const std::lock_guard lock(mutex);
    now.state = state;
    now.trouble = trouble;
}

void CDelivery::setDown(const QString &trouble)
{
    const std::lock_guard lock(mutex);
    now.current = -1;
    if (!trouble.isNull() && now.state == UnderWay)
        now.trouble = trouble;
}

CDelivery::Progress CDelivery::progress() const
{
    const std::lock_guard lock(mutex);
    Progress result = now;
    if (result.current >= 0)
        result.elapsedMs = duration_cast<milliseconds>(steady_clock::now() - begun).count();
    return result;
}
