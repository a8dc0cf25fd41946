#pragma once

// Which lock guards what, in words that clang checks (-Wthread-safety, an error in the second compiler's build).
// Other compilers do not look at them. A class that is a lock is a CAPABILITY, a guard of a scope a
// SCOPED_CAPABILITY.
//
// Only GPMutex is known to the check: what a std::mutex guards is said in a comment beside it.

#if defined(__clang__)
#define OSTLER_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define OSTLER_THREAD_ATTRIBUTE(attribute)
#endif

#define CAPABILITY(name) OSTLER_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY OSTLER_THREAD_ATTRIBUTE(scoped_lockable)

// The variable is read and written with the lock held; of a pointer, PT_ means what it points at.
#define GUARDED_BY(lock) OSTLER_THREAD_ATTRIBUTE(guarded_by(lock))
#define PT_GUARDED_BY(lock) OSTLER_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// The caller holds the lock, or must not hold it.
#define REQUIRES(...) OSTLER_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) OSTLER_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// The function comes back with the lock taken, or freed; without an argument the object itself.
#define ACQUIRE(...) OSTLER_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) OSTLER_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

// The function is not looked at. The reason stands beside it.
#define NO_THREAD_SAFETY_ANALYSIS OSTLER_THREAD_ATTRIBUTE(no_thread_safety_analysis)
