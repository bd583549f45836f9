// The numbers that rand() is to return, linked in place of the C library's: tests say what is drawn, and see
// how often.
#pragma once

#include <deque>

// Drawn from the front; a draw that was not foreseen fails the test and returns 0.
extern std::deque<int> scripted_draws;
