#pragma once

// Takes a fuzzer's bytes apart from the front; past the end everything reads as zero or empty.

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzzing {

class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

    bool empty() const { return left_ == 0; }

    std::uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *data_++;
    }

    // A run of bytes with its length in front, in two bytes.
    std::string run() {
        std::size_t length = byte();
        length = length << 8 | byte();
        return take(length);
    }

    std::string rest() { return take(left_); }

private:
    std::string take(std::size_t length) {
        if (length > left_) length = left_;
        std::string taken(reinterpret_cast<const char*>(data_), length);
        data_ += length;
        left_ -= length;
        return taken;
    }

    const std::uint8_t* data_;
    std::size_t left_;
};

} // namespace fuzzing
