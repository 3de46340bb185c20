// Log records by several threads at once.
#pragma once

struct LogCost
{
    double recordsPerSecond;
    double cpuUsPerRecord; // of all threads together
};

/// Writes @a records records of 72 bytes by @a threads threads, to the log file only.
LogCost writeRecords(int records, int threads);
