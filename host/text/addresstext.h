// An address as people write it, with its port.
#pragma once

#include <QString>

/// "10.0.0.1:18001", "[::1]:18001"
QString addressText(const QString &host, int port);
