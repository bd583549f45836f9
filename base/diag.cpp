#include "base/diag.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

void write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;  // There is nowhere left to report this.
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

[[gnu::format(printf, 2, 0)]] void write_formatted(int fd, const char* format, std::va_list args) {
    char line[512];
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(line, sizeof line, format, args);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof line) {
        write_all(fd, {line, static_cast<std::size_t>(length)});
    } else if (length >= 0) {
        // A stream name may be a megabyte long and is printed in full.
        std::string text(static_cast<std::size_t>(length) + 1, '\0');
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
        write_all(fd, text);
    }
    va_end(again);
}

}  // namespace

void diag(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    write_formatted(STDERR_FILENO, format, args);
    va_end(args);
}

bool refuse(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    write_formatted(STDERR_FILENO, format, args);
    va_end(args);
    return false;
}

void diag_block(std::string_view text) {
    write_all(STDERR_FILENO, text);
}

void diag_stdout(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    write_formatted(STDOUT_FILENO, format, args);
    va_end(args);
}
