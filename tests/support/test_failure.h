// Thrown by the support code if something required did not happen. The test ends there. The text says what
// was expected and what happened instead.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

struct TestFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Returns the result of a system call, or throws with the call's name if it failed.
inline int checked(int result, const char* call) {
    if (result < 0) {
        throw TestFailure(std::string(call) + ": " + std::strerror(errno));
    }
    return result;
}
