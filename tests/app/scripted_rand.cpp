#include "tests/app/scripted_rand.h"

#include <gtest/gtest.h>

#include <cstdlib>

std::deque<int> scripted_draws;

extern "C" int rand() noexcept {
    if (scripted_draws.empty()) {
        ADD_FAILURE() << "rand() was called once more than the test expects";
        return 0;
    }
    const int draw = scripted_draws.front();
    scripted_draws.pop_front();
    return draw;
}
