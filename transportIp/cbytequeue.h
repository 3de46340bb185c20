// Bytes that wait, first in first out, in blocks: their memory is given back as they are taken.
#pragma once

#include <QByteArray>
#include <QList>

class CByteQueue
{
public:
    qint64 size() const { return total; }

    void append(const char *data, qint64 size);

    /// The first bytes, as many as lie together. [valid until the next change]
    const char *front() const;
    int frontSize() const;

    /// @param size at most frontSize()
    void remove(int size);

    void clear();

private:
    QList<QByteArray> blocks;
    int taken = 0; // of the first block
    qint64 total = 0;
};
