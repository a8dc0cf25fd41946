#include "gp/GPData.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using testsupport::references;

namespace {

std::string content(const GPData& data) {
    return std::string(data.bytes(), static_cast<std::size_t>(data.length()));
}

char* newBytes(const char* text) {
    char* buffer = new char[std::strlen(text)];
    std::memcpy(buffer, text, std::strlen(text));
    return buffer;
}

} // namespace

TEST(GPData, FreshBufferIsOneZeroByteWithLengthZero) {
    GPData data;

    EXPECT_EQ(data.length(), 0);
    EXPECT_EQ(data.bytes()[0], '\0');
}

TEST(GPData, MadeWithSizeReportsTheSizeUntilTheFirstAppend) {
    GPData data(16);
    EXPECT_EQ(data.length(), 16);

    data.append("abcd", 4);

    EXPECT_EQ(data.length(), 4);
    EXPECT_EQ(content(data), "abcd");
}

TEST(GPData, MadeWithSizeIsZeroed) {
    GPData data(16);

    EXPECT_EQ(content(data), std::string(16, '\0'));
}

TEST(GPData, MadeWithSizeFillsUpWithoutReallocation) {
    GPData data(8);
    const char* before = data.bytes();
    data.append("abcd", 4);
    data.append("efgh", 4);
    EXPECT_EQ(data.bytes(), before);
    EXPECT_EQ(content(data), "abcdefgh");

    data.append("i", 1);

    EXPECT_EQ(content(data), "abcdefghi");
}

TEST(GPData, AppendThatDoesNotFitTheSpareGivesUpTheSpare) {
    GPData data(4);
    data.append("ab", 2);
    data.append("cde", 3);

    EXPECT_EQ(content(data), "abcde");
    data.setLength(0);
    EXPECT_EQ(data.length(), 0);
}

TEST(GPData, CopiesOrTakesItsBytesOver) {
    char* bytes = newBytes("abc");
    GPData copied(bytes, 3, false);
    GPData absorbed(bytes, 3, true);

    EXPECT_NE(copied.bytes(), bytes);
    EXPECT_EQ(absorbed.bytes(), bytes);
    EXPECT_EQ(content(copied), "abc");
    EXPECT_EQ(content(absorbed), "abc");
}

TEST(GPData, MakersAreOwned) {
    char* bytes = newBytes("xyz");
    auto copied = Owned<GPData>::adopt(GPData::dataWithData("abc", 3));
    auto absorbed = Owned<GPData>::adopt(GPData::absorbeData(bytes, 3));
    auto sized = Owned<GPData>::adopt(GPData::dataWithSize(16));

    EXPECT_EQ(references(copied.get()), 1);
    EXPECT_EQ(references(absorbed.get()), 1);
    EXPECT_EQ(references(sized.get()), 1);
    EXPECT_EQ(content(*copied), "abc");
    EXPECT_EQ(absorbed->bytes(), bytes);
    EXPECT_EQ(sized->length(), 16);
}

TEST(GPData, SetLengthRecordsWhatWasWrittenDirectly) {
    GPData data(16);
    std::memcpy(data.bytes(), "hello", 5);
    data.setLength(5);

    EXPECT_EQ(data.length(), 5);
    EXPECT_EQ(content(data), "hello");
}

TEST(GPData, AppendBehindASetLengthStaysInsideTheBuffer) {
    GPData data(4);
    std::memcpy(data.bytes(), "abcd", 4);
    data.setLength(4);

    data.append("efgh", 4);

    EXPECT_EQ(content(data), "abcdefgh");
}

TEST(GPData, AppendOfAnotherTakesItsLength) {
    GPData data;
    GPData other("xyz", 3, false);
    data.append(&other);
    data.append(&other);
    EXPECT_EQ(content(data), "xyzxyz");

    data.append(&data);

    EXPECT_EQ(content(data), "xyzxyzxyzxyz");
}

TEST(GPData, AppendOfAnotherThatWasNeverToldItsLengthTreatsItAsFull) {
    GPData data;
    GPData other(4);
    std::memcpy(other.bytes(), "ab", 2);

    data.append(&other);

    EXPECT_EQ(content(data), std::string("ab\0\0", 4));
}

TEST(GPData, AppendOfAnEmptyBufferThatWasToldALengthTakesItsOneByte) {
    GPData data;
    GPData other;
    other.setLength(5);

    data.append(&other);

    EXPECT_EQ(content(data), std::string(1, '\0'));
}

TEST(GPData, AppendOfNothingChangesNothing) {
    GPData data("abc", 3, false);
    data.append("x", 0);
    data.append("x", -1);
    data.append(nullptr, 3);

    EXPECT_EQ(content(data), "abc");
}

TEST(GPData, ClearTakesANewByteAndLeavesTheSpare) {
    GPData full("abc", 3, false);
    full.clear();
    EXPECT_EQ(full.length(), 0);
    EXPECT_EQ(full.bytes()[0], '\0');
    full.append("de", 2);
    EXPECT_EQ(content(full), "de");

    GPData spare(16);
    spare.append("abcd", 4);
    spare.clear();
    EXPECT_EQ(spare.length(), 12);
    EXPECT_EQ(spare.bytes()[0], '\0');
}

TEST(GPData, ClearedBufferWithSpareIsNeverUsedBeyondItsOneByte) {
    GPData data(16);
    data.clear();
    auto text = Owned<GPString>::adopt(data.convertToString());
    EXPECT_STREQ(text->cstr(), "");
    GPData other;
    other.append(&data);
    EXPECT_EQ(content(other), std::string(1, '\0'));

    data.append("abcd", 4);

    EXPECT_EQ(content(data), "abcd");
}

TEST(GPData, ConvertToStringIsOwnedAndStopsAtANul) {
    GPData data("ab\0cd", 5, false);
    GPData plain("abcde", 5, false);
    auto stopped = Owned<GPString>::adopt(data.convertToString());
    auto whole = Owned<GPString>::adopt(plain.convertToString());

    EXPECT_STREQ(stopped->cstr(), "ab");
    EXPECT_STREQ(whole->cstr(), "abcde");
    EXPECT_EQ(references(whole.get()), 1);
}

TEST(GPData, ConvertToStringOfAFreshSizedBufferIsAnEmptyString) {
    GPData data(16);
    auto text = Owned<GPString>::adopt(data.convertToString());

    ASSERT_TRUE(text);
    EXPECT_STREQ(text->cstr(), "");
}

TEST(GPData, ConvertToStringOfNothingIsNull) {
    GPData empty;
    GPData noBuffer(nullptr, 5, true);
    GPData negative("abc", 3, false);
    negative.setLength(-1);

    EXPECT_EQ(empty.convertToString(), nullptr);
    EXPECT_EQ(noBuffer.convertToString(), nullptr);
    EXPECT_EQ(negative.convertToString(), nullptr);
}

TEST(GPData, ConvertToStringReadsNothingBehindTheBuffer) {
    GPData data("abc", 3, false);
    data.setLength(1000);
    auto text = Owned<GPString>::adopt(data.convertToString());

    EXPECT_STREQ(text->cstr(), "abc");
}

TEST(GPData, NegativeSizesAreEmpty) {
    GPData sized(-4);
    GPData counted("abc", -1, false);

    EXPECT_EQ(sized.length(), 0);
    EXPECT_EQ(counted.length(), 0);
}

TEST(GPData, ABufferOfANegativeSizeTakesWhatIsAppended) {
    GPData sized(-4);
    sized.append("text", 4);

    EXPECT_EQ(std::string(sized.bytes(), static_cast<std::size_t>(sized.length())), "text");
}
