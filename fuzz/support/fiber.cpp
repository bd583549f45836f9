#include "fuzz/support/fiber.h"

#include <sanitizer/common_interface_defs.h>
#include <sys/mman.h>

#include <vector>

#include "base/check.h"

namespace {

constexpr std::size_t STACK_BYTES = 65536;
constexpr std::size_t GUARD_BYTES = 4096;

Fiber* current = nullptr;

// The context that resumed the running fiber.
ucontext_t resumer;
const void* resumer_stack = nullptr;
std::size_t resumer_stack_bytes = 0;

std::vector<void*>& free_stacks() {
    static std::vector<void*> stacks;
    return stacks;
}

void* take_stack() {
    if (!free_stacks().empty()) {
        void* const stack = free_stacks().back();
        free_stacks().pop_back();
        return stack;
    }
    void* const pages =
        mmap(nullptr, STACK_BYTES + GUARD_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CHECK(pages != MAP_FAILED);
    CHECK(mprotect(pages, GUARD_BYTES, PROT_NONE) == 0);
    return static_cast<char*>(pages) + GUARD_BYTES;
}

}  // namespace

Fiber::Fiber(Entry entry_function, void* entry_argument) : entry(entry_function), argument(entry_argument) {}

Fiber::~Fiber() {
    CHECK(stack == nullptr);
}

Fiber* Fiber::running() {
    return current;
}

void Fiber::run_current() {
    __sanitizer_finish_switch_fiber(nullptr, &resumer_stack, &resumer_stack_bytes);
    Fiber& self = *current;
    try {
        self.entry(self.argument);
    } catch (const Cancelled&) {
        CHECK(self.is_cancelled);
    }
    self.is_finished = true;
    self.leave(nullptr);
}

// If own_fake_stack is null, the fiber never continues.
void Fiber::leave(void** own_fake_stack) {
    __sanitizer_start_switch_fiber(own_fake_stack, resumer_stack, resumer_stack_bytes);
    swapcontext(&context, &resumer);
}

void Fiber::resume() {
    CHECK(current == nullptr && !is_finished);
    if (stack == nullptr) {
        stack = take_stack();
        CHECK(getcontext(&context) == 0);
        context.uc_stack.ss_sp = stack;
        context.uc_stack.ss_size = STACK_BYTES;
        context.uc_link = nullptr;
        makecontext(&context, run_current, 0);
    }
    current = this;
    void* resumer_fake_stack = nullptr;
    __sanitizer_start_switch_fiber(&resumer_fake_stack, stack, STACK_BYTES);
    CHECK(swapcontext(&resumer, &context) == 0);
    __sanitizer_finish_switch_fiber(resumer_fake_stack, nullptr, nullptr);
    current = nullptr;
    if (is_finished) {
        free_stacks().push_back(stack);
        stack = nullptr;
    }
}

void Fiber::cancel() {
    CHECK(!is_finished && !is_cancelled);
    is_cancelled = true;
    if (stack == nullptr) {
        is_finished = true;
        return;
    }
    resume();
    CHECK(is_finished);
}

void Fiber::wait() {
    CHECK(current == this);
    CHECK(!is_cancelled);  // Code that runs while a cancelled thread unwinds must not wait.
    leave(&fake_stack);
    __sanitizer_finish_switch_fiber(fake_stack, &resumer_stack, &resumer_stack_bytes);
    if (is_cancelled) {
        throw Cancelled();
    }
}
