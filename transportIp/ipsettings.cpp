// The records byte by byte. Written out by hand, since a data stream costs four times as much and its
// rules for damaged data are kept here explicitly.
#include "transportIp/ipsettings.h"

#include "common/functiontrace.h"

#include <QtEndian>

#include <utility>

namespace {

constexpr qint32 settingsVersion = 2;
constexpr quint32 nullTextLength = 0xffffffff;

/// Appends big-endian fields to a record of known size.
class RecordWriter
{
public:
    explicit RecordWriter(int size) : record(size, Qt::Uninitialized), next(record.data()) {}

    void addByte(bool value) { *next++ = value ? 1 : 0; }

    void addInt(quint32 value)
    {
        qToBigEndian(value, next);
        next += sizeof value;
    }

    void addText(const QString &text)
    {
        qToBigEndian<quint16>(text.utf16(), text.size(), next);
        next += text.size() * int(sizeof(quint16));
    }

    QByteArray take() { return std::move(record); }

private:
    QByteArray record;
    char *next;
};

/// Takes big-endian fields from a record. A field that the end of the data cuts short reads as zero,
/// and so does everything after it.
class RecordReader
{
public:
    explicit RecordReader(const QByteArray &data) : next(data.constData()), left(data.size()) {}

    bool isDamaged() const { return damaged; }

    bool takeByte()
    {
        const char *field = take(1);
        return field && *field;
    }

    qint32 takeInt() { return qint32(takeUnsigned()); }

    QString takeText()
    {
        const quint32 bytes = takeUnsigned();
        if (damaged || bytes == nullTextLength)
            return {};
        if (bytes % sizeof(quint16) != 0) {
            damaged = true; // the fields behind it are still read, from where the text would begin
            return {};
        }
        const char *field = take(bytes);
        if (!field)
            return {};
        QString text(int(bytes / sizeof(quint16)), Qt::Uninitialized);
        qFromBigEndian<quint16>(field, text.size(), text.data());
        return text;
    }

private:
    quint32 takeUnsigned()
    {
        const char *field = take(sizeof(quint32));
        return field ? qFromBigEndian<quint32>(field) : 0;
    }

    const char *take(quint32 size)
    {
        if (size > quint32(left)) {
            damaged = true;
            left = 0;
            return nullptr;
        }
        const char *field = next;
        next += size;
        left -= int(size);
        return field;
    }

    const char *next;
    int left;
    bool damaged = false;
};

QString versionMismatch(qint32 version)
{
    return QStringLiteral("Версия настроек %1 не совпадает с текущей %2")
        .arg(QString::number(version), QString::number(settingsVersion));
}

QString outcome(const RecordReader &record)
{
    return record.isDamaged() ? QStringLiteral("Данные повреждены") : QString();
}

} // namespace

QByteArray ChannelIpSettings::toByteArray() const
{
    TRACE_FUNCTION;
    RecordWriter record(17);
    record.addInt(settingsVersion);
    record.addByte(canCheckOnline);
    record.addInt(quint32(maxConnections));
    record.addInt(quint32(port));
    record.addInt(quint32(blockSizeKb));
    return record.take();
}

QString ChannelIpSettings::fromByteArray(const QByteArray &data)
{
    TRACE_FUNCTION;
    RecordReader record(data);
    const qint32 version = record.takeInt();
    if (version != settingsVersion)
        return versionMismatch(version);

    canCheckOnline = record.takeByte();
    maxConnections = record.takeInt();
    port = record.takeInt();
    blockSizeKb = record.takeInt();
    return outcome(record);
}

QByteArray AbonentIpSettings::toByteArray() const
{
    TRACE_FUNCTION;
    const int textBytes = address.size() * int(sizeof(quint16));
    RecordWriter record(12 + textBytes);
    record.addInt(settingsVersion);
    record.addInt(address.isNull() ? nullTextLength : quint32(textBytes));
    record.addText(address);
    record.addInt(quint32(port));
    return record.take();
}

QString AbonentIpSettings::fromByteArray(const QByteArray &data)
{
    TRACE_FUNCTION;
    RecordReader record(data);
    const qint32 version = record.takeInt();
    if (version != settingsVersion)
        return versionMismatch(version);

    address = record.takeText();
    port = record.takeInt();
    return outcome(record);
}
