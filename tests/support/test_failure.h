// What the support code throws when something that had to happen did not; the test ends there and the text
// says what was awaited and what came instead.
#pragma once

#include <stdexcept>

struct TestFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
