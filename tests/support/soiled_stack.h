// Fills the stack below the caller, so that a variable that the next function forgets to initialise is not 0
// by chance.
#pragma once

#include <array>

[[gnu::noinline]] inline void soil_stack() {
    std::array<volatile unsigned char, 16384> bytes;
    for (volatile unsigned char& byte : bytes) {
        byte = 0xA5;
    }
}
