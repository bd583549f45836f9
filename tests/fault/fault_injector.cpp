// Preloaded into the server: makes the calls named by V9_FAULT fail. Only calls by the program itself count;
// calls within its libraries are not affected.
//
//   V9_FAULT      CALL[.THREAD][@FROM-TO]:N[+]:ACTION
//                 CALL     a name of FAULT_CALL_NAMES
//                 THREAD   main, reader or writer: only calls by such a thread count
//                 FROM-TO  addresses of a function in the program, hexadecimal: only calls from it count
//                 N        the call that fails, from 1; with a plus sign all later ones also fail
//                 ACTION   an errno such as EIO; or
//                          short    recv, send, sendmsg: transfers only one byte
//   V9_FAULT_PAGE a file of the size of FaultPage, for the counts and the record
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
#include <cstring>
#include <new>
#include <string_view>

#include "tests/fault/fault_page.h"

namespace {

constexpr std::size_t MAX_THREADS = 1024;

enum class Action { ERRNO, SHORT };

struct Fault {
    FaultCall call = FaultCall::SOCKET;
    bool any_thread = true;
    FaultThread thread = FaultThread::MAIN;
    std::uintptr_t from = 0;  // 0: anywhere
    std::uintptr_t to = 0;
    std::uint64_t nth = 0;
    bool later_ones_too = false;
    Action action = Action::ERRNO;
    int error = 0;
};

struct CreatedThread {
    void* (*entry)(void*) = nullptr;
    void* argument = nullptr;
    std::atomic<pthread_t> handle{0};
    bool joined_already = false;
};

struct ThreadIdentity {
    FaultThread role = FaultThread::MAIN;
    std::uint32_t connection = NO_FAULT_CONNECTION;
    bool looking_at_the_stack = false;
    std::uint64_t received_bytes = 0;
    std::array<std::uint32_t, FAULT_CALL_NAMES.size()> calls{};
};

Fault planned_fault;
bool fault_is_planned = false;
std::uintptr_t program_base = 0;
std::uintptr_t program_end = 0;
FaultPage private_page;
FaultPage* page = &private_page;
// Two for each connection, in the order of creation: the reader's, then the writer's.
std::array<CreatedThread, MAX_THREADS> threads;
std::atomic<std::uint32_t> threads_created = 0;
thread_local ThreadIdentity self;

[[noreturn]] void reject(std::string_view text) {
    std::fprintf(stderr, "V9_FAULT or V9_FAULT_PAGE is wrong at '%.*s'\n", static_cast<int>(text.size()),
                 text.data());
    std::abort();
}

// ---- the plan

std::string_view cut(std::string_view& text, char delimiter) {
    const std::size_t end = std::min(text.find(delimiter), text.size());
    const std::string_view head = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return head;
}

std::uint64_t number(std::string_view text, int base) {
    char* end = nullptr;
    const std::uint64_t value = std::strtoull(text.data(), &end, base);
    if (end != text.data() + text.size() || text.empty()) {
        reject(text);
    }
    return value;
}

int errno_by_name(std::string_view name) {
    for (int error = 1; error < 256; ++error) {
        const char* const known = strerrorname_np(error);
        if (known != nullptr && name == known) {
            return error;
        }
    }
    reject(name);
}

void parse_action(std::string_view text) {
    if (text == "short") {
        planned_fault.action = Action::SHORT;
    } else {
        planned_fault.error = errno_by_name(text);
    }
}

FaultThread thread_by_name(std::string_view name) {
    if (name == "main") {
        return FaultThread::MAIN;
    }
    if (name == "reader") {
        return FaultThread::READER;
    }
    return name == "writer" ? FaultThread::WRITER : (reject(name), FaultThread::MAIN);
}

void parse_fault(std::string_view text) {
    std::string_view where = cut(text, ':');
    std::string_view range = where;
    where = cut(range, '@');
    if (!range.empty()) {
        planned_fault.from = number(cut(range, '-'), 16);
        planned_fault.to = number(range, 16);
    }
    const std::string_view name = cut(where, '.');
    const auto* const known = std::find(FAULT_CALL_NAMES.begin(), FAULT_CALL_NAMES.end(), name);
    if (known == FAULT_CALL_NAMES.end()) {
        reject(name);
    }
    planned_fault.call = static_cast<FaultCall>(known - FAULT_CALL_NAMES.begin());
    if (!where.empty()) {
        planned_fault.any_thread = false;
        planned_fault.thread = thread_by_name(where);
    }
    std::string_view nth = cut(text, ':');
    planned_fault.later_ones_too = nth.ends_with('+');
    nth.remove_suffix(planned_fault.later_ones_too ? 1 : 0);
    planned_fault.nth = number(nth, 10);
    parse_action(text);
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

void map_page(const char* path) {
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void* const mapped = mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (fd < 0 || mapped == MAP_FAILED) {
        reject(path);
    }
    close(fd);
    page = static_cast<FaultPage*>(mapped);
}

[[gnu::constructor]] void read_plan() {
    dl_iterate_phdr(find_program, nullptr);
    if (const char* const path = std::getenv("V9_FAULT_PAGE")) {
        map_page(path);
    }
    const char* const plan = std::getenv("V9_FAULT");
    if (plan != nullptr) {
        parse_fault(plan);
        fault_is_planned = true;
    }
}

// ---- the caller

bool is_program(const void* address) {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    return program_base <= value && value < program_end;
}

// The stack frames of the program itself.
struct Stack {
    std::array<std::uint64_t, MAX_FAULT_FRAMES> frames{};
    std::uint32_t count = 0;
};

Stack program_stack() {
    std::array<void*, 2 * MAX_FAULT_FRAMES> all{};
    self.looking_at_the_stack = true;
    const int depth = backtrace(all.data(), static_cast<int>(all.size()));
    self.looking_at_the_stack = false;
    Stack stack;
    for (int i = 0; i < depth && stack.count < MAX_FAULT_FRAMES; ++i) {
        void* const address = all[static_cast<std::size_t>(i)];
        if (is_program(address)) {
            stack.frames[stack.count++] = reinterpret_cast<std::uintptr_t>(address) - program_base;
        }
    }
    return stack;
}

bool is_within(const Stack& stack) {
    return std::any_of(stack.frames.begin(), stack.frames.begin() + stack.count, [&](std::uint64_t frame) {
        return planned_fault.from <= frame && frame < planned_fault.to;
    });
}

// ---- the record

std::uint32_t connection_of_mutex(const void* mutex) {
    const auto address = reinterpret_cast<std::uintptr_t>(mutex);
    std::uintptr_t nearest = 0;
    std::uint32_t found = NO_FAULT_CONNECTION;
    for (std::uint32_t i = 0; i < std::min<std::uint32_t>(threads_created, MAX_THREADS); ++i) {
        const auto argument = reinterpret_cast<std::uintptr_t>(threads[i].argument);
        // A later connection may have the address of an earlier one.
        if (argument <= address && argument >= nearest) {
            nearest = argument;
            found = i / 2;
        }
    }
    return found;
}

CreatedThread* find_thread(pthread_t handle) {
    for (std::uint32_t i = std::min<std::uint32_t>(threads_created, MAX_THREADS); i-- > 0;) {
        if (threads[i].handle == handle) {
            return &threads[i];
        }
    }
    return nullptr;
}

struct Subject {
    int fd = -1;
    const void* mutex = nullptr;
    pthread_t thread = 0;
};

void record(const Stack& stack, FaultCall call, const Subject& subject) {
    if (page->injected.load() == 0) {
        FaultRecord& first = page->first;
        first.thread = self.role;
        first.connection = subject.mutex != nullptr ? connection_of_mutex(subject.mutex) : self.connection;
        first.call_of_thread = self.calls[static_cast<std::size_t>(call)];
        first.sendmsg_calls = self.calls[static_cast<std::size_t>(FaultCall::SENDMSG)];
        first.received_bytes = self.received_bytes;
        int domain = 0;
        socklen_t length = sizeof domain;
        first.on_control_socket =
            subject.fd >= 0 && getsockopt(subject.fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
                    domain == AF_UNIX
                ? 1
                : 0;
        if (const CreatedThread* const target = find_thread(subject.thread);
            subject.thread != 0 && target != nullptr) {
            const auto idx = static_cast<std::uint32_t>(target - threads.data());
            first.target_connection = idx / 2;
            first.target_thread = idx % 2 == 0 ? FaultThread::READER : FaultThread::WRITER;
        }
        first.frame_count = stack.count;
        first.frames = stack.frames;
    }
    page->injected.fetch_add(1);
}

// Counts the call. Returns the fault to inject, or null.
const Fault* suffer(FaultCall call, const void* caller, const Subject& subject) {
    const bool by_anyone = call == FaultCall::NEW;  // Strings allocate from within the standard library.
    if (!(by_anyone || is_program(caller)) || self.looking_at_the_stack) {
        return nullptr;
    }
    page->calls[static_cast<std::size_t>(call)].fetch_add(1, std::memory_order_relaxed);
    ++self.calls[static_cast<std::size_t>(call)];
    if (!fault_is_planned || planned_fault.call != call ||
        !(planned_fault.any_thread || planned_fault.thread == self.role) ||
        (planned_fault.from != 0 && !is_within(program_stack()))) {
        return nullptr;
    }
    const std::uint64_t seen = ++page->seen;
    if (seen != planned_fault.nth && !(planned_fault.later_ones_too && seen > planned_fault.nth)) {
        return nullptr;
    }
    record(program_stack(), call, subject);
    return &planned_fault;
}

int fail_with(const Fault& fault) {
    errno = fault.error;
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

ssize_t receive(int fd, void* buffer, std::size_t length, int flags, const void* caller) {
    const Fault* const fault = suffer(FaultCall::RECV, caller, {.fd = fd});
    if (fault != nullptr && fault->action == Action::ERRNO) {
        return fail_with(*fault);
    }
    const ssize_t got =
        REAL(recv)(fd, buffer, fault != nullptr ? std::min<std::size_t>(length, 1) : length, flags);
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
    const auto idx = static_cast<std::uint32_t>(thread - threads.data());
    self.role = idx % 2 == 0 ? FaultThread::READER : FaultThread::WRITER;
    self.connection = idx / 2;
    return thread->entry(thread->argument);
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    const Fault* const fault = suffer(FaultCall::SOCKET, CALLER, {});
    return fault != nullptr ? fail_with(*fault) : REAL(socket)(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    const Fault* const fault = suffer(FaultCall::BIND, CALLER, {.fd = fd});
    return fault != nullptr ? fail_with(*fault) : REAL(bind)(fd, address, length);
}

int listen(int fd, int backlog) noexcept {
    const Fault* const fault = suffer(FaultCall::LISTEN, CALLER, {.fd = fd});
    return fault != nullptr ? fail_with(*fault) : REAL(listen)(fd, backlog);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    const Fault* const fault = suffer(FaultCall::ACCEPT4, CALLER, {.fd = fd});
    return fault != nullptr ? fail_with(*fault) : REAL(accept4)(fd, address, length, flags);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    const Fault* const fault = suffer(FaultCall::SETSOCKOPT, CALLER, {.fd = fd});
    return fault != nullptr ? fail_with(*fault) : REAL(setsockopt)(fd, level, option, value, length);
}

ssize_t recv(int fd, void* buffer, std::size_t length, int flags) {
    return receive(fd, buffer, length, flags, CALLER);
}

// The compiler replaces recv with this if it knows the buffer's size.
ssize_t __recv_chk(int fd, void* buffer, std::size_t length, std::size_t /*room*/, int flags) {
    return receive(fd, buffer, length, flags, CALLER);
}

ssize_t send(int fd, const void* data, std::size_t length, int flags) {
    const Fault* const fault = suffer(FaultCall::SEND, CALLER, {.fd = fd});
    if (fault != nullptr && fault->action == Action::ERRNO) {
        return fail_with(*fault);
    }
    return REAL(send)(fd, data, fault != nullptr ? std::min<std::size_t>(length, 1) : length, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    const Fault* const fault = suffer(FaultCall::SENDMSG, CALLER, {.fd = fd});
    if (fault == nullptr) {
        return REAL(sendmsg)(fd, message, flags);
    }
    return fault->action == Action::SHORT ? send_one_byte(fd, *message, flags) : fail_with(*fault);
}

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
    if (!is_program(CALLER)) {
        return REAL(pthread_create)(handle, attributes, entry, argument);
    }
    const std::uint32_t idx = threads_created.fetch_add(1);
    if (idx >= MAX_THREADS) {
        reject("a thread too many");
    }
    CreatedThread& thread = threads[idx];
    thread.entry = entry;
    thread.argument = argument;
    const Fault* const fault = suffer(FaultCall::PTHREAD_CREATE, CALLER, {});
    if (fault != nullptr) {
        return fault->error;
    }
    const int result = REAL(pthread_create)(handle, attributes, run_thread, &thread);
    thread.handle = *handle;
    return result;
}

int pthread_cancel(pthread_t handle) {
    const Fault* const fault = suffer(FaultCall::PTHREAD_CANCEL, CALLER, {.thread = handle});
    const int result = REAL(pthread_cancel)(handle);
    return fault != nullptr ? fault->error : result;
}

int pthread_join(pthread_t handle, void** result) {
    CreatedThread* const thread = is_program(CALLER) ? find_thread(handle) : nullptr;
    const Fault* const fault = suffer(FaultCall::PTHREAD_JOIN, CALLER, {.thread = handle});
    const bool joined_already = thread != nullptr && thread->joined_already;
    const int joined = joined_already ? 0 : REAL(pthread_join)(handle, result);
    if (fault == nullptr || thread == nullptr) {
        return joined;
    }
    thread->joined_already = true;
    return fault->error;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    const Fault* const fault = suffer(FaultCall::PTHREAD_MUTEX_LOCK, CALLER, {.mutex = mutex});
    return fault != nullptr ? fault->error : REAL(pthread_mutex_lock)(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    const Fault* const fault = suffer(FaultCall::PTHREAD_MUTEX_UNLOCK, CALLER, {.mutex = mutex});
    const int result = REAL(pthread_mutex_unlock)(mutex);
    return fault != nullptr ? fault->error : result;
}

}  // extern "C"

// ---- allocations: all of them and all releases pass here, so malloc() and free() serve them

namespace {

void* allocate(FaultCall call, std::size_t bytes, const void* caller) {
    return suffer(call, caller, {}) != nullptr ? nullptr : std::malloc(bytes != 0 ? bytes : 1);
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
