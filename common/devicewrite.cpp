#include "common/devicewrite.h"

#include "common/settingonce.h"

#include <QElapsedTimer>
#include <QIODevice>
#include <QThread>

namespace {

constexpr int pauseMs = 1; // to wait for the device, and to sleep: a slow one is tried every 2 ms

CSettingOnce defaultTimeout(&CSettings::detailsMaxWritingTime);

} // namespace

namespace Global {

bool writeData(QIODevice &device, const QByteArray &data, int timeout)
{
    if (data.isEmpty())
        return true;
    const int limitMs = timeout == 0 ? defaultTimeout.value() : timeout;

    qint64 done = device.write(data);
    if (done < 0)
        return false;
    if (done >= data.size())
        return true;

    QElapsedTimer clock;
    clock.start();
    while (done < data.size()) {
        device.waitForBytesWritten(pauseMs);
        QThread::msleep(pauseMs);
        const qint64 more = device.write(data.constData() + done, data.size() - done);
        if (more < 0)
            return false;
        done += more;
        // Before the question whether all is accepted: what comes too late has failed.
        if (limitMs > 0 && clock.elapsed() > limitMs)
            return false;
        if (!device.isOpen())
            return false;
    }
    return true;
}

} // namespace Global
