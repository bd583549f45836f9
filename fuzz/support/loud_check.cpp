// The assertion of the fuzz targets, linked in place of the server's, whose diagnostics they silence.
#include <stdio.h>
#include <unistd.h>

#include <cstdlib>

#include "base/check.h"

void check_failed(const char* expression, const char* function) {
    dprintf(STDERR_FILENO, "%s: Assertion '%s' failed.\n", function, expression);
    std::abort();
}
