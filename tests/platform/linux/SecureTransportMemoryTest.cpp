// A context for which the memory does not suffice.

#include "platform/SecureTransport.h"

#include "support/AllocationCounter.h"
#include "support/ForkedChild.h"
#include "support/Sanitizers.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

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

TEST(SecureTransportMemory, WithoutRoomForItselfOrItsSettingsThereIsNoContext) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
    SSLReleaseContext(create()); // what the library makes once
    for (long number : {1, 2}) {
        testsupport::failAllocation(number);
        EXPECT_EQ(create(), nullptr) << "allocation " << number;
        EXPECT_TRUE(testsupport::allocationFailed());
    }
    SSLContextRef context = create();
    EXPECT_NE(context, nullptr);
    SSLReleaseContext(context);
}

TEST(SecureTransportMemory, WithoutRoomForTheTransportOfAllThereIsNoContextForTheLifeOfTheProcess) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
    setenv("SSL_CERT_FILE", "/nonexistent", 1);
    const long all = std::stol(testsupport::answerOfChild([] {
        const testsupport::AllocationCounter allocations;
        create();
        return std::to_string(allocations.count());
    }));
    int without = 0;
    for (long number = all - 7; number <= all; ++number) {
        without += testsupport::answerOfChild([number]() -> std::string {
                       testsupport::failAllocation(number);
                       return create() || !testsupport::allocationFailed() || create() ? "made" : "none";
                   }) == "none";
    }
    EXPECT_GE(without, 1) << "what all contexts share is made once, or never";
}
