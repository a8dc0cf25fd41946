#include "gp/GPHTTP.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Headers of an answer, read without a connection.
class GPHTTPHeaders : public testing::Test {
protected:
    bool parse(const std::string& answer) {
        headers_ = Owned<GPMap>::adopt(new GPMap);
        return GPHTTP::parseAnswer(answer, code_, *headers_);
    }

    std::string header(const char* name) {
        auto* value = static_cast<GPString*>(headers_->objectForKey(name));
        return value ? value->cstr() : "(null)";
    }

    int code_ = 0;
    Owned<GPMap> headers_;
};

TEST_F(GPHTTPHeaders, AreStoredUnderTheirNamesAsTheyStand) {
    EXPECT_TRUE(
        parse("HTTP/1.1 200 OK\r\nServer: nginx/1 \r\nX-Empty: \r\nLast: one\r\n\r\nNot: a header\r\n"));
    EXPECT_EQ(code_, 200);
    EXPECT_EQ(header("Server"), "nginx/1");
    EXPECT_EQ(header("server"), "(null)");
    EXPECT_EQ(header("X-Empty"), "");
    EXPECT_EQ(header("Last"), "one");
    EXPECT_EQ(headers_->count(), 3);
}

TEST_F(GPHTTPHeaders, AValueDirectlyBehindTheColonLosesItsFirstCharacter) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nServer:nginx\r\nNext: one\r\n\r\n"));
    EXPECT_EQ(header("Server"), "ginx");
    EXPECT_EQ(header("Next"), "one");
}

TEST_F(GPHTTPHeaders, AColonInFrontOfTheLineEndHasAnEmptyValue) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nA:\r\nB: b\r\nC: \nD: d\r\n\r\n"));
    EXPECT_EQ(header("A"), "");
    EXPECT_EQ(header("B"), "b");
    EXPECT_EQ(header("C"), "");
    EXPECT_EQ(header("D"), "d");
}

TEST_F(GPHTTPHeaders, AValueWhosePlaceLiesBehindItsLineEndsTheReading) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nA: a\r\nB:\nC: c\r\n\r\n"));
    EXPECT_EQ(header("A"), "a");
    EXPECT_EQ(header("B"), "(null)");
    EXPECT_EQ(header("C"), "(null)");
    EXPECT_EQ(headers_->count(), 1);
}

TEST_F(GPHTTPHeaders, AColonAtTheEndOfTheBlockHasNoValue) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nA: a\r\nB:\r\n\r\n"));
    EXPECT_EQ(header("A"), "a");
    EXPECT_EQ(header("B"), "(null)");
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nA: a\r\nB: \r\n\r\n"));
    EXPECT_EQ(header("B"), "");
}

TEST_F(GPHTTPHeaders, ARepeatedNameKeepsItsLastValue) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nA: 1\r\nA: 2\r\n\r\n"));
    EXPECT_EQ(header("A"), "2");
}

TEST_F(GPHTTPHeaders, StandBehindTheFirstLineFeedAlsoWhereItIsTheFirstByte) {
    EXPECT_TRUE(parse("\nA: 1\r\n\r\n"));
    EXPECT_EQ(header("A"), "1");
}

TEST_F(GPHTTPHeaders, ALineWithoutAColonBelongsToTheNextName) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\nnonsense\r\nA: 1\r\n\r\n"));
    EXPECT_EQ(header("nonsense\r\nA"), "1");
}

TEST_F(GPHTTPHeaders, TheStatusIsTheNumberBehindTheFirstBlank) {
    EXPECT_TRUE(parse("whatever 404 x\r\n\r\n"));
    EXPECT_EQ(code_, 404);
    code_ = 7;
    EXPECT_TRUE(parse("HTTP/1.1 none\r\n\r\n"));
    EXPECT_EQ(code_, 7) << "no digit, no change";
    EXPECT_FALSE(parse("HTTP/1.1 "));
    EXPECT_EQ(code_, 7);
}

TEST_F(GPHTTPHeaders, AStatusLineAloneHasNoHeaders) {
    EXPECT_TRUE(parse("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(headers_->count(), 0);
}

// Every prefix of a text, and every text with one byte replaced by each of a few nasty ones.
TEST_F(GPHTTPHeaders, HostileBytesAreReadToTheirEnd) {
    const std::string good = "HTTP/1.1 200 OK\r\nA: 1\r\nTransfer-Encoding: chunked\r\nB:\r\n\r\nbody";
    for (std::size_t length = 0; length <= good.size(); ++length)
        parse(good.substr(0, length));
    for (std::size_t at = 0; at < good.size(); ++at) {
        for (const char nasty : {'\0', '\r', '\n', ':', ' ', '\xff'}) {
            std::string bad = good;
            bad[at] = nasty;
            parse(bad);
        }
    }
    EXPECT_FALSE(parse(std::string(100000, ':')));
    EXPECT_TRUE(parse(std::string(100000, '\n') + ":" + std::string(1000, ':') + "\r\n\r\n"));
    EXPECT_TRUE(parse("x 99999999999999999999999999\n:\r\n\r\n"));
    EXPECT_EQ(header(""), "(null)");
}

std::string chunks(const char* text) {
    const auto data = Owned<GPString>::adopt(GPHTTP::handleChunk(text));
    return data->cstr();
}

TEST(GPHTTPChunks, AreConcatenatedUpToASizeOfZero) {
    EXPECT_EQ(chunks("5\r\nhello\r\n6\r\n world\r\n0\r\n\r\nignored"), "hello world");
    EXPECT_EQ(chunks("a\r\n0123456789\r\nA\r\n0123456789\r\n0\r\n\r\n"), "01234567890123456789");
    EXPECT_EQ(chunks("1\r\nx\r\n0\r\nTrailer: y\r\n\r\n"), "x");
}

TEST(GPHTTPChunks, AFirstSizeOfZeroGivesAnEmptyText) { EXPECT_EQ(chunks("0\r\n\r\n"), ""); }

TEST(GPHTTPChunks, BehindAFirstSizeOfZeroTheNextSizeIsReadAllTheSame) {
    EXPECT_EQ(chunks("0\r\n\r\n5\r\nhello\r\n0\r\n"), "hello");
    EXPECT_EQ(chunks("0\r\n\r\n0\r\n\r\n5\r\nhello\r\n"), "") << "the second size of 0 ends it";
    EXPECT_EQ(chunks("0\r\n\r\n-5\r\nhello\r\n"), "");
    EXPECT_EQ(chunks("0\r\n\r"), "");
}

TEST(GPHTTPChunks, ALaterSizeOfZeroEndsTheTextWhateverFollows) {
    EXPECT_EQ(chunks("2\r\nab\r\n0\r\n\r\n5\r\nhello\r\n0\r\n"), "ab");
}

TEST(GPHTTPChunks, ExtensionsAreNotUnderstood) {
    EXPECT_EQ(chunks("5;a=b\r\nhello\r\n0\r\n\r\n"), "=b\r\nh");
}

TEST(GPHTTPChunks, AChunkThatIsCutShortGivesWhatIsThere) {
    EXPECT_EQ(chunks("5\r\nhel"), "hel");
    EXPECT_EQ(chunks("5\r\n"), "");
    EXPECT_EQ(chunks("5\r"), "");
    EXPECT_EQ(chunks("5"), "");
    EXPECT_EQ(chunks(""), "");
    EXPECT_EQ(chunks("5\r\nhello"), "hello");
    EXPECT_EQ(chunks("5\r\nhello\r"), "hello");
    EXPECT_EQ(chunks("5\r\nhello\r\n"), "hello");
}

TEST(GPHTTPChunks, AbsurdSizesAreCutToWhatIsThere) {
    EXPECT_EQ(chunks("ffffffff\r\nabc"), "abc");
    EXPECT_EQ(chunks("7fffffffffffffff\r\nabc"), "abc");
    EXPECT_EQ(chunks("ffffffffffffffffffffffff\r\nabc"), "abc");
}

TEST(GPHTTPChunks, ANegativeSizeEndsTheText) {
    EXPECT_EQ(chunks("-5\r\nhello\r\n0\r\n\r\n"), "");
    EXPECT_EQ(chunks("2\r\nab\r\n-1\r\nhello"), "ab");
    EXPECT_EQ(chunks("-ffffffffffffffffffff\r\nabc"), "");
}

TEST(GPHTTPChunks, TextThatIsNoSizeEndsTheText) {
    EXPECT_EQ(chunks("zz\r\nhello\r\n"), "");
    EXPECT_EQ(chunks("2\r\nab\r\nzz\r\n5\r\nhello\r\n"), "ab");
    EXPECT_EQ(chunks("      "), "");
}

} // namespace
