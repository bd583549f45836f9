#include "tests/support/silent_system.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/diag.h"

std::string printed_text;
std::string printed_dumps;
std::function<std::uint32_t()> random_source;

namespace {

[[gnu::format(printf, 1, 0)]] void append(const char* format, std::va_list args) {
    char text[512];
    const int length = std::vsnprintf(text, sizeof text, format, args);
    // No text in a schedule is so long that it would be cut here.
    printed_text.append(text, static_cast<std::size_t>(length));
}

}  // namespace

void diag(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    append(format, args);
    va_end(args);
}

bool refuse(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    append(format, args);
    va_end(args);
    return false;
}

void diag_block(std::string_view text) {
    printed_dumps += text;
}

void diag_stdout(const char* /*format*/, ...) {}

extern "C" {

int rand() noexcept {
    return static_cast<int>(random_source());
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* /*attributes*/, void* (* /*entry*/)(void*),
                          void* /*argument*/) {
    *thread = {};
    return 0;
}

int __wrap_pthread_cancel(pthread_t /*thread*/) {
    return 0;
}

int __wrap_pthread_join(pthread_t /*thread*/, void** /*result*/) {
    return 0;
}

int __wrap_close(int /*fd*/) {
    return 0;
}

}  // extern "C"
