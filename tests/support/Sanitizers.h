#pragma once

// Whether this build runs under a memory or thread checker. A test that takes away what the checker itself
// lives on (address space, descriptors) is left to the plain builds.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OSTLER_THREADS_CHECKED
#endif
#if __has_feature(address_sanitizer)
#define OSTLER_ADDRESSES_CHECKED
#endif
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define OSTLER_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OSTLER_SANITIZED
#endif
#if defined(__SANITIZE_THREAD__) && !defined(OSTLER_THREADS_CHECKED)
#define OSTLER_THREADS_CHECKED
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(OSTLER_ADDRESSES_CHECKED)
#define OSTLER_ADDRESSES_CHECKED
#endif

namespace testsupport {

#ifdef OSTLER_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

// Whether it runs under the thread checker, which lets no child that was forked beside a thread start one.
#ifdef OSTLER_THREADS_CHECKED
constexpr bool threadsChecked = true;
#else
constexpr bool threadsChecked = false;
#endif

} // namespace testsupport
