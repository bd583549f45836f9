// The assertion, active in every build. It catches our own mistakes and never checks a peer's bytes.
//
// CHECK(expression) evaluates the expression exactly once, so it may have a side effect (an unlock). When it
// is false, the process prints
//     v9_rtmp_server: <function>: Assertion '<expression>' failed.
// on standard error and aborts. The text of an expression is an interface: operators and tests search for it.
// Expressions therefore keep odd spellings (a cast, NULL, missing spaces); never tidy one up.
#pragma once

[[noreturn]] void check_failed(const char* expression, const char* function);

#define CHECK(expression) \
    (static_cast<bool>(expression) ? static_cast<void>(0) : check_failed(#expression, __func__))
