// Threads that take turns on one real thread: each runs until it waits, and continues when it is resumed. So
// the order in which the server's threads run depends only on the input of the fuzz target.
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
    // Requires that it has finished or has never begun.
    ~Fiber();

    // Returns the running fiber; null if there is none.
    static Fiber* running();

    // Runs it until it waits or returns. Must not be called within a fiber.
    void resume();

    // Makes it leave its wait by an exception, as a cancelled thread does, so that it returns now.
    void cancel();

    // On the running fiber: returns to the caller of resume(). May throw, and is then not called again.
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
