#include "base/check.h"

#include <pthread.h>

#include <cstdlib>

#include "base/diag.h"

void check_failed(const char* expression, const char* function) {
    // A thread with a pending cancellation must still report why the process aborts.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    diag("v9_rtmp_server: %s: Assertion '%s' failed.\n", function, expression);
    std::abort();
}
