// The memory that the process takes from the system, and when it goes back. Main thread.
#pragma once

#include "base/thread_roles.h"

// By default the allocator keeps a heap for every few threads, each as large as its worst moment. A server that
// runs for years has one. Before any other thread is created.
void use_one_small_heap() ON_MAIN_THREAD;

// Much memory has become free: a client has left, or a large value was decoded. What is free goes back to the system
// 10 s later, with all that becomes free meanwhile.
void expect_free_memory() ON_MAIN_THREAD;

// Once a pass: gives back what is free, between what is in use as well, once the 10 s have passed.
void give_back_free_memory() ON_MAIN_THREAD;
