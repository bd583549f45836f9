// Annotations by which clang checks, at compile time, who may touch what (the clang preset makes them
// errors). Other compilers see nothing.
//
// Two kinds of capability are checked: mutexes, and roles. A role is a kind of thread: holding the role means running
// on such a thread. A reader or writer thread knows no connection but its own.
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

inline constexpr ThreadRole MAIN_THREAD{};    // the thread that runs main()
inline constexpr ThreadRole READER_THREAD{};  // a connection's reader
inline constexpr ThreadRole WRITER_THREAD{};  // a connection's writer

// Behind a function's parameters: only such a thread may call it.
#define ON_MAIN_THREAD REQUIRES(MAIN_THREAD)
#define ON_READER_THREAD REQUIRES(READER_THREAD)
#define ON_WRITER_THREAD REQUIRES(WRITER_THREAD)

// Says to the checker that this thread has the role from here on. Called where the thread begins, and where another
// thread has the role's work to itself.
inline void assume_role(const ThreadRole& role) ASSERT_CAPABILITY(role);
inline void assume_role(const ThreadRole& /*role*/) {}
