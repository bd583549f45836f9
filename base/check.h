// The assertion: always on, in every build, for our own mistakes and never for a peer's bytes.
//
// CHECK(expression) evaluates the expression exactly once, so it may have an effect (an unlock). When it is
// false, the process prints
//     v9_rtmp_server: <function>: Assertion '<expression>' failed.
// on standard error and aborts. The text of the expression is what operators and tests search for.
#pragma once

[[noreturn]] void check_failed(const char* expression, const char* function);

#define CHECK(expression) \
    (static_cast<bool>(expression) ? static_cast<void>(0) : check_failed(#expression, __func__))
