#include "gp/GPAlgorithm.h"

#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"
#include "support/PlayedInterfaces.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using testsupport::EntryBuilder;
using testsupport::ManualClock;
using testsupport::PlayedInterfaces;

std::string take(GPString* owned) {
    auto text = Owned<GPString>::adopt(owned);
    return text ? text->cstr() : "(null)";
}

std::string taken(GPData* owned) {
    auto data = Owned<GPData>::adopt(owned);
    return std::string(data->bytes(), static_cast<std::size_t>(data->length()));
}

std::string guid(unsigned seed) { return take(GPAlgorithm::generateGUID(seed)); }

std::string decoded(const std::string& text) {
    return taken(GPAlgorithm::decodeBase64(text.data(), static_cast<int>(text.size())));
}

// The base64 text that was written, without what the reported length adds behind it.
std::string written(const std::string& bytes) {
    auto data = Owned<GPData>::adopt(GPAlgorithm::encodeBase64(bytes.data(), static_cast<int>(bytes.size())));
    return std::string(data->bytes(), (bytes.size() + 2) / 3 * 4);
}

int reportedLength(int length) {
    const std::string bytes(static_cast<std::size_t>(length), 'x');
    return Owned<GPData>::adopt(GPAlgorithm::encodeBase64(bytes.data(), length))->length();
}

TEST(GPAlgorithm, TellsTheLibraryVersion) { EXPECT_STREQ(GPAlgorithm::GPLibVersion(), "6.1.0"); }

TEST(GPAlgorithmIdentifiers, HaveTheirShapeForAnySeed) {
    for (unsigned seed : {0u, 1u, 2u, 7u, 1000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(seed);
        const std::string text = guid(seed);
        ASSERT_EQ(text.size(), 36u);
        for (std::size_t i = 0; i < text.size(); ++i)
            if (i == 8 || i == 13 || i == 18 || i == 23)
                EXPECT_EQ(text[i], '-');
            else
                EXPECT_NE(std::string("0123456789ABCDEF").find(text[i]), std::string::npos) << text;
        EXPECT_EQ(text[14], '4');
    }
}

TEST(GPAlgorithmIdentifiers, HaveTheirShapeForManySeeds) {
    for (unsigned seed = 0; seed < 5000; ++seed) {
        const std::string text = guid(seed);
        ASSERT_EQ(text.size(), 36u) << seed;
        ASSERT_EQ(text[14], '4') << seed;
        ASSERT_TRUE(text[8] == '-' && text[13] == '-' && text[18] == '-' && text[23] == '-') << text;
    }
}

TEST(GPAlgorithmIdentifiers, AreTheSameForTheSameSeed) {
    EXPECT_EQ(guid(42), guid(42));
    EXPECT_NE(guid(42), guid(43));
}

// The drawing order, told once more with the numbers in their places.
TEST(GPAlgorithmIdentifiers, DrawTheirNumbersInAFixedOrderAndPadThemOnTheRight) {
    for (unsigned seed : {3u, 99u, 123456u, 4000000000u}) {
        std::srand(seed);
        unsigned r[10];
        for (unsigned& one : r)
            one = static_cast<unsigned>(std::rand());
        const unsigned long long d = r[4] * 0x7FFFFFFFu + r[5];
        const auto e = static_cast<unsigned long long>(
            static_cast<long long>(static_cast<int>(r[6] * 0x7FFFFFFFu + r[7])));
        const unsigned long long x = (d << 34) + (e << 4);
        char fields[5][32];
        std::snprintf(fields[0], sizeof fields[0], "%02X", r[0] * r[1]);
        std::snprintf(fields[1], sizeof fields[1], "%02X", r[2] & 0xFFFF);
        std::snprintf(fields[2], sizeof fields[2], "%02X", r[3] & 0xFFFF);
        std::snprintf(fields[3], sizeof fields[3], "%02X", static_cast<unsigned>(x >> 48));
        std::snprintf(fields[4], sizeof fields[4], "%02llX", (x + (r[8] & 15)) << 16);
        std::string expected;
        const std::size_t widths[] = {8, 4, 4, 4, 12};
        for (int i = 0; i < 5; ++i) {
            std::string field = fields[i];
            while (field.size() < widths[i])
                field += '0';
            expected += (i == 0 ? "" : "-") + field;
        }
        expected[14] = '4';
        EXPECT_EQ(guid(seed), expected.substr(0, 36));
    }
}

TEST(GPAlgorithmIdentifiers, OfTheMomentAreSeededWithTheTimeInSeconds) {
    ManualClock::installed().set(1234567890LL * 1000000 + 999999);
    const std::string now = take(GPAlgorithm::createGUID());
    EXPECT_EQ(now, guid(1234567890));
}

TEST(GPAlgorithmUUID, IsSeededWithTheDecimalNumbersOfTheFirstHardwareAddress) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(EntryBuilder()
                        .link("lo0")
                        .ipv4("lo0", "127.0.0.1")
                        .link("en0", std::string("\x00\x1b\x63\x84\x45\xe6", 6))
                        .ipv4("en0", "192.168.1.7")
                        .link("en1", "\x02\x02\x02\x02\x02\x02")
                        .ipv4("en1", "192.168.2.7"));
    const std::string uuid = take(GPAlgorithm::getUUID());
    EXPECT_EQ(uuid, guid(static_cast<unsigned>(std::stoll("0"
                                                          "27"
                                                          "99"
                                                          "132"
                                                          "69"
                                                          "230"))));
}

TEST(GPAlgorithmUUID, OfAnAllZeroAddressHasTheSeedZero) {
    auto zeros = Owned<GPString>::adopt(new GPString("00:00:00:00:00:00"));
    const std::string uuid = take(GPAlgorithm::identifierForMACAddress(zeros.get()));
    EXPECT_EQ(uuid, guid(0));
}

TEST(GPAlgorithmUUID, SeedsBeyond32BitsAreCut) {
    auto address = Owned<GPString>::adopt(new GPString("ff:ff:ff:ff:ff:ff"));
    const std::string uuid = take(GPAlgorithm::identifierForMACAddress(address.get()));
    EXPECT_EQ(uuid, guid(static_cast<unsigned>(255255255255255255ULL & 0xFFFFFFFF)));
}

TEST(GPAlgorithmUUID, IsNullWithoutAHardwareAddressOrAListing) {
    PlayedInterfaces interfaces;
    interfaces.install();
    EXPECT_EQ(GPAlgorithm::getUUID(), nullptr);
    interfaces.giveDescriptor(-1);
    EXPECT_EQ(GPAlgorithm::getUUID(), nullptr);
}

TEST(GPAlgorithmGuard, AnAddressOfFewerThanSixNumbersGivesNoIdentifier) {
    for (const char* text : {"", "aa", "aa:bb:cc:dd:ee", ":aa:bb:cc:dd:ee:ff"}) {
        auto address = Owned<GPString>::adopt(new GPString(text));
        EXPECT_EQ(GPAlgorithm::identifierForMACAddress(address.get()), nullptr) << text;
    }
}

TEST(GPAlgorithmBase64, WritesTheStandardAlphabet) {
    EXPECT_EQ(written("Man"), "TWFu");
    EXPECT_EQ(written("Ma"), "TWE=");
    EXPECT_EQ(written("M"), "TQ==");
    EXPECT_EQ(written("\xfb\xff\xbf"), "+/+/");
    EXPECT_EQ(written(std::string("\0\0\0\xff\xff\xff", 6)), "AAAA////");
}

TEST(GPAlgorithmBase64, ReportsThreePlusThreeForEachGroup) {
    EXPECT_EQ(reportedLength(0), 3);
    EXPECT_EQ(reportedLength(1), 6);
    EXPECT_EQ(reportedLength(3), 6);
    EXPECT_EQ(reportedLength(4), 9);
    EXPECT_EQ(reportedLength(9), 12);
    EXPECT_EQ(reportedLength(300), 303);
}

TEST(GPAlgorithmBase64, EightBytesGiveACompleteTextOfTwelve) {
    EXPECT_EQ(reportedLength(8), 12);
    EXPECT_EQ(taken(GPAlgorithm::encodeBase64("12345678", 8)), "MTIzNDU2Nzg=");
}

TEST(GPAlgorithmBase64, TwelveBytesReportFifteenOfSixteenCharacters) {
    EXPECT_EQ(reportedLength(12), 15);
    EXPECT_EQ(taken(GPAlgorithm::encodeBase64("123456789012", 12)), "MTIzNDU2Nzg5MDE");
}

TEST(GPAlgorithmBase64, TakesTheLengthOfItsData) {
    auto data = Owned<GPData>::adopt(GPData::dataWithData("123456789", 9));
    auto text = Owned<GPData>::adopt(GPAlgorithm::encodeBase64(data.get()));
    EXPECT_EQ(taken(GPAlgorithm::decodeBase64(text.get())), "123456789");
}

TEST(GPAlgorithmBase64, ReadsUpToTheEqualsSign) {
    EXPECT_EQ(decoded("TWE="), "Ma");
    EXPECT_EQ(decoded("TQ=="), "M");
    EXPECT_EQ(decoded("T W E ="), "Ma");
    EXPECT_EQ(decoded("TWFu=TWFu"), "Man");
    EXPECT_EQ(decoded("TWFu\r\nTWFu"), "ManMan");
    EXPECT_EQ(decoded("+/+/"), "\xfb\xff\xbf");
}

TEST(GPAlgorithmBase64, PassesOverTheCharactersAroundItsAlphabet) {
    for (const char outside : {'@', '[', '`', '{', ':', '*', ',', '.', '-', '_'})
        EXPECT_EQ(decoded(std::string("TW") + outside + "Fu"), "Man") << outside;
}

TEST(GPAlgorithmBase64, AGroupCutWithoutAnEqualsSignIsDropped) {
    EXPECT_EQ(decoded("TWFuTWE"), "Man");
    EXPECT_EQ(decoded("TWFuT"), "Man");
}

TEST(GPAlgorithmBase64, ALoneValueTakesItsLowBitsFromTheGroupBefore) {
    EXPECT_EQ(decoded("A/AAT="), std::string("\x03\xf0\x00\x4f", 4));
    EXPECT_EQ(decoded("T="), "\x4c");
}

TEST(GPAlgorithmBase64, TextWithNoGroupAtAllReportsTheSizeOfItsBuffer) {
    auto data = Owned<GPData>::adopt(GPAlgorithm::decodeBase64("TQ", 2));
    EXPECT_EQ(data->length(), 2);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::decodeBase64("", 0))->length(), 0);
}

TEST(GPAlgorithmGuard, NothingIsReadBehindAShortBase64Text) {
    for (int length = 0; length <= 6; ++length) {
        const std::string bytes(static_cast<std::size_t>(length), 'x');
        auto data = Owned<GPData>::adopt(GPAlgorithm::encodeBase64(bytes.data(), length));
        const std::string all(data->bytes(), static_cast<std::size_t>(data->length()));
        const std::string text = written(bytes);
        EXPECT_EQ(all, text + std::string(all.size() - text.size(), '\0'));
        auto string = Owned<GPString>::adopt(data->convertToString());
        EXPECT_EQ(string->cstr(), text);
    }
}

TEST(GPAlgorithmGuard, AnAppendToABase64TextStaysInMemory) {
    auto data = Owned<GPData>::adopt(GPAlgorithm::encodeBase64("123456789", 9));
    data->append("1234567890123456", 16);
    EXPECT_EQ(data->length(), 28);
}

TEST(GPAlgorithmGuard, NegativeLengthsAndNullBytesAreEmpty) {
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::encodeBase64("abc", -3))->length(), 3);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::encodeBase64(nullptr, 3))->length(), 3);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::decodeBase64("TWFu", -4))->length(), 0);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::decodeBase64(nullptr, 4))->length(), 0);
}

TEST(GPAlgorithmGuard, LengthsWhoseResultNoIntCanSayGiveNull) {
    EXPECT_EQ(GPAlgorithm::encodeBase64("abc", INT_MAX), nullptr);
    EXPECT_EQ(GPAlgorithm::encodeBase64("abc", INT_MAX / 4 * 3 + 3), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishEncrypt("abc", INT_MAX, "key"), nullptr);
}

} // namespace
