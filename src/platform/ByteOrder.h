#pragma once

// Reading and writing of integers at any address of a byte buffer. Big is network order; native is the
// order of this machine.

#include <cstdint>
#include <cstring>

namespace platform {

inline std::uint16_t readBig16(const void* at) {
    const auto* bytes = static_cast<const unsigned char*>(at);
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline std::uint32_t readBig32(const void* at) {
    const auto* bytes = static_cast<const unsigned char*>(at);
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

inline void writeBig16(void* at, std::uint16_t value) {
    auto* bytes = static_cast<unsigned char*>(at);
    bytes[0] = static_cast<unsigned char>(value >> 8);
    bytes[1] = static_cast<unsigned char>(value);
}

inline void writeBig32(void* at, std::uint32_t value) {
    auto* bytes = static_cast<unsigned char*>(at);
    bytes[0] = static_cast<unsigned char>(value >> 24);
    bytes[1] = static_cast<unsigned char>(value >> 16);
    bytes[2] = static_cast<unsigned char>(value >> 8);
    bytes[3] = static_cast<unsigned char>(value);
}

template <class Integer>
Integer readNative(const void* at) {
    Integer value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

template <class Integer>
void writeNative(void* at, Integer value) {
    std::memcpy(at, &value, sizeof value);
}

} // namespace platform
