#include "lab/Policy.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using lab::Action;
using lab::InputError;
using lab::Policy;

Policy policyOf(const std::string& text) { return Policy::parse(text, "test.policy"); }

// The text of the error that a policy gives; empty without one.
std::string errorOf(const std::string& text) {
    try {
        policyOf(text);
    } catch (const InputError& error) {
        return error.what();
    }
    return "";
}

TEST(Policy, TellsTheHostsOfItsPatternsOnceEach) {
    const Policy policy =
        policyOf("allow http://shop.birch.example/*\nblock https://shop.birch.example http://p/\n"
                 "allow *news.gum.test*\nallow http://*.fir.test:8080/\nallow *\nallow http://a/\n"
                 "allow http://[fd53:2::2]/\n");
    EXPECT_EQ(policy.hosts(), (std::vector<std::string>{"fir.test", "news.gum.test", "shop.birch.example"}));
}

TEST(Policy, EachRuleWordDecidesItsOwnWay) {
    Policy policy = policyOf("allow http://a/\nblock http://b/ http://page/\nslow 700 http://c/\n"
                             "silent http://d/\ngarble http://e/\ndrop http://f/\nretry 1 http://g/\n");
    EXPECT_EQ(policy.ruleCount(), 7u);
    EXPECT_EQ(policy.decide("http://a/").action, Action::allow);
    EXPECT_EQ(policy.decide("http://b/").action, Action::block);
    EXPECT_EQ(policy.decide("http://b/").redirect, "http://page/");
    EXPECT_EQ(policy.decide("http://c/").action, Action::slow);
    EXPECT_EQ(policy.decide("http://c/").milliseconds, 700);
    EXPECT_EQ(policy.decide("http://d/").action, Action::silent);
    EXPECT_EQ(policy.decide("http://e/").action, Action::garble);
    EXPECT_EQ(policy.decide("http://f/").action, Action::drop);
    EXPECT_EQ(policy.decide("http://g/").action, Action::retry);
}

TEST(Policy, WithoutAMatchingRuleItAllows) {
    const lab::Decision decision = policyOf("silent http://other/\n").decide("http://a/");
    EXPECT_EQ(decision.action, Action::allow);
    EXPECT_EQ(decision.rule, "");
}

TEST(Policy, TheFirstMatchWins) {
    const lab::Decision decision = policyOf("allow http://a/*\nblock *  http://page/\n").decide("http://a/b");
    EXPECT_EQ(decision.action, Action::allow);
    EXPECT_EQ(decision.rule, "allow http://a/*");
}

TEST(Policy, RetrySpeaksOfTheErrorThatOftenForEachUrlThenTheNextMatchDecides) {
    Policy policy = policyOf("retry 2 http://a/*\nsilent *\n");
    EXPECT_EQ(policy.decide("http://a/1").action, Action::retry);
    EXPECT_EQ(policy.decide("http://a/2").action, Action::retry);
    EXPECT_EQ(policy.decide("http://a/1").action, Action::retry);
    EXPECT_EQ(policy.decide("http://a/1").action, Action::silent);
    EXPECT_EQ(policy.decide("http://a/2").action, Action::retry);
    EXPECT_EQ(policy.decide("http://a/2").action, Action::silent);
}

TEST(Policy, RetryOfNoTimesNeverHappens) {
    EXPECT_EQ(policyOf("retry 0 *\nblock * http://page/\n").decide("http://a/").action, Action::block);
}

TEST(Policy, EmptyLinesBlanksAndCarriageReturnsDoNotCount) {
    Policy policy = policyOf("\r\n   \t\n \tsilent\t  http://a/ \r\n\n");
    EXPECT_EQ(policy.ruleCount(), 1u);
    EXPECT_EQ(policy.decide("http://a/").action, Action::silent);
}

TEST(Policy, ACommentBeginsWithAHashInFrontOfAWord) {
    Policy policy =
        policyOf("# all is silent\n  #silent\nsilent http://a/ # but b\nblock * http://page/#top\n");
    EXPECT_EQ(policy.ruleCount(), 2u);
    EXPECT_EQ(policy.decide("http://a/").action, Action::silent);
    EXPECT_EQ(policy.decide("http://b/").redirect, "http://page/#top");
}

TEST(Policy, TheLastLineNeedsNoLineBreak) {
    EXPECT_EQ(policyOf("silent *").decide("http://a/").action, Action::silent);
}

TEST(Policy, AStarIsAnyRunOfCharactersAlsoNone) {
    EXPECT_TRUE(lab::matches("*", ""));
    EXPECT_TRUE(lab::matches("http://a/*", "http://a/"));
    EXPECT_TRUE(lab::matches("http://*.test/*", "http://www.a.test/b/c"));
    EXPECT_TRUE(lab::matches("*a*b*", "xxaxxbxx"));
    EXPECT_TRUE(lab::matches("**a", "ba"));
    EXPECT_TRUE(lab::matches("*ab", "aab"));
}

TEST(Policy, APatternFitsTheWholeUrlAndTheCaseCounts) {
    EXPECT_FALSE(lab::matches("http://a/", "http://a/b"));
    EXPECT_FALSE(lab::matches("a", "http://a/"));
    EXPECT_FALSE(lab::matches("*a", "ab"));
    EXPECT_FALSE(lab::matches("http://A/", "http://a/"));
    EXPECT_FALSE(lab::matches("", "a"));
    EXPECT_FALSE(lab::matches("a?c", "abc"));
    EXPECT_TRUE(lab::matches("a?c", "a?c"));
}

TEST(Policy, APatternOfManyStarsEndsSoon) {
    EXPECT_FALSE(lab::matches("*a*a*a*a*a*a*a*a*a*a*a*a*b", std::string(5000, 'a')));
}

TEST(Policy, APushHasACommaBehindEachOfItsKeysAndAnUpdateUrl) {
    const Policy policy = policyOf("push {\"bypass_on_failure\": false}\npush {}\n");
    ASSERT_EQ(policy.pushes().size(), 2u);
    EXPECT_EQ(policy.pushes()[0], R"({"bypass_on_failure":false,"update_url":"","end":1})");
    EXPECT_EQ(policy.pushes()[1], R"({"update_url":"","end":1})");
    EXPECT_EQ(policy.ruleCount(), 0u);
}

TEST(Policy, APushKeepsTheOrderOfItsKeysAndItsOwnUpdateUrl) {
    const Policy policy = policyOf(R"(push {"update_url":"http://u/","a":[1, 2],"bypass_on_failure":true})");
    EXPECT_EQ(policy.pushes().at(0),
              R"({"update_url":"http://u/","a":[1,2],"bypass_on_failure":true,"end":1})");
}

TEST(Policy, AHashInsideThePushedJsonIsNoComment) {
    const Policy policy = policyOf("push {\"a\":\"b\\\" # c\"} # really\n");
    EXPECT_EQ(policy.pushes().at(0), "{\"a\":\"b\\\" # c\",\"update_url\":\"\",\"end\":1}");
}

TEST(Policy, AnUnknownWordIsAnErrorThatNamesFileLineAndWords) {
    EXPECT_EQ(errorOf("allow *\nforbid *\n"),
              "test.policy:2: 'forbid' is no rule (allow, block, slow, silent, retry, garble, drop, push)");
}

TEST(Policy, AMissingPatternIsAnErrorThatShowsTheForm) {
    EXPECT_EQ(errorOf("allow\n"), "test.policy:1: a rule 'allow' reads: allow PATTERN");
    EXPECT_EQ(errorOf("silent\n"), "test.policy:1: a rule 'silent' reads: silent PATTERN");
    EXPECT_EQ(errorOf("garble\n"), "test.policy:1: a rule 'garble' reads: garble PATTERN");
    EXPECT_EQ(errorOf("drop\n"), "test.policy:1: a rule 'drop' reads: drop PATTERN");
    EXPECT_EQ(errorOf("\n\nslow 700\n"), "test.policy:3: a rule 'slow' reads: slow NUMBER PATTERN");
    EXPECT_EQ(errorOf("retry *\n"), "test.policy:1: a rule 'retry' reads: retry NUMBER PATTERN");
    EXPECT_EQ(errorOf("block *\n"), "test.policy:1: a rule 'block' reads: block PATTERN REDIRECT-URL");
}

TEST(Policy, AWordTooManyIsAnError) {
    EXPECT_EQ(errorOf("allow a b\n"), "test.policy:1: a rule 'allow' reads: allow PATTERN");
    EXPECT_EQ(errorOf("block a b c\n"), "test.policy:1: a rule 'block' reads: block PATTERN REDIRECT-URL");
}

TEST(Policy, ANumberThatIsNoneIsAnErrorThatNamesIt) {
    EXPECT_EQ(errorOf("slow fast *\n"), "test.policy:1: 'fast' is not a whole number");
    EXPECT_EQ(errorOf("slow -1 *\n"), "test.policy:1: '-1' is not a whole number");
    EXPECT_EQ(errorOf("retry 1.5 *\n"), "test.policy:1: '1.5' is not a whole number");
    EXPECT_EQ(errorOf("retry 1234567890 *\n"), "test.policy:1: '1234567890' is not a whole number");
}

TEST(Policy, APushOfAnythingButAJsonObjectIsAnError) {
    EXPECT_EQ(errorOf("push [1]\n"), "test.policy:1: push takes a JSON object, not ' [1]'");
    EXPECT_EQ(errorOf("push {\"a\":\n"), "test.policy:1: push takes a JSON object, not ' {\"a\":'");
    EXPECT_EQ(errorOf("push\n"), "test.policy:1: push takes a JSON object, not ''");
}

TEST(Policy, AFileThatCannotBeReadIsAnErrorThatNamesIt) {
    const testsupport::TemporaryFolder folder;
    try {
        Policy::load(folder.file("none.policy"));
        FAIL() << "no error";
    } catch (const InputError& error) {
        EXPECT_EQ(error.what(),
                  folder.file("none.policy") + ": the policy file cannot be read: No such file or directory");
    }
}

TEST(Policy, AFolderIsNoPolicy) {
    const testsupport::TemporaryFolder folder;
    try {
        Policy::load(folder.path());
        FAIL() << "no error";
    } catch (const InputError& error) {
        EXPECT_EQ(error.what(), folder.path() + ": the policy is a folder, not a file");
    }
}

TEST(Policy, AnEmptyFileAllowsEverything) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("empty.policy"), "");
    EXPECT_EQ(Policy::load(folder.file("empty.policy")).decide("http://a/").action, Action::allow);
}

TEST(Policy, AnErrorInAFileNamesItsPathAndLine) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("broken.policy"), "allow *\n\nslow\n");
    try {
        Policy::load(folder.file("broken.policy"));
        FAIL() << "no error";
    } catch (const InputError& error) {
        EXPECT_EQ(error.what(),
                  folder.file("broken.policy") + ":3: a rule 'slow' reads: slow NUMBER PATTERN");
    }
}

TEST(Policy, ALineOfVerticalTabsAndFormFeedsAloneIsEmpty) {
    Policy policy = policyOf("\v\nallow a\v# all of it\n\f\n");

    EXPECT_EQ(policy.ruleCount(), 1u);
    EXPECT_EQ(policy.decide("a").rule, "allow a");
}

} // namespace
