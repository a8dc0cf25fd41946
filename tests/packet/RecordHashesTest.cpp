// What tells two records apart tells their hashes apart: an index whose records share a hash answers as ever, only slower.

#include "packet/RecordHashes.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

const RecordHashes hashes(1, 2, 3);

in6_addr zerosBut(int place, unsigned char value) {
    in6_addr address{};
    address.s6_addr[place] = value;
    return address;
}

} // namespace

TEST(RecordHashes, OneEndHasOneHash) {
    const RecordHashes copy = hashes;
    EXPECT_EQ(hashes.ofEnd(0x01020304, zerosBut(1, 1), 443), copy.ofEnd(0x01020304, zerosBut(1, 1), 443));
    EXPECT_EQ(hashes.ofUrl("http://a.example/"), copy.ofUrl(std::string("http://a.example/").c_str()));
}

TEST(RecordHashes, EachBitOfAnAddressAndOfAPortMakesAnotherHash) {
    std::set<std::uint64_t> found;
    const in6_addr none{};
    found.insert(hashes.ofEnd(0, none, 0));
    for (int bit = 0; bit < 32; ++bit)
        found.insert(hashes.ofEnd(1u << bit, none, 0));
    for (int bit = 0; bit < 16; ++bit)
        found.insert(hashes.ofEnd(0, none, 1 << bit));
    for (int bit = 0; bit < 128; ++bit)
        found.insert(hashes.ofEnd(0, zerosBut(bit / 8, static_cast<unsigned char>(1 << bit % 8)), 0));
    EXPECT_EQ(found.size(), 1u + 32 + 16 + 128);
}

TEST(RecordHashes, TheUpperHalfOfAnAddressDoesNotStandForTheLowerOne) {
    for (int place = 0; place < 8; ++place)
        EXPECT_NE(hashes.ofEnd(0, zerosBut(place, 7), 80), hashes.ofEnd(0, zerosBut(place + 8, 7), 80))
            << place;
}

TEST(RecordHashes, EachLetterAndTheLengthOfAUrlMakeAnotherHash) {
    const std::string url = "http://host.example/a/path?query=1";
    std::set<std::uint64_t> found;
    for (std::size_t place = 0; place < url.size(); ++place) {
        std::string other = url;
        other[place] = '_';
        found.insert(hashes.ofUrl(other.c_str()));
        found.insert(hashes.ofUrl(url.substr(0, place).c_str()));
    }
    found.insert(hashes.ofUrl(url.c_str()));
    EXPECT_EQ(found.size(), 2 * url.size() + 1);
}

TEST(RecordHashes, EachSeedMakesOtherHashes) {
    std::set<std::uint64_t> ends, urls;
    for (const RecordHashes& seeded : {RecordHashes(1, 2, 3), RecordHashes(4, 2, 3), RecordHashes(1, 4, 3)}) {
        ends.insert(seeded.ofEnd(0x01020304, in6_addr{}, 443));
        urls.insert(seeded.ofUrl("http://a.example/"));
    }
    ends.insert(RecordHashes(1, 2, 8).ofEnd(0x01020304, in6_addr{}, 443));
    EXPECT_EQ(ends.size(), 4u);
    EXPECT_EQ(urls.size(), 3u);
}

TEST(RecordHashes, AreFoldedProductsOfWhatTellsRecordsApartAndTheSeeds) {
    // The numbers come from the same steps in Python, whose integers have no end.
    const RecordHashes seeded(0x1111, 0x2222, 0x3334);
    in6_addr address;
    for (int place = 0; place < 16; ++place)
        address.s6_addr[place] = static_cast<unsigned char>(place + 1);
    EXPECT_EQ(seeded.ofEnd(0xc0000201, address, 443), 0x45f5a3496e39983cu);
    EXPECT_EQ(seeded.ofUrl("https://host.example/p"), 0x396b8ce45f42f93au);
    EXPECT_EQ(seeded.ofUrl("12345678"), 0x9599700a7128ce49u);
}
