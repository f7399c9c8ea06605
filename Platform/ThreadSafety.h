#pragma once

// Clang's thread-safety attributes: with -Wthread-safety the compiler checks
// that every member marked GUARDED_BY is touched only with its mutex held and
// that every function marked REQUIRES is called with it held. Other
// compilers see nothing.
#if defined(__clang__)
#define LUM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LUM_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) LUM_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY LUM_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) LUM_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) LUM_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) LUM_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) LUM_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) LUM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) LUM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) LUM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) LUM_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) LUM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) LUM_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) LUM_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) LUM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE_SHARED(...) LUM_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) LUM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) LUM_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) LUM_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS LUM_THREAD_ANNOTATION(no_thread_safety_analysis)
