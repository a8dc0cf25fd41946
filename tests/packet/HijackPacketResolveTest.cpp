#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "support/RecordWorld.h"

namespace {

class HijackPacketResolve : public testsupport::RecordWorld {};

} // namespace

TEST_F(HijackPacketResolve, ResolvingWithoutAUrlAllows) {
    ASSERT_TRUE(create(request()));

    EXPECT_TRUE(HijackPacket::resolve(url, nullptr, -1));

    EXPECT_TRUE(find(request())->isResolved());
    EXPECT_EQ(find(request())->redirectURL(), nullptr);
}

TEST_F(HijackPacketResolve, ResolvingWithAUrlRedirects) {
    ASSERT_TRUE(create(request()));

    EXPECT_TRUE(HijackPacket::resolve(url, "http://block.example/page", 30));

    EXPECT_TRUE(find(request())->isResolved());
    EXPECT_STREQ(find(request())->redirectURL(), "http://block.example/page");
}

TEST_F(HijackPacketResolve, ATimeAbove0GivesThatManySecondsFromTheResolve) {
    ASSERT_TRUE(create(request(), true));
    advance(100000000);
    ASSERT_TRUE(HijackPacket::resolve(url, "http://block.example/", 30));

    EXPECT_EQ(find(request())->getTimeout(), 30000000);
    advance(30000000);
    EXPECT_NE(find(request()), nullptr);
    advance(1);
    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketResolve, ResolvingANullRedirectWith30GivesAnAllowedRecordWith30FreshSeconds) {
    ASSERT_TRUE(create(request()));
    advance(20000000);
    ASSERT_TRUE(HijackPacket::resolve(url, nullptr, 30));
    advance(30000000);

    ASSERT_NE(find(request()), nullptr);
    EXPECT_EQ(find(request())->redirectURL(), nullptr);
}

TEST_F(HijackPacketResolve, ATimeOf0LeavesTheRecordsTimeUnchanged) {
    ASSERT_TRUE(create(request()));
    advance(20000000);
    ASSERT_TRUE(HijackPacket::resolve(url, "http://block.example/", 0));

    EXPECT_TRUE(find(request())->isResolved());
    EXPECT_EQ(find(request())->getTimeout(), 30000000);
    advance(10000001);
    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketResolve, TheShortFormOfResolveLeavesTheTimeUnchanged) {
    ASSERT_TRUE(create(request()));
    advance(20000000);
    ASSERT_TRUE(HijackPacket::resolve(url, nullptr));
    advance(10000001);

    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketResolve, ResolveTakesTheOldestOpenRecordOfTheUrl) {
    ASSERT_TRUE(create(request(50001)));
    ASSERT_TRUE(create(request(50002), false, "http://other.example/"));
    ASSERT_TRUE(create(request(50003)));

    ASSERT_TRUE(HijackPacket::resolve(url, nullptr));
    EXPECT_TRUE(find(request(50001))->isResolved());
    EXPECT_FALSE(find(request(50003))->isResolved());

    ASSERT_TRUE(HijackPacket::resolve(url, "http://block.example/"));
    EXPECT_EQ(find(request(50001))->redirectURL(), nullptr);
    EXPECT_STREQ(find(request(50003))->redirectURL(), "http://block.example/");
    EXPECT_FALSE(find(request(50002))->isResolved());
}

TEST_F(HijackPacketResolve, AResolvedRecordIsNeverResolvedAgain) {
    ASSERT_TRUE(create(request()));
    ASSERT_TRUE(HijackPacket::resolve(url, nullptr));

    EXPECT_FALSE(HijackPacket::resolve(url, "http://block.example/"));
    EXPECT_EQ(find(request())->redirectURL(), nullptr);
}

TEST_F(HijackPacketResolve, ResolveComparesTheUrlExactly) {
    ASSERT_TRUE(create(request()));

    EXPECT_FALSE(HijackPacket::resolve("http://www.example.org", nullptr));
    EXPECT_FALSE(HijackPacket::resolve("HTTP://www.example.org/", nullptr));
    EXPECT_FALSE(find(request())->isResolved());
}

TEST_F(HijackPacketResolve, NoUrlAtAllResolvesNothing) {
    ASSERT_TRUE(create(request()));
    ASSERT_TRUE(create(request(), false, ""));

    EXPECT_FALSE(HijackPacket::resolve(nullptr, nullptr));
    EXPECT_TRUE(HijackPacket::resolve("", nullptr));
}

TEST_F(HijackPacketResolve, AnExpiredRecordThatNobodyPurgedCanBeResolved) {
    ASSERT_TRUE(create(request()));
    advance(60000000);

    EXPECT_TRUE(HijackPacket::resolve(url, "http://block.example/", 30));
    EXPECT_NE(find(request()), nullptr);
}

TEST_F(HijackPacketResolve, ResolveLogsItsOutcomeAtLevel64) {
    Configuration::setLogLevel(64);
    ASSERT_TRUE(create(request(50001)));
    ASSERT_TRUE(create(request(50002)));

    HijackPacket::resolve(url, nullptr);
    HijackPacket::resolve(url, "http://block.example/", 30);
    HijackPacket::resolve(url, nullptr);
    HijackPacket::resolve(url, "http://late.example/");

    EXPECT_TRUE(
        log.holds("Hijack-resolve:true: target='http://www.example.org/' redirect='null' (timeout=-1)"));
    EXPECT_TRUE(log.holds("Hijack-resolve:true: target='http://www.example.org/' "
                          "redirect='http://block.example/' (timeout=30)"));
    EXPECT_TRUE(log.holds("Hijack-resolve:false: target='http://www.example.org/' redirect='null'"));
    EXPECT_TRUE(
        log.holds("Hijack-resolve:false: target='http://www.example.org/' redirect='http://late.example/'"));
}
