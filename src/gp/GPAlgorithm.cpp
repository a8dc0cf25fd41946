#include "gp/GPAlgorithm.h"

#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/Clock.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace {

#include "gp/GPBlowfishTables.inc"

constexpr const std::uint32_t* publishedSBoxes[4] = {publishedSBox0, publishedSBox1, publishedSBox2,
                                                     publishedSBox3};

constexpr char base64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
constexpr std::int64_t blockSize = 8;

std::uint32_t draw() { return static_cast<std::uint32_t>(std::rand()); }

// Zeros go to the right of a short number, not to its left.
void ensureLen(GPArray* parts, int index, int length) {
    auto* part = static_cast<GPString*>(parts->objectAtIndex(index));
    while (part->length() < length)
        part->append("0");
}

int shortAtIndex(GPArray* parts, int index) {
    return static_cast<int>(base16(static_cast<GPString*>(parts->objectAtIndex(index))->cstr()));
}

// Bytes of a new[] buffer as data that has no spare room.
GPData* dataOf(std::unique_ptr<char[]> buffer, std::int64_t length) {
    return GPData::absorbeData(buffer.release(), static_cast<int>(length));
}

// 0 to 63, or -1 for a character outside the alphabet.
int base64Value(char character) {
    if (character >= 'A' && character <= 'Z') return character - 'A';
    if (character >= 'a' && character <= 'z') return character - 'a' + 26;
    if (character >= '0' && character <= '9') return character - '0' + 52;
    if (character == '+') return 62;
    if (character == '/') return 63;
    return -1;
}

// The schedule of one key and the block function.
class BlowfishContext {
public:
    explicit BlowfishContext(const char* key) {
        // The boxes start with their first words alone and all else zero; this cipher reads no other's text.
        sBoxes_[0][0] = 0xD1310BA6;
        sBoxes_[1][0] = 0x4B7A70E9;
        sBoxes_[2][0] = 0xE93D5A68;
        sBoxes_[3][0] = 0x3A39CE37;
        pArray_[0] = 0x243F6A88;
        mixKey(key ? key : "");
        std::uint64_t block = 0;
        for (std::size_t i = 0; i < pWords; i += 2)
            replacePair(&pArray_[i], block);
        for (auto& box : sBoxes_)
            for (std::size_t i = 0; i < boxWords; i += 2)
                replacePair(&box[i], block);
    }

    std::uint64_t encrypt(std::uint64_t block) const {
        auto left = static_cast<std::uint32_t>(block >> 32);
        auto right = static_cast<std::uint32_t>(block);
        for (std::size_t round = 0; round < rounds; ++round) {
            left ^= pArray_[round];
            right ^= mix(left);
            std::swap(left, right);
        }
        return join(right ^ pArray_[rounds + 1], left ^ pArray_[rounds]);
    }

    std::uint64_t decrypt(std::uint64_t block) const {
        auto left = static_cast<std::uint32_t>(block >> 32);
        auto right = static_cast<std::uint32_t>(block);
        for (std::size_t round = rounds + 1; round > 1; --round) {
            left ^= pArray_[round];
            right ^= mix(left);
            std::swap(left, right);
        }
        return join(right ^ pArray_[0], left ^ pArray_[1]);
    }

private:
    static constexpr std::size_t rounds = 16;
    static constexpr std::size_t pWords = 18;
    static constexpr std::size_t boxWords = 256;

    static std::uint64_t join(std::uint32_t left, std::uint32_t right) {
        return static_cast<std::uint64_t>(left) << 32 | right;
    }

    std::uint32_t mix(std::uint32_t half) const {
        return ((sBoxes_[0][half >> 24] + sBoxes_[1][half >> 16 & 0xFF]) ^ sBoxes_[2][half >> 8 & 0xFF]) +
               sBoxes_[3][half & 0xFF];
    }

    // The key's bytes repeat; an empty key acts as one zero byte, which is its terminator.
    void mixKey(const char* key) {
        const std::size_t length = *key ? std::strlen(key) : 1;
        std::size_t at = 0;
        for (auto& word : pArray_) {
            std::uint32_t mixed = 0;
            for (int i = 0; i < 4; ++i) {
                mixed = mixed << 8 | static_cast<unsigned char>(key[at]);
                at = (at + 1) % length;
            }
            word ^= mixed;
        }
    }

    void replacePair(std::uint32_t* pair, std::uint64_t& block) {
        block = encrypt(block);
        pair[0] = static_cast<std::uint32_t>(block >> 32);
        pair[1] = static_cast<std::uint32_t>(block);
    }

    std::uint32_t sBoxes_[4][boxWords] = {};
    std::uint32_t pArray_[pWords] = {};
};

// Blocks are native words: on this machine bytes 4 to 7 are the left half.
template <class Function>
void transformBlocks(char* bytes, std::int64_t length, Function transformed) {
    for (std::int64_t at = 0; at < length; at += blockSize) {
        std::uint64_t block;
        std::memcpy(&block, bytes + at, sizeof block);
        block = transformed(block);
        std::memcpy(bytes + at, &block, sizeof block);
    }
}

} // namespace

const char* GPAlgorithm::GPLibVersion() { return "6.1.0"; }

GPString* GPAlgorithm::createGUID() {
    return generateGUID(static_cast<unsigned int>(platform::clock().seconds()));
}

GPString* GPAlgorithm::generateGUID(unsigned int seed) {
    std::srand(seed);
    const std::uint32_t r1 = draw();
    const std::uint32_t r2 = draw();
    const std::uint32_t a = r1 * r2;
    const std::uint32_t b = draw() & 0xFFFF;
    const std::uint32_t c = draw() & 0xFFFF;
    const std::uint32_t r5 = draw();
    const std::uint32_t r6 = draw();
    const std::uint32_t d = r5 * 0x7FFFFFFFu + r6;
    const std::uint32_t r7 = draw();
    const std::uint32_t r8 = draw();
    const auto e = static_cast<std::uint64_t>(
        static_cast<std::int64_t>(static_cast<std::int32_t>(r7 * 0x7FFFFFFFu + r8)));
    const std::uint32_t f = draw() & 15;
    const std::uint64_t x = (static_cast<std::uint64_t>(d) << 34) + (e << 4);
    const auto fourth = static_cast<unsigned int>(x >> 48);
    // NOLINTNEXTLINE(bugprone-misplaced-widening-cast): the same width under the name that the format wants
    const auto fifth = static_cast<unsigned long long>((x + f) << 16);

    auto numbers =
        Owned<GPString>::adopt(GPString::format("%02X-%02X-%02X-%02X-%02llX", a, b, c, fourth, fifth));
    auto parts = Owned<GPArray>::adopt(numbers->split("-"));
    constexpr int lengths[] = {8, 4, 4, 4, 12};
    for (int i = 0; i < 5; ++i)
        ensureLen(parts.get(), i, lengths[i]);
    GPString* guid = parts->join("-");
    *guid->charAtIndex(guid->find("-", 12, false) + 1) = '4';
    return guid->subString(0, 36);
}

GPString* GPAlgorithm::getUUID() {
    auto addresses = Owned<GPArray>::adopt(GPNetDevice::macAddresses(GPIPTypeAny));
    if (!addresses || addresses->count() == 0) return nullptr;
    return identifierForMACAddress(static_cast<GPString*>(addresses->objectAtIndex(0)));
}

GPString* GPAlgorithm::identifierForMACAddress(GPString* address) {
    constexpr int partCount = 6;
    auto parts = Owned<GPArray>::adopt(address->split(":"));
    if (parts->count() < partCount) return nullptr;
    auto digits = Owned<GPString>::adopt(new GPString);
    for (int i = 0; i < partCount; ++i)
        digits->appendFormat("%d", shortAtIndex(parts.get(), i));
    return generateGUID(static_cast<unsigned int>(digits->longLongValue()));
}

GPData* GPAlgorithm::encodeBase64(const char* bytes, int length) {
    const std::int64_t count = bytes && length > 0 ? length : 0;
    const std::int64_t groups = (count + 2) / 3;
    const std::int64_t reported = 3 + 3 * groups; // what callers are told; the text is longer
    const std::int64_t size = groups * 4;
    if (size > INT_MAX) return nullptr;
    const auto byteAt = [&](std::int64_t i) {
        return i < count ? static_cast<unsigned char>(bytes[i]) : static_cast<unsigned char>(0);
    };

    auto text = std::make_unique<char[]>(static_cast<std::size_t>(size > reported ? size : reported));
    char* to = text.get();
    for (std::int64_t at = 0; at < count; at += 3) {
        const unsigned first = byteAt(at);
        const unsigned second = byteAt(at + 1);
        const unsigned third = byteAt(at + 2);
        *to++ = base64Alphabet[first >> 2];
        *to++ = base64Alphabet[(first & 3) << 4 | second >> 4];
        *to++ = at + 1 < count ? base64Alphabet[(second & 15) << 2 | third >> 6] : '=';
        *to++ = at + 2 < count ? base64Alphabet[third & 63] : '=';
    }
    return dataOf(std::move(text), reported);
}

GPData* GPAlgorithm::encodeBase64(GPData* data) { return encodeBase64(data->bytes(), data->length()); }

GPData* GPAlgorithm::decodeBase64(const char* text, int length) {
    const int count = text && length > 0 ? length : 0;
    GPData* data = GPData::dataWithSize(count);
    // Not cleared between groups: a lone last value takes its low bits from the group before.
    unsigned values[4] = {};
    int held = 0;
    const auto appendBytes = [&](int n) {
        const char bytes[] = {static_cast<char>(values[0] << 2 | values[1] >> 4),
                              static_cast<char>(values[1] << 4 | values[2] >> 2),
                              static_cast<char>(values[2] << 6 | values[3])};
        data->append(bytes, n);
    };
    for (int i = 0; i < count; ++i) {
        if (text[i] == '=') {
            if (held > 0) appendBytes(held == 3 ? 2 : 1);
            break;
        }
        const int value = base64Value(text[i]);
        if (value < 0) continue;
        values[held++] = static_cast<unsigned>(value);
        if (held < 4) continue;
        appendBytes(3);
        held = 0;
    }
    return data;
}

GPData* GPAlgorithm::decodeBase64(GPData* data) { return decodeBase64(data->bytes(), data->length()); }

GPData* GPAlgorithm::blowfishEncrypt(const char* bytes, int length, const char* key) {
    const std::int64_t count = bytes && length > 0 ? length : 0;
    const std::int64_t padded = (count + blockSize - 1) / blockSize * blockSize;
    if (padded > INT_MAX) return nullptr;
    auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(padded));
    if (count > 0) std::memcpy(buffer.get(), bytes, static_cast<std::size_t>(count));
    const BlowfishContext context(key);
    transformBlocks(buffer.get(), padded, [&](std::uint64_t block) { return context.encrypt(block); });
    return dataOf(std::move(buffer), padded);
}

GPData* GPAlgorithm::blowfishDecrypt(const char* bytes, int length, const char* key) {
    if (!bytes || length < 0 || length % blockSize != 0) return nullptr;
    auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(length));
    std::memcpy(buffer.get(), bytes, static_cast<std::size_t>(length));
    const BlowfishContext context(key);
    transformBlocks(buffer.get(), length, [&](std::uint64_t block) { return context.decrypt(block); });
    return dataOf(std::move(buffer), length);
}

GPString* GPAlgorithm::blowfishEncryptText(const char* text, const char* key) {
    const std::size_t length = text ? std::strlen(text) : INT_MAX;
    if (length >= INT_MAX) return nullptr;
    auto cipher = Owned<GPData>::adopt(blowfishEncrypt(text, static_cast<int>(length + 1), key));
    if (!cipher) return nullptr;
    auto encoded = Owned<GPData>::adopt(encodeBase64(cipher.get()));
    return encoded ? encoded->convertToString() : nullptr;
}

GPString* GPAlgorithm::blowfishDecryptText(const char* text, const char* key) {
    const std::size_t length = text ? std::strlen(text) : INT_MAX;
    if (length >= INT_MAX) return nullptr;
    auto cipher = Owned<GPData>::adopt(decodeBase64(text, static_cast<int>(length)));
    auto plain = Owned<GPData>::adopt(blowfishDecrypt(cipher->bytes(), cipher->length(), key));
    return plain ? plain->convertToString() : nullptr;
}

GPString* GPAlgorithm::blowfishCreateKey(int length) {
    static std::atomic<bool> isSeeded{false};
    if (!isSeeded.exchange(true)) std::srand(static_cast<unsigned int>(platform::clock().seconds()));
    const std::int64_t bytes = length > 0 ? length : 0;
    const auto words = static_cast<std::size_t>((bytes + 3) / 4);
    std::vector<std::uint32_t> key(words + 1); // the last word stays zero and ends the text
    for (std::size_t i = 0; i < words; ++i)
        key[i] = publishedSBoxes[i & 3][draw() % 256];
    return new GPString(reinterpret_cast<const char*>(key.data()));
}
