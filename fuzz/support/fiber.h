// Threads that take turns on one: each runs until it waits, and goes on when it is told to. Thereby what a
// fuzz target does with the server's threads depends on its input alone.
#pragma once

#include <ucontext.h>

#include <cstddef>

class Fiber {
  public:
    using Entry = void* (*)(void*);

    // Nothing runs yet.
    Fiber(Entry entry_function, void* entry_argument);
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;
    // It has finished, or never begun.
    ~Fiber();

    // The one that runs; null: none of them.
    static Fiber* running();

    // Runs it until it waits or returns. Not from within a fiber.
    void resume();

    // Has it leave its wait by an exception, as a cancelled thread does, so that it returns now.
    void cancel();

    // On the running fiber: back to whoever resumed it. May throw, and then is not called again.
    void wait();

    [[nodiscard]] bool finished() const { return is_finished; }
    [[nodiscard]] void* entry_argument() const { return argument; }

  private:
    struct Cancelled {};

    static void run_current();
    void leave(void** own_fake_stack);

    Entry entry;
    void* argument;
    void* stack = nullptr;  // null until it begins
    ucontext_t context{};
    void* fake_stack = nullptr;
    bool is_finished = false;
    bool is_cancelled = false;
};
