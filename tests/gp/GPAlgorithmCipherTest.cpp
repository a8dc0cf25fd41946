// The cipher and its keys.

#define OPENSSL_SUPPRESS_DEPRECATED

#include "gp/GPAlgorithm.h"
#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>
#include <openssl/blowfish.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

namespace {

#include "gp/GPBlowfishTables.inc"

using testsupport::ManualClock;

std::string taken(GPData* owned) {
    auto data = Owned<GPData>::adopt(owned);
    return data ? std::string(data->bytes(), static_cast<std::size_t>(data->length())) : "(null)";
}

std::string encrypted(const std::string& bytes, const char* key) {
    return taken(GPAlgorithm::blowfishEncrypt(bytes.data(), static_cast<int>(bytes.size()), key));
}

std::string decrypted(const std::string& bytes, const char* key) {
    return taken(GPAlgorithm::blowfishDecrypt(bytes.data(), static_cast<int>(bytes.size()), key));
}

// The text after encryption and decryption, or "(null)".
std::string roundTrip(const std::string& text) {
    auto cipher = Owned<GPString>::adopt(GPAlgorithm::blowfishEncryptText(text.c_str(), "secret"));
    auto plain = Owned<GPString>::adopt(GPAlgorithm::blowfishDecryptText(cipher->cstr(), "secret"));
    return plain ? plain->cstr() : "(null)";
}

TEST(GPAlgorithmCipher, PadsToAMultipleOfEightWithZeros) {
    EXPECT_EQ(encrypted("12345678", "key").size(), 8u);
    EXPECT_EQ(encrypted("123456789", "key").size(), 16u);
    EXPECT_EQ(encrypted("", "key").size(), 0u);
    EXPECT_EQ(decrypted(encrypted("123456789", "key"), "key"),
              std::string("123456789") + std::string(7, '\0'));
}

TEST(GPAlgorithmCipher, DecryptsMultiplesOfEightAlone) {
    EXPECT_EQ(GPAlgorithm::blowfishDecrypt("123456789012", 12, "key"), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishDecrypt("1234567", 7, "key"), nullptr);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::blowfishDecrypt("", 0, "key"))->length(), 0);
}

TEST(GPAlgorithmCipher, EncryptsEachBlockOnItsOwn) {
    const std::string twice = encrypted("12345678"
                                        "12345678",
                                        "key");
    EXPECT_EQ(twice.substr(0, 8), twice.substr(8));
    EXPECT_EQ(twice.substr(0, 8), encrypted("12345678", "key"));
    EXPECT_NE(twice.substr(0, 8), "12345678");
}

TEST(GPAlgorithmCipher, AnotherKeyGivesAnotherText) {
    EXPECT_NE(encrypted("12345678", "key"), encrypted("12345678", "kez"));
}

TEST(GPAlgorithmCipher, KeyBytesRepeatCyclically) {
    EXPECT_EQ(encrypted("12345678", "abc"), encrypted("12345678", "abcabc"));
}

TEST(GPAlgorithmCipher, AnEmptyOrMissingKeyActsAsAZeroByte) {
    EXPECT_EQ(encrypted("12345678", ""), encrypted("12345678", nullptr));
    EXPECT_EQ(decrypted(encrypted("12345678", ""), ""), "12345678");
}

// Another library's block function over the sparse start and the published schedule.
class OtherCipher {
public:
    explicit OtherCipher(const std::string& key) {
        key_.P[0] = 0x243F6A88;
        const BF_LONG firstWords[] = {0xD1310BA6, 0x4B7A70E9, 0xE93D5A68, 0x3A39CE37};
        for (std::size_t box = 0; box < 4; ++box)
            key_.S[box * 256] = firstWords[box];
        std::size_t at = 0;
        for (BF_LONG& word : key_.P) {
            BF_LONG mixed = 0;
            for (int i = 0; i < 4; ++i)
                mixed = mixed << 8 | static_cast<unsigned char>(key[at++ % key.size()]);
            word ^= mixed;
        }
        BF_LONG halves[2] = {0, 0};
        for (std::size_t i = 0; i < std::size(key_.P); i += 2)
            replacePair(&key_.P[i], halves);
        for (std::size_t i = 0; i < std::size(key_.S); i += 2)
            replacePair(&key_.S[i], halves);
    }

    // The block's bytes 4 to 7 are the left half, each half with its lowest byte first.
    std::string encrypted(const std::string& block) const {
        BF_LONG halves[2];
        std::memcpy(&halves[1], block.data(), 4);
        std::memcpy(&halves[0], block.data() + 4, 4);
        BF_encrypt(halves, &key_);
        std::string result(8, '\0');
        std::memcpy(&result[0], &halves[1], 4);
        std::memcpy(&result[4], &halves[0], 4);
        return result;
    }

private:
    void replacePair(BF_LONG* pair, BF_LONG* halves) {
        BF_encrypt(halves, &key_);
        pair[0] = halves[0];
        pair[1] = halves[1];
    }

    BF_KEY key_{};
};

TEST(GPAlgorithmCipher, IsThePublishedNetworkAndScheduleOverTablesThatStartWithTheirFirstWordsAlone) {
    for (const std::string key : {"key", "a", "\xff\x80\x7f", "a key that is longer than one half"})
        for (const std::string block : {"12345678", "\xff\xee\xdd\xcc\xbb\xaa\x99\x88"}) {
            const std::string cipher = OtherCipher(key).encrypted(block);
            EXPECT_EQ(encrypted(block, key.c_str()), cipher) << key;
            EXPECT_EQ(decrypted(cipher, key.c_str()), block) << key;
        }
    EXPECT_EQ(encrypted("12345678", ""), OtherCipher(std::string(1, '\0')).encrypted("12345678"));
}

TEST(GPAlgorithmCipher, TextsOfUpToSevenCharactersSurviveTheRoundTrip) {
    for (const char* text : {"", "1", "1234", "1234567"})
        EXPECT_EQ(roundTrip(text), text);
}

TEST(GPAlgorithmCipher, LongerTextsLoseBase64CharactersAndGiveNull) {
    EXPECT_EQ(roundTrip("12345678"), "(null)");
    EXPECT_EQ(roundTrip("a text of some length"), "(null)");
}

TEST(GPAlgorithmCipherGuard, ATextThatIsNoCipherTextGivesNull) {
    EXPECT_EQ(GPAlgorithm::blowfishDecryptText("TWFu", "key"), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishDecryptText("", "key"), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishDecryptText(nullptr, "key"), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishEncryptText(nullptr, "key"), nullptr);
}

TEST(GPAlgorithmCipherGuard, NegativeLengthsReadNothing) {
    EXPECT_EQ(GPAlgorithm::blowfishDecrypt("12345678", -8, "key"), nullptr);
    EXPECT_EQ(GPAlgorithm::blowfishDecrypt(nullptr, 8, "key"), nullptr);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::blowfishEncrypt("12345678", -8, "key"))->length(), 0);
    EXPECT_EQ(Owned<GPData>::adopt(GPAlgorithm::blowfishEncrypt(nullptr, 8, "key"))->length(), 0);
}

TEST(GPAlgorithmKey, IsSeededWithTheTimeOfTheFirstCallAlone) {
    ManualClock::installed().set(77LL * 1000000);
    auto first = Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(16));
    const int next = std::rand();
    std::srand(77);
    for (int i = 0; i < 4; ++i)
        std::rand();
    EXPECT_EQ(std::rand(), next) << "four words take four numbers";

    std::srand(5);
    auto second = Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(32));
    std::srand(5);
    auto third = Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(32));
    EXPECT_STREQ(second->cstr(), third->cstr());
}

TEST(GPAlgorithmKey, TakesAWordOfEachPublishedBoxInTurnAndEndsAtTheFirstZeroByte) {
    const std::uint32_t* boxes[] = {publishedSBox0, publishedSBox1, publishedSBox2, publishedSBox3};
    Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(0)); // takes the one seeding
    for (unsigned seed = 0; seed < 50; ++seed) {
        std::srand(seed);
        std::string words;
        for (std::size_t i = 0; i < 6; ++i) {
            char word[4];
            std::memcpy(word, &boxes[i % 4][std::rand() % 256], sizeof word);
            words.append(word, sizeof word);
        }
        std::srand(seed);
        auto key = Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(22));
        EXPECT_STREQ(key->cstr(), words.c_str());
    }
}

TEST(GPAlgorithmKey, HasAtMostTheLengthRoundedUpToWords) {
    std::size_t longest = 0;
    for (int i = 0; i < 200; ++i) {
        auto key = Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(5));
        ASSERT_LE(key->length(), 8);
        longest = std::max(longest, static_cast<std::size_t>(key->length()));
    }
    EXPECT_EQ(longest, 8u);
}

TEST(GPAlgorithmKeyGuard, OfNoLengthIsEmpty) {
    EXPECT_STREQ(Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(0))->cstr(), "");
    EXPECT_STREQ(Owned<GPString>::adopt(GPAlgorithm::blowfishCreateKey(-1))->cstr(), "");
}

} // namespace
