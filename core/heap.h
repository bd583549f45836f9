// Limits the memory that the process holds, and returns free memory to the system. Main thread.
#pragma once

#include "base/thread_roles.h"

// Makes the allocator use a single heap. By default it keeps several for each processor, each as large as
// its peak. Call before any other thread is created.
void use_one_small_heap() ON_MAIN_THREAD;

// Call when a client has left or a large value has been decoded. Free memory is returned to the system 10 s
// later, together with what becomes free in between.
void expect_free_memory() ON_MAIN_THREAD;

// Call once per pass. Once the 10 s have passed, returns free memory, including free pages between used ones.
void give_back_free_memory() ON_MAIN_THREAD;
