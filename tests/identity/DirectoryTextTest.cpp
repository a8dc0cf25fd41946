#include "identity/DirectoryText.h"

#include "support/DirectoryWorld.h"

namespace {

using testsupport::DirectoryWorld;

DirectoryText shortened(const char* name) { return withoutExtension(DirectoryText(name)); }

class DirectoryLogTest : public DirectoryWorld {};

} // namespace

TEST(DirectoryText, LosesItsLastExtensionAlone) {
    EXPECT_EQ(shortened("mac01.local"), "mac01");
    EXPECT_EQ(shortened("mac01.corp.example.com"), "mac01.corp.example");
    EXPECT_EQ(shortened("mac01"), "mac01");
    EXPECT_EQ(shortened("mac01."), "mac01");
    EXPECT_EQ(shortened("mac01..local"), "mac01.");
}

TEST(DirectoryText, KeepsADotAtItsBeginning) {
    EXPECT_EQ(shortened(".local"), ".local");
    EXPECT_EQ(shortened("a.b/c"), "a.b/c");
    EXPECT_EQ(shortened("a/.local"), "a/.local");
    EXPECT_EQ(shortened("a/mac01.local"), "a/mac01");
    EXPECT_EQ(shortened(""), "");
}

TEST(DirectoryText, ThatIsAbsentStaysAbsent) { EXPECT_EQ(withoutExtension(std::nullopt), std::nullopt); }

TEST(DirectoryText, OfAnAttributeIsItsFirstValue) {
    const platform::DirectoryDetails details = {{"a", {"1", "2"}}, {"empty", {}}, {"blank", {""}}};
    EXPECT_EQ(firstText(details, "a"), "1");
    EXPECT_EQ(firstText(details, "blank"), "");
    EXPECT_EQ(firstText(details, "empty"), std::nullopt);
    EXPECT_EQ(firstText(details, "b"), std::nullopt);
    EXPECT_EQ(firstValue(details, "a"), &details.at("a").front());
    EXPECT_EQ(firstValue(details, "b"), nullptr);
}

TEST(DirectoryText, TakesThePlaceOfEachMark) {
    EXPECT_EQ(formatted("%@\\%@", {"CORP", "alice"}), "CORP\\alice");
    EXPECT_EQ(formatted("name: %@. ", {std::nullopt}), "name: (null). ");
    EXPECT_EQ(formatted("%@ and %@", {"%@", "b"}), "%@ and b");
    EXPECT_EQ(formatted("none", {"a"}), "none");
    EXPECT_EQ(formatted("%@, %@", {"a"}), "a, %@");
    EXPECT_EQ(formatted("100%s%%", {}), "100%s%%");
}

TEST(DirectoryText, OfAListIsInOneLine) {
    EXPECT_EQ(described(std::vector<std::string>{}), "()");
    EXPECT_EQ(described(std::vector<std::string>{"a"}), "(a)");
    EXPECT_EQ(described(std::vector<std::string>{"a", "b"}), "(a, b)");
    EXPECT_EQ(described(std::optional<std::vector<std::string>>{}), std::nullopt);
}

TEST_F(DirectoryLogTest, VerboseLinesNeedLogLevelOne) {
    logTextVerbosely("first %@", {"a"});
    EXPECT_FALSE(log.holds("first a"));
    logEverything();
    logTextVerbosely("second %@", {"%n%s"});
    EXPECT_TRUE(log.holds("second %n%s"));
}

TEST_F(DirectoryLogTest, OtherLinesNeedNone) {
    logText("plain");
    EXPECT_TRUE(log.holds("plain"));
}
