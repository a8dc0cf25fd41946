// The cipher against a block function that was written elsewhere, fed with this library's key schedule.

#include "gp/GPAlgorithm.h"
#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The library's schedule: tables of first words and zeros in place of the published ones.
BF_KEY oddSchedule(const std::string& key) {
    BF_KEY context{};
    context.S[0] = 0xD1310BA6;
    context.S[256] = 0x4B7A70E9;
    context.S[512] = 0xE93D5A68;
    context.S[768] = 0x3A39CE37;
    context.P[0] = 0x243F6A88;
    for (std::size_t word = 0; word < 18; ++word) {
        BF_LONG mixed = 0;
        for (std::size_t i = 0; i < 4; ++i)
            mixed = mixed << 8 | static_cast<unsigned char>(key[(word * 4 + i) % key.size()]);
        context.P[word] ^= mixed;
    }
    BF_LONG block[2] = {};
    for (std::size_t i = 0; i < 18; i += 2) {
        BF_encrypt(block, &context);
        std::memcpy(&context.P[i], block, sizeof block);
    }
    for (std::size_t i = 0; i < 1024; i += 2) {
        BF_encrypt(block, &context);
        std::memcpy(&context.S[i], block, sizeof block);
    }
    return context;
}

std::string referenceCipher(const std::string& block, const std::string& key) {
    const BF_KEY context = oddSchedule(key);
    std::uint64_t word;
    std::memcpy(&word, block.data(), sizeof word);
    BF_LONG halves[2] = {static_cast<BF_LONG>(word >> 32), static_cast<BF_LONG>(word)};
    BF_encrypt(halves, &context);
    word = static_cast<std::uint64_t>(halves[0]) << 32 | halves[1];
    return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}

TEST(GPAlgorithmCipher, IsThePublishedBlockFunctionUnderTheLibrarysOwnSchedule) {
    for (const std::string key : {"k", "secret", "a key that is longer than a word \xff\x80"})
        for (const std::string block : {"12345678", "ABCDEFGH", "\x01\x02\x03\x04\xff\xfe\xfd\xfc"}) {
            auto cipher = Owned<GPData>::adopt(GPAlgorithm::blowfishEncrypt(block.data(), 8, key.c_str()));
            const std::string expected = referenceCipher(block, key);
            ASSERT_EQ(std::string(cipher->bytes(), 8), expected);
            auto plain = Owned<GPData>::adopt(GPAlgorithm::blowfishDecrypt(expected.data(), 8, key.c_str()));
            EXPECT_EQ(std::string(plain->bytes(), 8), block);
        }
}

TEST(GPAlgorithmCipher, AnEmptyKeyIsTheKeyOfOneZeroByte) {
    auto cipher = Owned<GPData>::adopt(GPAlgorithm::blowfishEncrypt("12345678", 8, ""));
    EXPECT_EQ(std::string(cipher->bytes(), 8), referenceCipher("12345678", std::string(1, '\0')));
}

} // namespace
