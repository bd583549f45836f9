// Annotations for clang's thread safety analysis, which checks at compile time which thread may touch what.
// The clang preset turns its findings into errors. Other compilers ignore the annotations.
//
// There are two kinds of capability: mutexes and roles. A role stands for a kind of thread: holding the role
// means running on such a thread. A reader or writer thread uses no connection but its own.
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

// Placed after a function's parameters: only a thread that holds the role may call the function.
#define ON_MAIN_THREAD REQUIRES(MAIN_THREAD)
#define ON_READER_THREAD REQUIRES(READER_THREAD)
#define ON_WRITER_THREAD REQUIRES(WRITER_THREAD)

// Tells the checker that this thread holds the role from here on. Called at the start of a thread, and where
// another thread does work of this role at a time when the role's own thread cannot be doing it.
inline void assume_role(const ThreadRole& role) ASSERT_CAPABILITY(role);
inline void assume_role(const ThreadRole& /*role*/) {}
