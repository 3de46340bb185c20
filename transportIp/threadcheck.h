// Promises about threads, checked in debug builds.
#pragma once

#include <QThread>

/// At the top of an operation: the caller is in @a thread.
#define ASSERT_IN_THREAD(thread)                                                                             \
    Q_ASSERT_X(QThread::currentThread() == (thread), Q_FUNC_INFO, "called from another thread")
