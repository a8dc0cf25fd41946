#include "filter/PolicyReply.h"

#include "gp/GPString.h"

#include <gtest/gtest.h>

#include <string>

namespace {

PolicyReply read(const char* text) {
    GPString reply(text);
    return readPolicyReply(&reply);
}

std::string redirectIn(const char* text) {
    GPString reply(text);
    cutToRedirect(&reply);
    cutAtQuote(&reply);
    return reply.cstr();
}

} // namespace

TEST(PolicyReply, AReplyThatBeginsWithEmptyBracesAllows) {
    EXPECT_EQ(read("{}"), PolicyReply::allowed);
    EXPECT_EQ(read("{}\n"), PolicyReply::allowed);
}

TEST(PolicyReply, AnEmptyReplyAllowsSinceThePrefixTestHoldsBothWays) {
    EXPECT_EQ(read(""), PolicyReply::allowed);
    EXPECT_EQ(read("{"), PolicyReply::allowed);
}

TEST(PolicyReply, EmptyBracesInFrontOfARedirectAllow) {
    EXPECT_EQ(read(R"({} "redirect":"http://b/")"), PolicyReply::allowed);
}

TEST(PolicyReply, ARedirectBlocks) { EXPECT_EQ(read(R"({"redirect":"http://b/"})"), PolicyReply::blocked); }

TEST(PolicyReply, ARedirectKeyAtPositionZeroIsNotTakenForARedirect) {
    EXPECT_EQ(read(R"("redirect":"http://b/")"), PolicyReply::noDecision);
}

TEST(PolicyReply, TheHostLookupErrorAsksAgain) {
    EXPECT_EQ(read(R"({"error":"TW Host lookup timeout"})"), PolicyReply::askAgain);
    EXPECT_EQ(read(R"("error":"TW Host lookup timeout")"), PolicyReply::noDecision);
    EXPECT_EQ(read(R"({"error": "TW Host lookup timeout"})"), PolicyReply::noDecision);
}

TEST(PolicyReply, WithBothTheRedirectKeyAndTheHostLookupErrorTheRedirectWins) {
    EXPECT_EQ(read(R"({"error":"TW Host lookup timeout","redirect":"http://b/"})"), PolicyReply::blocked);
}

TEST(PolicyReply, NoReplyAndAnythingElseLeaveItToTheFailurePolicy) {
    EXPECT_EQ(readPolicyReply(nullptr), PolicyReply::noDecision);
    EXPECT_EQ(read("{BOF}"), PolicyReply::noDecision);
    EXPECT_EQ(read("nonsense"), PolicyReply::noDecision);
}

TEST(PolicyReply, TheRedirectIsTheTextUpToTheNextQuoteAndNothingIsUnescaped) {
    EXPECT_EQ(redirectIn(R"({"redirect":"http://b/x?y=1","id":2})"), "http://b/x?y=1");
    EXPECT_EQ(redirectIn(R"({"redirect":"http:\/\/b\/"})"), R"(http:\/\/b\/)");
}

TEST(PolicyReply, TheValuesFirstCharacterIsSkippedWhateverItIs) {
    EXPECT_EQ(redirectIn(R"({"redirect": "http://b/"})"), "");
}

TEST(PolicyReply, ARedirectWithoutAClosingQuoteIsTheRestOfTheReply) {
    EXPECT_EQ(redirectIn(R"({"redirect":"http://b/)"), "http://b/");
}

TEST(PolicyReply, AReplyThatEndsWithTheRedirectKeyGivesAnEmptyRedirect) {
    EXPECT_EQ(redirectIn(R"({"redirect":)"), "");
    EXPECT_EQ(redirectIn(R"({"redirect":")"), "");
}
