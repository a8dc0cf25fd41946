#include "gp/GPString.h"

#include "gp/Owned.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using testsupport::PoolScope;
using testsupport::references;

namespace {

char* newText(const char* text) {
    char* buffer = new char[std::strlen(text) + 1];
    std::strcpy(buffer, text);
    return buffer;
}

const char* const noText = nullptr;

std::string replaced(const char* text, const char* from, const char* to) {
    GPString string(text);
    string.replace(from, to);
    return string.cstr();
}

int searchFromEnd(const char* text, const char* needle) { return GPString(text).find(needle, true); }

} // namespace

TEST(GPString, NullMakesAnEmptyString) {
    GPString literal(nullptr);
    GPString fromChars(noText);
    GPString fromString(static_cast<GPString*>(nullptr));
    GPString counted(nullptr, 5);
    GPString takenOver(nullptr, -1);

    for (GPString* string : {&literal, &fromChars, &fromString, &counted, &takenOver}) {
        EXPECT_STREQ(string->cstr(), "");
        EXPECT_EQ(string->length(), 0);
    }
}

TEST(GPString, MakerStringOfNullIsAnEmptyStringAndNoNullObject) {
    PoolScope pool;

    EXPECT_STREQ(GPString::string(nullptr)->cstr(), "");
    EXPECT_STREQ(GPString::string(noText)->cstr(), "");
}

TEST(GPString, OfPutsTextsOneBehindTheOther) {
    const auto one = Owned<GPString>::adopt(GPString::of("one"));
    const auto three = Owned<GPString>::adopt(GPString::of("one", "", "three"));
    const auto empty = Owned<GPString>::adopt(GPString::of(""));

    EXPECT_STREQ(one->cstr(), "one");
    EXPECT_STREQ(three->cstr(), "onethree");
    EXPECT_STREQ(empty->cstr(), "");
    EXPECT_EQ(references(one.get()), 1);
}

TEST(GPString, AMakersStringChangesLikeAnyOther) {
    const auto string = Owned<GPString>::adopt(GPString::of("a-b"));
    const auto shorter = Owned<GPString>::adopt(GPString::of("  text  "));

    EXPECT_STREQ(string->append("-c")->cstr(), "a-b-c");
    EXPECT_STREQ(string->subString(2)->cstr(), "b-c");
    EXPECT_STREQ(string->reset("other")->append(" text")->cstr(), "other text");
    EXPECT_STREQ(shorter->trim()->uppercase()->cstr(), "TEXT");
    EXPECT_STREQ(shorter->append(shorter->cstr())->cstr(), "TEXTTEXT");
}

TEST(GPString, CopiesTextStringsAndCharacters) {
    GPString text("abc");
    GPString copy(&text);
    GPString character('x');
    text.append("d");

    EXPECT_STREQ(copy.cstr(), "abc");
    EXPECT_STREQ(character.cstr(), "x");
    EXPECT_STREQ(GPString().cstr(), "");
}

TEST(GPString, LengthOfTwoCutsAbcToAbAndTenLeavesAbc) {
    EXPECT_STREQ(GPString("abc", 2).cstr(), "ab");
    EXPECT_STREQ(GPString("abc", 10).cstr(), "abc");
    EXPECT_STREQ(GPString("abc", 0).cstr(), "");
    EXPECT_STREQ(GPString("a\0c", 3).cstr(), "a");
}

TEST(GPString, CountedCopyReadsNoFurtherThanItsLength) {
    const char unterminated[] = {'a', 'b'};

    EXPECT_STREQ(GPString(unterminated, 2).cstr(), "ab");
}

TEST(GPString, NegativeLengthTakesThePointerOver) {
    char* buffer = newText("taken");
    GPString string(buffer, -1);

    EXPECT_EQ(string.cstr(), buffer);
}

TEST(GPString, AbsorbeTakesThePointerAndIsOwned) {
    char* buffer = newText("taken");
    auto string = Owned<GPString>::adopt(GPString::absorbe(buffer));

    EXPECT_EQ(string->cstr(), buffer);
    EXPECT_EQ(references(string.get()), 1);
    auto empty = Owned<GPString>::adopt(GPString::absorbe(nullptr));
    EXPECT_STREQ(empty->cstr(), "");
}

TEST(GPString, MakerStringIsAutoreleasedInBothForms) {
    PoolScope pool;
    GPString* fromChars = GPString::string("abc");
    GPString* fromString = GPString::string(fromChars);

    EXPECT_EQ(references(fromChars), 2);
    EXPECT_EQ(references(fromString), 2);
    EXPECT_NE(fromChars, fromString);
    EXPECT_STREQ(fromString->cstr(), "abc");
}

TEST(GPString, StaticstringIsOwnedAndInNoPool) {
    PoolScope pool;
    auto string = Owned<GPString>::adopt(GPString::staticstring("abc"));
    auto empty = Owned<GPString>::adopt(GPString::staticstring(nullptr));

    EXPECT_EQ(references(string.get()), 1);
    EXPECT_STREQ(string->cstr(), "abc");
    EXPECT_STREQ(empty->cstr(), "");
}

TEST(GPString, StaticMarkDoesNotStopARelease) {
    GPString string("x");
    string.retain();

    EXPECT_EQ(string.makestatic(), &string);
    EXPECT_EQ(string.release(), 1);
}

TEST(GPString, FormatIsOwnedAndAsLongAsItsText) {
    PoolScope pool;
    const std::string longText(5000, 'y');
    auto string = Owned<GPString>::adopt(GPString::format("%d-%s", 42, longText.c_str()));
    auto empty = Owned<GPString>::adopt(GPString::format("%s", ""));

    EXPECT_EQ(string->cstr(), "42-" + longText);
    EXPECT_EQ(references(string.get()), 1);
    EXPECT_STREQ(empty->cstr(), "");
}

TEST(GPString, CopyIsOwnedAndOnItsOwn) {
    GPString string("abc");
    auto copy = Owned<GPString>::adopt(string.copy());
    string.reset("other");

    EXPECT_STREQ(copy->cstr(), "abc");
    EXPECT_EQ(references(copy.get()), 1);
}

TEST(GPString, ClassNameConstantIsTheClassName) {
    GPString string;

    EXPECT_EQ(GPString::GPStringClassName(), string.cclassName());
    EXPECT_STREQ(GPString::GPStringClassName(), "GPString");
}

TEST(GPString, CharAtIndexAnswersTheAddressInTheBuffer) {
    GPString string("abc");
    *string.charAtIndex(1) = 'x';

    EXPECT_STREQ(string.cstr(), "axc");
    EXPECT_EQ(string[2], string.charAtIndex(2));
    EXPECT_EQ(*string[3], '\0');
}

TEST(GPString, EqualityIsExactAndFalseForNull) {
    GPString string("Abc");
    GPString same("Abc");

    EXPECT_TRUE(string.isEqual("Abc"));
    EXPECT_FALSE(string.isEqual("abc"));
    EXPECT_FALSE(string.isEqual("Ab"));
    EXPECT_FALSE(string.isEqual(noText));
    EXPECT_TRUE(string.isEqual(&same));
    EXPECT_FALSE(GPString().isEqual(noText));
}

TEST(GPString, StartsWithHoldsInBothDirections) {
    GPString string("ab");
    GPString longer("abc");

    EXPECT_TRUE(string.startsWith("a"));
    EXPECT_TRUE(string.startsWith(&longer));
    EXPECT_TRUE(longer.startsWith(&string));
    EXPECT_FALSE(string.startsWith("b"));
    EXPECT_FALSE(string.startsWith("ax"));
    EXPECT_TRUE(string.startsWith(""));
}

TEST(GPString, EmptyStringStartsWithEverything) { EXPECT_TRUE(GPString("").startsWith("en")); }

TEST(GPString, IntValueOfNoNumberIsMinusOne) {
    struct {
        const char* text;
        int value;
    } const rows[] = {{"0", 0},     {"x", -1},    {"abc", -1}, {"", -1},
                      {" 0", -1},   {"-0", -1},   {"0x", 0},   {"00", 0},
                      {"7", 7},     {"-12", -12}, {" 15", 15}, {"+3", 3},
                      {"12ab", 12}, {"0x1f", 0},  {"-", -1},   {"2147483647", 2147483647}};

    for (const auto& row : rows) {
        EXPECT_EQ(GPString(row.text).intValue(), row.value) << row.text;
        EXPECT_EQ(GPString(row.text).longLongValue(), row.value) << row.text;
    }
}

TEST(GPString, LongLongValueHoldsSixtyFourBits) {
    EXPECT_EQ(GPString("9007199254740993").longLongValue(), 9007199254740993LL);
    EXPECT_EQ(GPString("-9007199254740993").longLongValue(), -9007199254740993LL);
}

TEST(GPString, BoolValueOfTrueInAnyCaseIsTrueAndLowercasesTheString) {
    GPString string("True");

    EXPECT_TRUE(string.boolValue());
    EXPECT_STREQ(string.cstr(), "true");
}

TEST(GPString, BoolValueGoesByTheWordAndTheNumber) {
    for (const char* text : {"TRUE", "true", "7", "1x"}) {
        EXPECT_TRUE(GPString(text).boolValue()) << text;
    }
    for (const char* text : {"yes", "0", "-1", "", "truE ", "false", " true"}) {
        EXPECT_FALSE(GPString(text).boolValue()) << text;
    }
    GPString other("YES");
    other.boolValue();
    EXPECT_STREQ(other.cstr(), "yes");
}

TEST(GPString, FindAnswersTheIndexInTheWholeText) {
    GPString string("abcabc");
    GPString needle("bc");

    EXPECT_EQ(string.find("bc", false), 1);
    EXPECT_EQ(string.find(&needle, false), 1);
    EXPECT_EQ(string.find("bc", 2, false), 4);
    EXPECT_EQ(string.find(&needle, 2, false), 4);
    EXPECT_EQ(string.find("BC", false), -1);
    EXPECT_EQ(string.find("bcx", false), -1);
    EXPECT_EQ(string.find("bc", 2, true), 5);
    EXPECT_EQ(string.find(&needle, 2, true), 5);
    EXPECT_EQ(string.find(&needle, true), 5);
}

TEST(GPString, FindWithAStartAtTheLengthIsMinusOne) {
    GPString string("abc");

    EXPECT_EQ(string.find("c", 3, false), -1);
    EXPECT_EQ(string.find("", 3, false), -1);
    EXPECT_EQ(string.find("c", 2, false), 2);
    EXPECT_EQ(string.find("c", 4, true), -1);
    EXPECT_EQ(string.find("a", -1, false), -1);
}

TEST(GPString, AnyFindOnAnEmptyStringIsMinusOne) {
    GPString empty;

    EXPECT_EQ(empty.find("a", false), -1);
    EXPECT_EQ(empty.find("", false), -1);
    EXPECT_EQ(empty.find("", true), -1);
    EXPECT_EQ(empty.find("a", 0, true), -1);
}

TEST(GPString, SearchFromTheEndForOneCharacterFindsItsLastPlace) {
    EXPECT_EQ(searchFromEnd("a/b/c", "/"), 3);
    EXPECT_EQ(searchFromEnd("abc", "/"), -1);
}

TEST(GPString, SearchFromTheEndAnswersTheLastCharacterOfTheMatch) {
    EXPECT_EQ(searchFromEnd("abcabc", "bc"), 5);
    EXPECT_EQ(searchFromEnd("x distinguishedName: y", "distinguishedName:"), 19);
}

TEST(GPString, SearchFromTheEndTriesTheLastOccurrenceOfTheLastCharacterAlone) {
    EXPECT_EQ(searchFromEnd("xbc-c", "bc"), -1);
    EXPECT_EQ(searchFromEnd("xbc-b", "bc"), 2);
}

TEST(GPString, SearchFromTheEndReadsNothingInFrontOfTheText) {
    EXPECT_EQ(searchFromEnd("c", "abc"), -1);
    EXPECT_EQ(searchFromEnd("bc", "abc"), -1);
    EXPECT_EQ(GPString("abc").find("abc", 1, true), -1);
    EXPECT_EQ(searchFromEnd("abc", "abc"), 2);
}

TEST(GPString, SkipwsAnswersTheIndexOfTheFirstNonSpace) {
    GPString string("  a \t\nb");

    EXPECT_EQ(string.skipws(), 2);
    EXPECT_EQ(string.skipws(2), 2);
    EXPECT_EQ(string.skipws(3), 6);
    EXPECT_EQ(GPString("   ").skipws(), 3);
}

TEST(GPString, ResetReplacesTheTextAndLeavesItAloneForNull) {
    GPString string("abc");

    EXPECT_EQ(string.reset("de"), &string);
    EXPECT_STREQ(string.cstr(), "de");
    EXPECT_EQ(string.reset(nullptr), &string);
    EXPECT_STREQ(string.cstr(), "de");
    string.reset(string.cstr() + 1);
    EXPECT_STREQ(string.cstr(), "e");
}

TEST(GPString, AppendTakesTextStringsAndItself) {
    GPString string("a");
    GPString other("c");

    EXPECT_EQ(string.append("b"), &string);
    EXPECT_EQ(string.append(&other), &string);
    string += "d";
    string += &other;
    EXPECT_STREQ(string.cstr(), "abcdc");
    string.append(&string);
    EXPECT_STREQ(string.cstr(), "abcdcabcdc");
    string.append("");
    EXPECT_EQ(string.length(), 10);
}

TEST(GPString, CountedAppendStopsAtItsLengthAndAtANul) {
    GPString string("a");
    const char unterminated[] = {'b', 'c'};
    string.append(unterminated, 2);
    string.append("de", 10);
    string.append("fgh", 1);
    string.append("xyz", 0);
    string.append("xyz", -1);

    EXPECT_STREQ(string.cstr(), "abcdef");
}

TEST(GPString, AppendFormatCanReadTheStringItself) {
    GPString string("ab");

    EXPECT_EQ(string.appendFormat("[%s %03d]", string.cstr(), 7), &string);
    EXPECT_STREQ(string.cstr(), "ab[ab 007]");
}

TEST(GPString, ReplaceOfOneMatchComesOutAsExpected) {
    EXPECT_EQ(replaced("a-b", "-", "+"), "a+b");
    EXPECT_EQ(replaced("a-b", "-", "long"), "alongb");
    EXPECT_EQ(replaced("a long b", "long", "-"), "a - b");
    EXPECT_EQ(replaced("-ab", "-", "+"), "+ab");
    EXPECT_EQ(replaced("ab-", "-", ""), "ab");
}

TEST(GPString, ReplaceCopiesMoreFromTheSecondMatchOn) { EXPECT_EQ(replaced("a-b-c", "-", "+"), "a+b-c+c"); }

TEST(GPString, ReplaceHoldsWhateverTheRuleProduces) {
    EXPECT_EQ(replaced("a.b.c.d", ".", "+"), "a+b.c+c.d+d");
    EXPECT_EQ(replaced("--", "-", "+"), "+-+");
    EXPECT_EQ(replaced("'one'", "'", ""), "one'");

    const std::string text =
        std::string(100, 'x') + "-" + std::string(100, 'y') + "-" + std::string(100, 'z');
    const std::string expected = std::string(100, 'x') + "+" + std::string(100, 'y') + "-" +
                                 std::string(100, 'z') + "+" + std::string(100, 'z');
    EXPECT_EQ(replaced(text.c_str(), "-", "+"), expected);
}

TEST(GPString, ReplaceWithoutAMatchOrWithNullsDoesNothing) {
    EXPECT_EQ(replaced("abc", "x", "yy"), "abc");
    EXPECT_EQ(replaced("abc", "x", "y"), "abc");
    EXPECT_EQ(replaced("abc", nullptr, "y"), "abc");
    EXPECT_EQ(replaced("abc", "b", nullptr), "abc");
    EXPECT_EQ(replaced("", "b", "c"), "");
    GPString string("abc");
    GPString from("b");
    EXPECT_EQ(string.replace(&from, nullptr), &string);
    EXPECT_EQ(string.replace(nullptr, &from), &string);
    EXPECT_STREQ(string.cstr(), "abc");
}

TEST(GPString, ReplaceTakesStringsToo) {
    GPString string("abc");
    GPString from("b");
    GPString to("B!");

    EXPECT_EQ(string.replace(&from, &to), &string);
    EXPECT_STREQ(string.cstr(), "aB!c");
}

TEST(GPString, ReplaceDoesNothingWhenOverlappingMatchesShrinkTheSizeBelowOne) {
    EXPECT_EQ(replaced("aaa", "aa", ""), "aaa");
    EXPECT_EQ(replaced("aa", "aa", ""), "");
}

// Their result would have 2,500,000,000 bytes.
TEST(GPString, ReplaceOfSoManyMatchesThatNoLengthCountsTheResultDoesNothing) {
    const std::string text(100000, '-');
    EXPECT_EQ(replaced(text.c_str(), "-", "+"), text);
}

TEST(GPString, ReplaceOfAnEmptyTextEndsAndDoesNothing) {
    EXPECT_EQ(replaced("abc", "", "x"), "abc");
    EXPECT_EQ(replaced("abc", "", ""), "abc");
}
