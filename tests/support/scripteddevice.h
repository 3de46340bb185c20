// A device for writing that accepts what its script says.
#pragma once

#include <QIODevice>
#include <QList>

class ScriptedDevice : public QIODevice
{
public:
    // Steps that are not a number of bytes.
    enum : qint64
    {
        Fail = -1, // write() returns -1
        Close = -2 // accepts all and closes itself
    };

    /// One step per write(): how many bytes it accepts, or one of the above; the last one repeats.
    explicit ScriptedDevice(const QList<qint64> &steps) : script(steps)
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

    QByteArray accepted;
    QList<qint64> offered; // the length of each piece that was offered

protected:
    qint64 readData(char *data, qint64 size) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    const QList<qint64> script;
};
