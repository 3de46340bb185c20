// Whom to call and how often.
#pragma once

#include <QString>

struct CallTarget
{
    static constexpr int retryForEver = -1;

    QString abonent;
    QString address; // host name or IP address
    int port = 18001;
    int retries = 0; // further attempts, or retryForEver

    /// Takes "host", "host:port", "10.0.0.1:18002", "[::1]:18002" or "::1".
    /// @return whether the text has such a form; the port stays as it is when none is given
    bool setAddress(const QString &text);
};
