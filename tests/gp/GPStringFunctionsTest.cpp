// The free functions on plain text.

#include "gp/GPString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const char* const noText = nullptr;

std::string trimmed(const char* text) {
    std::string buffer(text);
    char* result = trimws(buffer.data());
    EXPECT_EQ(result, buffer.data());
    return result;
}

std::string reversed(const char* text) {
    std::string buffer(text);
    EXPECT_EQ(reverse(buffer.data()), buffer.data());
    return buffer;
}

} // namespace

TEST(StringFunctions, FindAnswersAPointerIntoTheText) {
    const char* hay = "abcabc";

    EXPECT_EQ(find(hay, "bc", false), hay + 1);
    EXPECT_EQ(find(hay, "bc", true), hay + 5);
    EXPECT_EQ(find(hay, "cab", false), hay + 2);
    EXPECT_EQ(find(hay, "x", false), nullptr);
    EXPECT_EQ(find(hay, "abcabcabc", false), nullptr);
    EXPECT_EQ(find(noText, "a", false), nullptr);
    EXPECT_EQ(find(hay, noText, false), nullptr);
}

TEST(StringFunctions, FindGoesOnBehindAMismatch) {
    const char* hay = "aab ab aabb";

    EXPECT_EQ(find(hay, "aabb", false), hay + 7);
    EXPECT_EQ(find(hay, "ab a", false), hay + 1);
}

TEST(StringFunctions, FindOfACharacterGoesBothWays) {
    const char* hay = "a/b/c";

    EXPECT_EQ(find(hay, '/', false), hay + 1);
    EXPECT_EQ(find(hay, '/', true), hay + 3);
    EXPECT_EQ(find(hay, 'x', true), nullptr);
    EXPECT_EQ(find(noText, '/', false), nullptr);
}

TEST(StringFunctions, SkipwsGoesToTheFirstNonSpace) {
    EXPECT_STREQ(skipws(" \t\r\n\v\fa b"), "a b");
    EXPECT_STREQ(skipws("a"), "a");
    EXPECT_STREQ(skipws("  "), "");
    EXPECT_EQ(skipws(noText), nullptr);
}

TEST(StringFunctions, TrimwsCutsTrailingWhitespaceAlone) {
    EXPECT_EQ(trimmed("  a b \t\n"), "  a b");
    EXPECT_EQ(trimmed("   "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimws(nullptr), nullptr);
}

TEST(StringFunctions, NextwsStepsOverOneLeadingSpace) {
    EXPECT_STREQ(nextws("ab cd"), " cd");
    EXPECT_STREQ(nextws(" ab cd"), " cd");
    EXPECT_STREQ(nextws("  ab"), " ab");
    EXPECT_STREQ(nextws("ab"), "");
    EXPECT_STREQ(nextws(""), "");
    EXPECT_EQ(nextws(noText), nullptr);
}

TEST(StringFunctions, EndAndLastAreTheLastCharacter) {
    const char* text = "abc";

    EXPECT_EQ(end(text), text + 2);
    EXPECT_EQ(last(text), text + 2);
    EXPECT_STREQ(end(""), "");
    EXPECT_STREQ(last(""), "");
    EXPECT_EQ(end(noText), nullptr);
    EXPECT_EQ(last(noText), nullptr);
}

TEST(StringFunctions, ReverseSwapsFromTheTwoEnds) {
    EXPECT_EQ(reversed(""), "");
    EXPECT_EQ(reversed("a"), "a");
    EXPECT_EQ(reversed("ab"), "ba");
    EXPECT_EQ(reversed("abcde"), "edcba");
    EXPECT_EQ(reverse(nullptr), nullptr);
}

TEST(StringFunctions, Base10OfNoTextIsZero) { EXPECT_EQ(base10(nullptr), 0); }

TEST(StringFunctions, Base16OfNoTextIsZero) { EXPECT_EQ(base16(nullptr), 0u); }

TEST(StringFunctions, Base10TakesAMinusAndNoPlus) {
    EXPECT_EQ(base10("42"), 42);
    EXPECT_EQ(base10(" \t-42x"), -42);
    EXPECT_EQ(base10("+42"), 0);
    EXPECT_EQ(base10("--4"), 0);
    EXPECT_EQ(base10("- 4"), 0);
    EXPECT_EQ(base10("x"), 0);
    EXPECT_EQ(base10(""), 0);
    EXPECT_EQ(base10(noText), 0);
    EXPECT_EQ(base10("007"), 7);
    EXPECT_EQ(base10("2147483647"), 2147483647);
    EXPECT_EQ(base10("-2147483648"), -2147483647 - 1);
}

TEST(StringFunctions, Base16TakesAnOptionalPrefixAndEitherCase) {
    EXPECT_EQ(base16("ff"), 0xffu);
    EXPECT_EQ(base16("FF"), 0xffu);
    EXPECT_EQ(base16("0xaB"), 0xabu);
    EXPECT_EQ(base16("0Xab"), 0xabu);
    EXPECT_EQ(base16(" \n1fg2"), 0x1fu);
    EXPECT_EQ(base16("ffffffff"), 0xffffffffu);
    EXPECT_EQ(base16("0x0x1"), 0u);
    EXPECT_EQ(base16("-1"), 0u);
    EXPECT_EQ(base16(""), 0u);
    EXPECT_EQ(base16("0x"), 0u);
}

TEST(StringFunctions, Base16OfAFirstCharacterAbove127IsZero) { EXPECT_EQ(base16("\xE4\x31"), 0u); }

TEST(StringFunctions, EscapedLengthIsWhatEncodeProduces) {
    for (const char* text : {"", "abc", "a b", "%$&+,/:;=?@ ", "\xE4\"#"}) {
        const int expected = getUrlEscapedLength(text);
        EXPECT_EQ(GPString(text).encode()->length(), expected) << text;
    }
    EXPECT_EQ(getUrlEscapedLength("a b/"), 8);
}

TEST(StringFunctions, RestoredLengthIsWhatDecodeProduces) {
    for (const char* text : {"", "abc", "100%", "%4a", "%4", "%zz", "%41%", "%%41", "%25%32"}) {
        const int expected = getUrlRestoredLength(text);
        EXPECT_EQ(GPString(text).decode()->length(), expected) << text;
    }
    EXPECT_EQ(getUrlRestoredLength("%00a"), 2);
}

TEST(StringFunctions, UnicodeAndAnsiGoThereAndBack) {
    wchar_t* wide = unicode("abc");
    EXPECT_STREQ(wide, L"abc");
    char* narrow = ansi(wide);
    EXPECT_STREQ(narrow, "abc");
    delete[] wide;
    delete[] narrow;
    EXPECT_EQ(unicode(nullptr), nullptr);
    EXPECT_EQ(ansi(nullptr), nullptr);
}

TEST(StringFunctions, UnicodeOfBytesThatDoNotConvertIsTerminated) {
    wchar_t* wide = unicode("ab\xFF");

    EXPECT_EQ(std::wcslen(wide), 2u);
    delete[] wide;
}
