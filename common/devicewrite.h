// Writing a whole array to a device within a time.
#pragma once

#include "common/exports.h"

class QByteArray;
class QIODevice;

namespace Global {

/// Writes all of @a data to an open @a device, or gives up when the time is over.
///
/// @param timeout milliseconds; 0 for the configured limit (Details/maxWritingTime, read once per
///        process), negative for none
/// @return whether the device has accepted every byte in time; on failure some may have gone.
///         Nothing is logged
/// [any thread] that owns the device. Blocks; needs no event loop.
RUNTIME_EXPORT bool writeData(QIODevice &device, const QByteArray &data, int timeout);

} // namespace Global
