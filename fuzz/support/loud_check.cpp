// The assertion of the fuzz targets, linked in place of the server's, whose diagnostics they silence.
#include <cstdio>
#include <cstdlib>

#include "base/check.h"

void check_failed(const char* expression, const char* function) {
    std::fprintf(stderr, "%s: Assertion '%s' failed.\n", function, expression);
    std::abort();
}
