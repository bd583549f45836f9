// Preloaded into the server: makes the call named by the page's plan fail. Only calls by the program itself
// count; calls within its libraries are not affected.
//
// With an errno, a call fails without being made. The exceptions are calls whose failure would otherwise
// leave the process in a state that the system cannot produce: a mutex that "cannot" be unlocked is unlocked,
// and a thread that "cannot" be cancelled or joined is cancelled or joined. Joining it again then succeeds.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "tests/fault/fault_page.h"

namespace {

constexpr std::size_t MAX_THREADS = 1024;

struct CreatedThread {
    void* (*entry)(void*) = nullptr;
    void* argument = nullptr;
    FaultThread role = FaultThread::MAIN;
    std::uint32_t connection = NO_FAULT_CONNECTION;
    std::atomic<pthread_t> handle{0};
    bool joined_already = false;
};

struct ThreadIdentity {
    FaultThread role = FaultThread::MAIN;
    std::uint32_t connection = NO_FAULT_CONNECTION;
    bool looking_at_the_stack = false;
    std::uint64_t received_bytes = 0;
    std::array<std::uint32_t, FAULT_CALLS> calls{};
};

std::uintptr_t program_base = 0;
std::uintptr_t program_end = 0;
FaultPage private_page;  // until the shared one is mapped
FaultPage* page = &private_page;
// Two for each connection, in the order of creation: the reader's, then the writer's.
std::array<CreatedThread, MAX_THREADS> threads;
std::atomic<std::uint32_t> threads_created = 0;
thread_local ThreadIdentity self;

[[noreturn]] void give_up(const char* why) {
    std::fprintf(stderr, "The fault injector gives up: %s\n", why);
    std::abort();
}

int find_program(dl_phdr_info* info, std::size_t /*size*/, void* /*data*/) {
    program_base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type == PT_LOAD) {
            program_end = std::max<std::uintptr_t>(
                program_end, program_base + info->dlpi_phdr[i].p_vaddr + info->dlpi_phdr[i].p_memsz);
        }
    }
    return 1;  // The program comes first; skip the rest.
}

[[gnu::constructor]] void map_page() {
    dl_iterate_phdr(find_program, nullptr);
    const int fd = open(FAULT_PAGE_PATH, O_RDWR | O_CLOEXEC);
    void* const mapped = mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        give_up("there is no page");
    }
    close(fd);
    page = static_cast<FaultPage*>(mapped);
}

// ---- the caller

bool is_program(const void* address) {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    return program_base <= value && value < program_end;
}

FaultStack program_stack() {
    FaultStack stack;
    std::array<void*, 2 * MAX_FAULT_FRAMES> all{};
    self.looking_at_the_stack = true;
    const int depth = backtrace(all.data(), static_cast<int>(all.size()));
    self.looking_at_the_stack = false;
    for (int i = 0; i < depth && stack.count < MAX_FAULT_FRAMES; ++i) {
        void* const address = all[static_cast<std::size_t>(i)];
        if (is_program(address)) {
            stack.frames[stack.count++] = reinterpret_cast<std::uintptr_t>(address) - program_base;
        }
    }
    return stack;
}

bool is_within(const FaultStack& stack, const CodeRange& range) {
    return std::any_of(stack.frames.begin(), stack.frames.begin() + stack.count,
                       [&](std::uint64_t frame) { return range.from <= frame && frame < range.to; });
}

// ---- the record

std::uint32_t connection_of_mutex(const void* mutex) {
    const auto address = reinterpret_cast<std::uintptr_t>(mutex);
    std::uintptr_t nearest = 0;
    std::uint32_t found = NO_FAULT_CONNECTION;
    for (std::uint32_t i = 0; i < threads_created; ++i) {
        const auto argument = reinterpret_cast<std::uintptr_t>(threads[i].argument);
        // A later connection may have the address of an earlier one.
        if (argument <= address && argument >= nearest) {
            nearest = argument;
            found = threads[i].connection;
        }
    }
    return found;
}

CreatedThread* find_thread(pthread_t handle) {
    for (std::uint32_t i = threads_created; i-- > 0;) {
        if (threads[i].handle == handle) {
            return &threads[i];
        }
    }
    return nullptr;
}

struct Subject {
    const void* mutex = nullptr;
    const CreatedThread* thread = nullptr;
};

void record(FaultCall call, const Subject& subject) {
    if (page->injected.load() == 0) {
        FaultRecord& first = page->first;
        first.thread = self.role;
        first.connection = subject.mutex != nullptr ? connection_of_mutex(subject.mutex) : self.connection;
        first.call_of_thread = self.calls[static_cast<std::size_t>(call)];
        first.sendmsg_calls = self.calls[static_cast<std::size_t>(FaultCall::SENDMSG)];
        first.received_bytes = self.received_bytes;
        first.target_thread = subject.thread != nullptr ? subject.thread->role : FaultThread::MAIN;
        first.stack = program_stack();
    }
    page->injected.fetch_add(1);
}

// Counts the call. Returns whether it is to fail.
bool must_fail(FaultCall call, const void* caller, const Subject& subject = {}) {
    const bool by_anyone = call == FaultCall::NEW;  // Strings allocate from within the standard library.
    if (!(by_anyone || is_program(caller)) || self.looking_at_the_stack) {
        return false;
    }
    ++self.calls[static_cast<std::size_t>(call)];
    const FaultPlan& plan = page->plan;
    if (plan.call != call || (plan.within.from != 0 && !is_within(program_stack(), plan.within))) {
        return false;
    }
    const std::uint64_t seen = ++page->seen;
    if (plan.nth == 0 || seen < plan.nth || (seen > plan.nth && !plan.all_later)) {
        return false;
    }
    record(call, subject);
    return true;
}

// Returns the error of a call that reports it as its result, or 0 if the call is not to fail.
int error_of(FaultCall call, const void* caller, const Subject& subject = {}) {
    return must_fail(call, caller, subject) ? page->plan.error : 0;
}

int fail() {
    errno = page->plan.error;
    return -1;
}

template <typename Function>
Function real(Function& cached, const char* name) {
    if (cached == nullptr) {
        cached = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    }
    return cached;
}

// The real function with the name of the enclosing function.
#define REAL(name)                                 \
    ([] {                                          \
        static decltype(&::name) cached = nullptr; \
        return real(cached, #name);                \
    }())
#define CALLER __builtin_return_address(0)

// Returns the number of bytes that the call may transfer: all, one, or none if it is to fail.
std::size_t granted(FaultCall call, std::size_t length, const void* caller) {
    if (!must_fail(call, caller)) {
        return length;
    }
    return page->plan.error == SHORT_TRANSFER ? 1 : 0;
}

ssize_t receive(int fd, void* buffer, std::size_t length, int flags, const void* caller) {
    const std::size_t bytes = granted(FaultCall::RECV, length, caller);
    const ssize_t got = bytes != 0 ? REAL(recv)(fd, buffer, bytes, flags) : fail();
    self.received_bytes += static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
    return got;
}

ssize_t send_one_byte(int fd, const msghdr& message, int flags) {
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        if (message.msg_iov[i].iov_len != 0) {
            return REAL(send)(fd, message.msg_iov[i].iov_base, 1, flags);
        }
    }
    return 0;
}

void* run_thread(void* created) {
    const auto* const thread = static_cast<CreatedThread*>(created);
    self.role = thread->role;
    self.connection = thread->connection;
    return thread->entry(thread->argument);
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return must_fail(FaultCall::SOCKET, CALLER) ? fail() : REAL(socket)(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    return must_fail(FaultCall::BIND, CALLER) ? fail() : REAL(bind)(fd, address, length);
}

int listen(int fd, int backlog) noexcept {
    return must_fail(FaultCall::LISTEN, CALLER) ? fail() : REAL(listen)(fd, backlog);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return must_fail(FaultCall::ACCEPT4, CALLER) ? fail() : REAL(accept4)(fd, address, length, flags);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    return must_fail(FaultCall::SETSOCKOPT, CALLER) ? fail()
                                                    : REAL(setsockopt)(fd, level, option, value, length);
}

ssize_t recv(int fd, void* buffer, std::size_t length, int flags) {
    return receive(fd, buffer, length, flags, CALLER);
}

// The compiler replaces recv with this if it knows the buffer's size.
ssize_t __recv_chk(int fd, void* buffer, std::size_t length, std::size_t /*room*/, int flags) {
    return receive(fd, buffer, length, flags, CALLER);
}

ssize_t send(int fd, const void* data, std::size_t length, int flags) {
    const std::size_t bytes = granted(FaultCall::SEND, length, CALLER);
    return bytes != 0 ? REAL(send)(fd, data, bytes, flags) : fail();
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    if (!must_fail(FaultCall::SENDMSG, CALLER)) {
        return REAL(sendmsg)(fd, message, flags);
    }
    return page->plan.error == SHORT_TRANSFER ? send_one_byte(fd, *message, flags) : fail();
}

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
    if (!is_program(CALLER)) {
        return REAL(pthread_create)(handle, attributes, entry, argument);
    }
    const std::uint32_t idx = threads_created;
    if (idx == MAX_THREADS) {
        give_up("too many threads");
    }
    CreatedThread& thread = threads[idx];
    thread.entry = entry;
    thread.argument = argument;
    thread.role = idx % 2 == 0 ? FaultThread::READER : FaultThread::WRITER;
    thread.connection = idx / 2;
    ++threads_created;
    if (const int error = error_of(FaultCall::PTHREAD_CREATE, CALLER)) {
        return error;
    }
    const int result = REAL(pthread_create)(handle, attributes, run_thread, &thread);
    thread.handle = *handle;
    return result;
}

int pthread_cancel(pthread_t handle) {
    const int error = error_of(FaultCall::PTHREAD_CANCEL, CALLER, {.thread = find_thread(handle)});
    const int result = REAL(pthread_cancel)(handle);
    return error != 0 ? error : result;
}

int pthread_join(pthread_t handle, void** result) {
    CreatedThread* const thread = find_thread(handle);
    const int error = error_of(FaultCall::PTHREAD_JOIN, CALLER, {.thread = thread});
    if (thread != nullptr && thread->joined_already) {
        return error;
    }
    const int joined = REAL(pthread_join)(handle, result);
    if (error != 0) {
        thread->joined_already = true;
    }
    return error != 0 ? error : joined;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    const int error = error_of(FaultCall::PTHREAD_MUTEX_LOCK, CALLER, {.mutex = mutex});
    return error != 0 ? error : REAL(pthread_mutex_lock)(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    const int error = error_of(FaultCall::PTHREAD_MUTEX_UNLOCK, CALLER, {.mutex = mutex});
    const int result = REAL(pthread_mutex_unlock)(mutex);
    return error != 0 ? error : result;
}

}  // extern "C"

// ---- allocations: every allocation and release passes through here and uses malloc() and free()

namespace {

void* allocate(FaultCall call, std::size_t bytes, const void* caller) {
    return must_fail(call, caller) ? nullptr : std::malloc(bytes != 0 ? bytes : 1);
}

void* allocate_or_throw(std::size_t bytes, const void* caller) {
    void* const memory = allocate(FaultCall::NEW, bytes, caller);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(FaultCall::NOTHROW_NEW, bytes, CALLER);
}
void* operator new[](std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(FaultCall::NOTHROW_NEW, bytes, CALLER);
}
void* operator new(std::size_t bytes) {
    return allocate_or_throw(bytes, CALLER);
}
void* operator new[](std::size_t bytes) {
    return allocate_or_throw(bytes, CALLER);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}
