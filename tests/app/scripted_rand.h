// Linked in place of the C library's rand(): tests set the numbers that it returns, and see how many
// are drawn.
#pragma once

#include <deque>

// Drawn from the front; a draw from the empty queue fails the test and returns 0.
extern std::deque<int> scripted_draws;
