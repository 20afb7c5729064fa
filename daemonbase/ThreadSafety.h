// Annotations for clang's thread-safety analysis; under other compilers they vanish.
#pragma once

#if defined(__clang__)
#define BREL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define BREL_THREAD_ATTRIBUTE(x)
#endif

// A type that is a lock, and a type that holds one from its construction to its destruction.
#define CAPABILITY(name) BREL_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY BREL_THREAD_ATTRIBUTE(scoped_lockable)

// Data (or what a pointer leads to) that is touched only with the lock held.
#define GUARDED_BY(lock) BREL_THREAD_ATTRIBUTE(guarded_by(lock))
#define PT_GUARDED_BY(lock) BREL_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// Functions that expect a lock, or its absence.
#define REQUIRES(...) BREL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) BREL_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) BREL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// Functions that take or give back a lock.
#define ACQUIRE(...) BREL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) BREL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) BREL_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) BREL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) BREL_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))

// Lock order, and functions that return a lock.
#define ACQUIRED_BEFORE(...) BREL_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) BREL_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) BREL_THREAD_ATTRIBUTE(lock_returned(lock))

// For bodies that the analysis cannot follow; the reason stands at the function.
#define NO_THREAD_SAFETY_ANALYSIS BREL_THREAD_ATTRIBUTE(no_thread_safety_analysis)
