// The changes of a GPString beyond appending and replacing, and its ways from and to arrays.

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using testsupport::references;

namespace {

using Change = GPString* (GPString::*)();

std::string changed(const char* text, Change change) {
    GPString string(text);
    EXPECT_EQ((string.*change)(), &string);
    return string.cstr();
}

std::vector<std::string> pieces(const char* text, const char* separator) {
    auto array = Owned<GPArray>::adopt(GPString(text).split(separator));
    std::vector<std::string> result;
    for (int index = 0; index < array->count(); ++index) {
        result.emplace_back(static_cast<GPString*>(array->objectAtIndex(index))->cstr());
    }
    return result;
}

Owned<GPArray> arrayOf(std::initializer_list<const char*> texts) {
    auto array = Owned<GPArray>::adopt(new GPArray());
    for (const char* text : texts) {
        auto string = Owned<GPString>::adopt(new GPString(text));
        array->addObject(string.get());
    }
    return array;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(GPString, SubStringCutsTheStringItself) {
    GPString string("abcdef");

    EXPECT_EQ(string.subString(1, 4), &string);
    EXPECT_STREQ(string.cstr(), "bcd");
    EXPECT_EQ(string.subString(1), &string);
    EXPECT_STREQ(string.cstr(), "cd");
    string.subString(0, 0);
    EXPECT_STREQ(string.cstr(), "");
}

TEST(GPString, SubStringReadsNothingOutsideOfTheText) {
    EXPECT_STREQ(GPString("abc").subString(1, 100)->cstr(), "bc");
    EXPECT_STREQ(GPString("abc").subString(100, 200)->cstr(), "");
    EXPECT_STREQ(GPString("abc").subString(100)->cstr(), "");
    EXPECT_STREQ(GPString("abc").subString(2, 1)->cstr(), "");
    EXPECT_STREQ(GPString("abc").subString(-3, 2)->cstr(), "ab");
}

TEST(GPString, TrimRemovesWhitespaceAtBothEnds) {
    EXPECT_EQ(changed(" \t a b \r\n", &GPString::trim), "a b");
    EXPECT_EQ(changed("ab", &GPString::trim), "ab");
    EXPECT_EQ(changed("ab  ", &GPString::trim), "ab");
    EXPECT_EQ(changed("  ab", &GPString::trim), "ab");
    EXPECT_EQ(changed("   ", &GPString::trim), "");
    EXPECT_EQ(changed("", &GPString::trim), "");
}

TEST(GPString, CaseChangesTouchAsciiLettersAlone) {
    EXPECT_EQ(changed("AbZ[\xC4\xE4 1", &GPString::lowercase), "abz[\xC4\xE4 1");
    EXPECT_EQ(changed("aBz{\xC4\xE4 1", &GPString::uppercase), "ABZ{\xC4\xE4 1");
}

TEST(GPString, ReverseAnswersTheBuffer) {
    GPString string("abc");

    EXPECT_EQ(string.reverse(), string.cstr());
    EXPECT_STREQ(string.cstr(), "cba");
}

TEST(GPString, EncodeOfABlankGivesPercent20) { EXPECT_EQ(changed("a b", &GPString::encode), "a%20b"); }

TEST(GPString, EncodeEscapesTheTwelveCharactersInUpperCase) {
    EXPECT_EQ(changed("%$&+,/:;=?@ ", &GPString::encode), "%25%24%26%2B%2C%2F%3A%3B%3D%3F%40%20");
}

TEST(GPString, EncodeLeavesEveryOtherByte) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        if (std::string("%$&+,/:;=?@ ").find(text) != std::string::npos) continue;
        EXPECT_EQ(changed(text.c_str(), &GPString::encode), text) << byte;
    }
}

TEST(GPString, DecodeOfALonePercentLeavesIt) {
    EXPECT_EQ(changed("100%", &GPString::decode), "100%");
    EXPECT_EQ(changed("100%4", &GPString::decode), "100%4");
    EXPECT_EQ(changed("%", &GPString::decode), "%");
    EXPECT_EQ(changed("%%41", &GPString::decode), "%A");
}

TEST(GPString, DecodeOfPercent4aGivesJ) {
    EXPECT_EQ(changed("%4a", &GPString::decode), "J");
    EXPECT_EQ(changed("%4A", &GPString::decode), "J");
}

TEST(GPString, DecodeLeavesWhatDoesNotFit) {
    EXPECT_EQ(changed("%g1%1g%zz", &GPString::decode), "%g1%1g%zz");
    EXPECT_EQ(changed("%0x41", &GPString::decode), "%0x41");
    EXPECT_EQ(changed("a+b", &GPString::decode), "a+b");
    EXPECT_EQ(changed("%\xC3\xA4", &GPString::decode), "%\xC3\xA4");
    EXPECT_EQ(changed("%ff%80", &GPString::decode), "\xFF\x80");
}

TEST(GPString, DecodedNulEndsTheText) { EXPECT_EQ(changed("ab%00cd", &GPString::decode), "ab"); }

TEST(GPString, DecodeUndoesEncodeForEveryByte) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    GPString string(all.c_str());

    EXPECT_STREQ(string.encode()->decode()->cstr(), all.c_str());
}

TEST(GPString, DomDecodeKnowsTheAmpersandAlone) {
    EXPECT_EQ(changed("a&amp;b&lt;", &GPString::domDecode), "a&b&lt;");
    EXPECT_EQ(changed("&amp;&amp;", &GPString::domDecode), "&&");
    EXPECT_EQ(changed("&amp;amp;", &GPString::domDecode), "&amp;");
    EXPECT_EQ(changed("&amp", &GPString::domDecode), "&amp");
    EXPECT_EQ(changed("&AMP;&", &GPString::domDecode), "&AMP;&");
    EXPECT_EQ(changed("", &GPString::domDecode), "");
}

TEST(GPString, SplitGivesEmptyElementsBetweenSeparators) {
    EXPECT_EQ(pieces("a,,b", ","), (Texts{"a", "", "b"}));
    EXPECT_EQ(pieces("a,b,c", ","), (Texts{"a", "b", "c"}));
}

TEST(GPString, SplitGivesNoElementForATrailingSeparator) {
    EXPECT_EQ(pieces("a,", ","), (Texts{"a"}));
    EXPECT_EQ(pieces("a,,", ","), (Texts{"a", ""}));
}

TEST(GPString, SplitKeepsTheTextInOnePieceBehindALeadingSeparator) {
    EXPECT_EQ(pieces(",a", ","), (Texts{",a"}));
    EXPECT_EQ(pieces("/a/b", "/"), (Texts{"/a/b"}));
    EXPECT_EQ(pieces(",", ","), (Texts{","}));
}

TEST(GPString, SplitOfAnEmptyTextIsAnEmptyArray) { EXPECT_EQ(pieces("", ","), Texts{}); }

TEST(GPString, SplitTakesLongSeparatorsAndAnEmptyOneEnds) {
    EXPECT_EQ(pieces("a--b---c", "--"), (Texts{"a", "b", "-c"}));
    EXPECT_EQ(pieces("abc", ","), (Texts{"abc"}));
    EXPECT_EQ(pieces("abc", ""), (Texts{"abc"}));
}

TEST(GPString, SplitResultIsOwnedAndOwnsItsElements) {
    GPString separator(",");
    auto array = Owned<GPArray>::adopt(GPString("a,b").split(&separator));

    EXPECT_EQ(references(array.get()), 1);
    EXPECT_EQ(array->count(), 2);
    EXPECT_EQ(references(array->objectAtIndex(0)), 1);
    EXPECT_EQ(references(array->objectAtIndex(1)), 1);
}

TEST(GPString, JoinPutsTheSeparatorBetweenTheElements) {
    auto array = arrayOf({"a", "", "b"});
    GPString separator("--");
    auto byChars = Owned<GPString>::adopt(GPString::join(array.get(), ", "));
    auto byString = Owned<GPString>::adopt(GPString::join(array.get(), &separator));

    EXPECT_STREQ(byChars->cstr(), "a, , b");
    EXPECT_STREQ(byString->cstr(), "a----b");
    EXPECT_EQ(references(byChars.get()), 1);
}

TEST(GPString, JoinOfASingleElementIsACopyOfIt) {
    auto array = arrayOf({"only"});
    auto joined = Owned<GPString>::adopt(GPString::join(array.get(), ","));

    EXPECT_STREQ(joined->cstr(), "only");
    EXPECT_NE(joined.get(), array->objectAtIndex(0));
}

TEST(GPString, JoinOfANullOrEmptyArrayIsNull) {
    GPArray empty;

    EXPECT_EQ(GPString::join(nullptr, ","), nullptr);
    EXPECT_EQ(GPString::join(&empty, ","), nullptr);
}
