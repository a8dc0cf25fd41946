#pragma once

// Reads a run of foreign bytes by offset, in this machine's byte order. Every read is checked; one that leaves the
// bytes throws FormatError. The bytes must outlive the view. Any thread.

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace machost {

// What is wrong with a file.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ByteView {
public:
    ByteView() = default;
    ByteView(const std::uint8_t* bytes, std::uint64_t size) : bytes_(bytes), size_(size) {}

    std::uint64_t size() const { return size_; }
    const std::uint8_t* data() const { return bytes_; }

    // The part of that many bytes from `offset` on.
    ByteView part(std::uint64_t offset, std::uint64_t size) const {
        if (offset > size_ || size > size_ - offset) throw FormatError("it ends too early");
        return {bytes_ + offset, size};
    }

    template <class Record>
    Record record(std::uint64_t offset) const {
        Record result;
        std::memcpy(&result, part(offset, sizeof result).data(), sizeof result);
        return result;
    }

    // The text up to its zero byte, which must lie within the bytes.
    std::string text(std::uint64_t offset) const {
        const ByteView rest = part(offset, offset > size_ ? 0 : size_ - offset);
        const void* end = rest.size_ ? std::memchr(rest.bytes_, 0, rest.size_) : nullptr;
        if (!end) throw FormatError("a text has no end");
        return {reinterpret_cast<const char*>(rest.bytes_), static_cast<const char*>(end)};
    }

private:
    const std::uint8_t* bytes_ = nullptr;
    std::uint64_t size_ = 0;
};

// Reads one byte, number or text behind the other.
class ByteReader {
public:
    explicit ByteReader(ByteView bytes) : bytes_(bytes) {}

    bool atEnd() const { return offset_ == bytes_.size(); }
    std::uint64_t offset() const { return offset_; }

    std::uint8_t byte() { return next<std::uint8_t>(); }

    template <class Record>
    Record next() {
        const auto result = bytes_.record<Record>(offset_);
        offset_ += sizeof result;
        return result;
    }

    std::string text() {
        std::string result = bytes_.text(offset_);
        offset_ += result.size() + 1;
        return result;
    }

    // A number in the variable-length forms of DWARF.
    std::uint64_t unsignedNumber() {
        std::uint64_t result = 0;
        for (unsigned shift = 0;; shift += 7) {
            const std::uint8_t part = byte();
            const std::uint64_t bits = part & 0x7f;
            if (shift >= 64 ? bits != 0 : (bits << shift >> shift) != bits)
                throw FormatError("a number is too large");
            if (shift < 64) result |= bits << shift;
            if (!(part & 0x80)) return result;
        }
    }

    std::int64_t signedNumber() {
        std::uint64_t result = 0;
        for (unsigned shift = 0;; shift += 7) {
            const std::uint8_t part = byte();
            if (shift < 64) result |= static_cast<std::uint64_t>(part & 0x7f) << shift;
            if (part & 0x80) continue;
            if ((part & 0x40) && shift + 7 < 64) result |= ~std::uint64_t{0} << (shift + 7);
            return static_cast<std::int64_t>(result);
        }
    }

    void skip(std::uint64_t count) {
        bytes_.part(offset_, count);
        offset_ += count;
    }

private:
    ByteView bytes_;
    std::uint64_t offset_ = 0;
};

} // namespace machost
