// Annotations for clang's thread safety analysis, which checks at compile time which thread may touch what.
// The clang preset turns its findings into errors. Other compilers ignore the annotations.
//
// There are two kinds of capability: mutexes and roles. A role stands for a thread: holding the role means
// running on that thread. The main thread's role is global; each connection has one role for its reader
// thread and one for its writer thread.
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

// Placed after a function's parameters: only the main thread may call the function.
#define ON_MAIN_THREAD REQUIRES(MAIN_THREAD)

// Tells the checker that this thread holds the role from here on. Called once, at the start of the thread.
inline void assume_role(const ThreadRole& role) ASSERT_CAPABILITY(role);
inline void assume_role(const ThreadRole& /*role*/) {}
