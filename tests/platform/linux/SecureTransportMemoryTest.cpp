// A context for which the memory does not suffice.

#include "platform/SecureTransport.h"

#include "support/AllocationCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using namespace platform;

SSLContextRef create() { return SSLCreateContext(kSSLClientSide, kSSLStreamType); }

long allocationsOfAContext() {
    SSLReleaseContext(create()); // what the library makes once
    const testsupport::AllocationCounter allocations;
    SSLContextRef context = create();
    const long count = allocations.count();
    SSLReleaseContext(context);
    return count;
}

} // namespace

TEST(SecureTransportMemory, WithoutRoomForItsSessionOrTheTransportThereIsNoContext) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
    setenv("SSL_CERT_FILE", "/nonexistent", 1); // nearly all allocations would be those of certificates
    constexpr long ofSessionAndTransport = 6;   // at the least, and they are the last
    const long all = allocationsOfAContext();
    for (long number = all - ofSessionAndTransport + 1; number <= all; ++number) {
        testsupport::failAllocation(number);
        SSLContextRef context = create();
        EXPECT_TRUE(testsupport::allocationFailed());
        EXPECT_EQ(context, nullptr) << "allocation " << number << " of " << all;
        SSLReleaseContext(context);
    }
}
