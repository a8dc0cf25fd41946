#include "agent/ConfigurationFrame.h"

#include "gp/GPString.h"
#include "gp/Owned.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using Reader = bool (*)(const char*, GPString*&);

std::optional<std::string> valueIn(Reader reader, const char* body) {
    GPString* value = nullptr;
    if (!reader(body, value)) return std::nullopt;
    const auto owned = Owned<GPString>::adopt(value);
    return owned->cstr();
}

std::optional<std::string> bypassIn(const char* body) { return valueIn(readBypassOnFailure, body); }

std::optional<std::string> urlIn(const char* body) { return valueIn(readUpdateUrl, body); }

std::string withoutQuotes(const char* text) {
    GPString value(text);
    dropQuotes(&value);
    return value.cstr();
}

bool blocks(const char* value) {
    GPString text(value);
    return blocksOnFailure(&text);
}

} // namespace

TEST(ConfigurationFrame, AValueIsTheTextUpToTheFirstComma) {
    EXPECT_EQ(bypassIn(R"({"bypass_on_failure":false,"other":1})"), "false");
    EXPECT_EQ(urlIn(R"({"a":1,"update_url":"http://h/p.dmg","other":1})"), "\"http://h/p.dmg\"");
}

TEST(ConfigurationFrame, AMissingKeyIsTold) {
    EXPECT_EQ(bypassIn(R"({"update_url":"x",})"), std::nullopt);
    EXPECT_EQ(urlIn(R"({"bypass_on_failure":true,})"), std::nullopt);
    EXPECT_EQ(urlIn(""), std::nullopt);
    EXPECT_EQ(bypassIn(R"({"Bypass_On_Failure":false,})"), std::nullopt);
}

TEST(ConfigurationFrame, AKeyAtPositionZeroOfTheBodyIsNotFound) {
    EXPECT_EQ(bypassIn(R"("bypass_on_failure":false,)"), std::nullopt);
    EXPECT_EQ(bypassIn(R"( "bypass_on_failure":false,)"), "false");
}

TEST(ConfigurationFrame, AValueWithNoCommaBehindItIsEmpty) {
    EXPECT_EQ(bypassIn(R"({"bypass_on_failure":false})"), "");
    EXPECT_EQ(urlIn(R"({"update_url":"http://h/p"})"), "");
    EXPECT_EQ(urlIn(R"({"update_url":)"), "");
    EXPECT_EQ(urlIn(R"({"update_url":,)"), "");
}

TEST(ConfigurationFrame, AKeyInsideAStringValueIsFound) {
    EXPECT_EQ(bypassIn(R"({"note":"say "bypass_on_failure":false, please"})"), "false");
}

TEST(ConfigurationFrame, AValueThatHoldsACommaIsCutThereAndEscapesStay) {
    EXPECT_EQ(urlIn(R"({"update_url":"http:\/\/h\/a,b","other":1})"), R"("http:\/\/h\/a)");
}

TEST(ConfigurationFrame, OnlyTheBareWordFalseBlocksOnFailure) {
    EXPECT_TRUE(blocks("false"));
    for (const char* value : {"true", "\"false\"", "False", " false", "false ", "", "0"})
        EXPECT_FALSE(blocks(value)) << value;
}

TEST(ConfigurationFrame, TheFirstAndTheLastCharacterAreTakenToBeQuotesWithoutLooking) {
    EXPECT_EQ(withoutQuotes(" \"http://h/p\"\t"), "http://h/p");
    EXPECT_EQ(withoutQuotes("null"), "ul");
    EXPECT_EQ(withoutQuotes("\"\""), "");
    EXPECT_EQ(withoutQuotes("\""), "");
    EXPECT_EQ(withoutQuotes(""), "");
}
