// Measurements of the runtime, printed as rows: area, case, variant, metric, value.
#pragma once

#include <QString>

namespace Rows {

constexpr char variant[] = "project";

void log();                            // area "d log"; the log of this process
void saving(const QString &directory); // area "e saving"
void small();                          // area "f small"

/// How cost grows: threads that log, messages in a directory, keys in the settings file.
void growth(const QString &directory);

} // namespace Rows
