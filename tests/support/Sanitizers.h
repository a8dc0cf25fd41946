#pragma once

// Whether this build runs under a memory or thread checker. A test that takes away what the checker itself
// lives on (address space, descriptors) is left to the plain builds.

namespace testsupport {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
#else
constexpr bool sanitized = false;
#endif

} // namespace testsupport
