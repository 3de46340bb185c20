#include "common/terminationguard.h"

#include <pthread.h>

CTerminationGuard::CTerminationGuard() noexcept
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previousState);
}

CTerminationGuard::~CTerminationGuard()
{
    pthread_setcancelstate(previousState, nullptr);
}
