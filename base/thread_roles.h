// Annotations by which clang checks, at compile time, who may touch what (the clang preset makes them
// errors). Other compilers see nothing.
//
// Two kinds of capability are checked: mutexes, and roles. A role is a thread: holding the role means running
// on that thread. The main thread's role is global; each connection has a role for its reader and its writer
// thread.
#pragma once

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) THREAD_ANNOTATION(assert_capability(x))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

class CAPABILITY("role") ThreadRole {};

// The thread that runs main().
inline constexpr ThreadRole MAIN_THREAD{};

// Behind a function's parameters: only the main thread may call it.
#define ON_MAIN_THREAD REQUIRES(MAIN_THREAD)

// Says to the checker that this thread has the role from here on. Called once, where the thread begins.
inline void assume_role(const ThreadRole& role) ASSERT_CAPABILITY(role);
inline void assume_role(const ThreadRole& /*role*/) {}
