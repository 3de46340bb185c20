#include "tests/support/scripteddevice.h"

qint64 ScriptedDevice::readData(char *, qint64)
{
    return -1;
}

qint64 ScriptedDevice::writeData(const char *data, qint64 size)
{
    const qint64 step = script.at(qMin(offered.size(), script.size() - 1));
    offered += size;
    if (step == Fail)
        return -1;
    if (step == Close)
        close();
    const qint64 taken = step == Close ? size : qMin(step, size);
    accepted.append(data, static_cast<int>(taken));
    return taken;
}
