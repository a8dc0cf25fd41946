#include "filter/QueryCache.h"

#include "config/Configuration.h"
#include "gp/GPList.h"
#include "gp/GPString.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/ScratchRoot.h"
#include "support/Taken.h"

#include <gtest/gtest.h>

#include <string>

using testsupport::ManualClock;

namespace {

class QueryCacheTest : public testing::Test {
protected:
    QueryCacheEntry* add(const char* url, int seconds) {
        auto* entry = new QueryCacheEntry(url, seconds);
        cache.addObject(entry);
        return entry;
    }

    static std::string key(const char* url) {
        GPString text(url);
        const std::string result = testsupport::taken(queryCacheKey(&text));
        EXPECT_STREQ(text.cstr(), url);
        return result;
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

TEST_F(QueryCacheTest, AUrlIsKnownByWhatStandsInFrontOfItsQueryString) {
    EXPECT_EQ(key("http://a/b"), "http://a/b");
    EXPECT_EQ(key("http://a/b?q=1"), "http://a/b");
    EXPECT_EQ(key("http://a/b?q=1?r=2"), "http://a/b");
    EXPECT_EQ(key("?q=1"), "");
    EXPECT_EQ(key(""), "");
}

TEST_F(QueryCacheTest, OnlyAUrlWithAQueryStringIsTrimmed) {
    EXPECT_EQ(key(" http://a/ ?q=1"), "http://a/");
    EXPECT_EQ(key(" http://a/ "), " http://a/ ");
    EXPECT_EQ(key(" ?"), "");
}

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

TEST_F(QueryCacheTest, WithAllOtherLogBitsOnADroppedEntryIsNotLogged) {
    Configuration::setLogLevel(~128);
    add("http://old/", 1);
    ManualClock::installed().advanceSeconds(2);
    isInQueryCache(&cache, "http://x/");
    EXPECT_EQ(cache.count(), 0);
    EXPECT_EQ(log.messages().size(), 0u);
}

TEST_F(QueryCacheTest, AnEntryIsDroppedByALookUpOfItsOwnUrlToo) {
    add("http://a/", 1);
    add("http://a/", 100);
    ManualClock::installed().advanceSeconds(2);
    EXPECT_FALSE(isInQueryCache(&cache, "http://a/"));
    EXPECT_TRUE(isInQueryCache(&cache, "http://a/"));
}
