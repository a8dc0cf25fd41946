#pragma once

// What the mutators that know their inputs' structure share: numbers drawn from one seed, and the fuzzer's own mutator.

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

// The fuzzer's own, which changes bytes blindly: the new size, at most `room`.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t room);

namespace fuzzing {

class Draw {
public:
    explicit Draw(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t limit) { return random_() % limit; }
    bool oneIn(std::size_t chances) { return below(chances) == 0; }
    char byte() { return static_cast<char>(below(256)); }

private:
    std::minstd_rand random_;
};

// The text changed blindly, and no longer than it was by more than a few bytes.
inline std::string mutatedBlindly(std::string text) {
    const std::size_t size = text.size();
    text.resize(size + 16);
    auto* const bytes = reinterpret_cast<std::uint8_t*>(&text[0]);
    text.resize(LLVMFuzzerMutate(bytes, size, text.size()));
    return text;
}

// A number in so many bytes, the highest first.
inline std::string bigEndian(std::size_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text += static_cast<char>(value >> shift & 255);
    return text;
}

inline std::size_t bigEndianAt(const std::string& text, std::size_t at, std::size_t bytes) {
    std::size_t value = 0;
    for (std::size_t i = at; i < at + bytes; ++i)
        value = value << 8 | static_cast<unsigned char>(i < text.size() ? text[i] : 0);
    return value;
}

// Copies what fits into the fuzzer's buffer; the size of that.
inline std::size_t handBack(const std::string& text, std::uint8_t* data, std::size_t room) {
    return text.copy(reinterpret_cast<char*>(data), room);
}

} // namespace fuzzing
