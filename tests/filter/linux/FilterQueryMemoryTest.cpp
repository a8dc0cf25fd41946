// A query whose memory runs out at each allocation in turn.

#include "filter/FilterQuery.h"

#include "support/FailedAllocations.h"
#include "support/Sanitizers.h"
#include "support/SettingsWorld.h"
#include "support/ThreadStarts.h"

#include <cerrno>
#include <string>

namespace {

class FilterQueryMemory : public testsupport::SettingsWorld {};

TEST_F(FilterQueryMemory, ThatRunsOutEndsTheProcessAndNoQueryGoesOutWithoutItsUrl) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
    // A thread's own start survives a failure, and is not looked at here.
    testsupport::playThreadStarts(
        [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
    const auto runs = testsupport::failEachAllocation(
        [] {}, [] { FilterQuery::send("http://www.example.org/", false, nullptr); }, [] {},
        [] { return std::string(); });
    EXPECT_GT(runs.ended, 2);
    EXPECT_EQ(runs.survived, 0);
}

} // namespace
