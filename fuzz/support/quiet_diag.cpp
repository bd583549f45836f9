#include "fuzz/support/quiet_diag.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "base/check.h"
#include "base/diag.h"

void (*before_diagnostic)() = nullptr;

namespace {

std::array<char, 512> line;
std::size_t line_bytes = 0;

void print(const char* format, std::va_list args) {
    if (before_diagnostic != nullptr) {
        before_diagnostic();
    }
    const int length = std::vsnprintf(line.data(), line.size(), format, args);
    CHECK(length >= 0);
    line_bytes = std::min(static_cast<std::size_t>(length), line.size() - 1);
}

}  // namespace

std::string_view last_diagnostic() {
    return {line.data(), line_bytes};
}

void forget_diagnostics() {
    line_bytes = 0;
}

void diag(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    print(format, args);
    va_end(args);
}

bool refuse(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    print(format, args);
    va_end(args);
    return false;
}

void diag_block(std::string_view text) {
    if (before_diagnostic != nullptr) {
        before_diagnostic();
    }
    CHECK(text.ends_with('\n'));
}

void diag_stdout(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    print(format, args);
    va_end(args);
}
