#include "filter/QueryCache.h"

#include "config/Configuration.h"
#include "gp/GPList.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

using testsupport::ManualClock;

namespace {

class QueryCacheTest : public testing::Test {
protected:
    QueryCacheEntry* add(const char* url, int seconds) {
        auto* entry = new QueryCacheEntry(url, seconds);
        cache.addObject(entry);
        return entry;
    }

    ~QueryCacheTest() override {
        while (auto* entry = cache.firstObject()) {
            cache.removeObject(entry);
            entry->release();
        }
    }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    GPList cache;
};

} // namespace

TEST_F(QueryCacheTest, AnEmptyCacheHoldsNothing) { EXPECT_FALSE(isInQueryCache(&cache, "http://a/")); }

TEST_F(QueryCacheTest, ALiveEntryIsFoundByItsExactUrl) {
    add("http://a/", 10);
    add("http://b/", 10);
    EXPECT_TRUE(isInQueryCache(&cache, "http://b/"));
    EXPECT_FALSE(isInQueryCache(&cache, "http://B/"));
}

TEST_F(QueryCacheTest, AnEntryLivesThroughItsLastMicrosecond) {
    add("http://a/", 10);
    ManualClock::installed().advance(10000000);
    EXPECT_TRUE(isInQueryCache(&cache, "http://a/"));
    ManualClock::installed().advance(1);
    EXPECT_FALSE(isInQueryCache(&cache, "http://a/"));
    EXPECT_EQ(cache.count(), 0);
}

TEST_F(QueryCacheTest, TheEntryBehindAnExpiredOneIsSteppedOver) {
    add("http://old/", 1);
    add("http://live/", 100);
    ManualClock::installed().advanceSeconds(2);
    EXPECT_FALSE(isInQueryCache(&cache, "http://live/"));
    EXPECT_TRUE(isInQueryCache(&cache, "http://live/"));
}

TEST_F(QueryCacheTest, ADroppedEntryIsLoggedAtLevel128WhileItStillCountsAndGivesBothItsReferencesBack) {
    Configuration::setLogLevel(128);
    QueryCacheEntry* entry = add("http://old/", 1);
    entry->retain();
    ManualClock::installed().advanceSeconds(2);
    isInQueryCache(&cache, "http://x/");
    EXPECT_EQ(log.countContaining("from cache (http://old/); count=1"), 1);
    EXPECT_EQ(cache.count(), 0);
    EXPECT_EQ(entry->retainonly(), 2);
    entry->releaseonly();
    entry->release();
}
