#include "bench/FastReaders.h"

#include <cstring>

namespace bench {
namespace {

// What is left to read; a read beyond it makes it fail for good.
struct Bytes {
    const unsigned char* at;
    const unsigned char* end;
    bool failed = false;

    bool has(std::size_t count) {
        failed = failed || static_cast<std::size_t>(end - at) < count;
        return !failed;
    }
    std::size_t number(std::size_t bytes) {
        if (!has(bytes)) return 0;
        std::size_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i)
            value = value << 8 | *at++;
        return value;
    }
    void skip(std::size_t count) {
        if (has(count)) at += count;
    }
};

// The payload of a TCP packet over IPv4 without surprises.
Bytes payloadOf(const unsigned char* packet, std::size_t size) {
    const std::size_t ip = (packet[0] & 15u) * 4;
    const std::size_t headers = ip + (packet[ip + 12] >> 4) * 4u;
    return {packet + headers, packet + size};
}

const unsigned char* find(const unsigned char* at, const unsigned char* end, const char* word,
                          std::size_t length) {
    return static_cast<const unsigned char*>(memmem(at, static_cast<std::size_t>(end - at), word, length));
}

} // namespace

std::size_t walkHello(const unsigned char* data, std::size_t size, char* name, std::size_t capacity) {
    Bytes bytes{data, data + size};
    if (bytes.number(1) != 22) return 0;
    bytes.skip(4);
    if (bytes.number(1) != 1) return 0;
    bytes.skip(3 + 2 + 32);
    bytes.skip(bytes.number(1));
    bytes.skip(bytes.number(2));
    bytes.skip(bytes.number(1));
    bytes.skip(2);
    while (bytes.has(4)) {
        const std::size_t type = bytes.number(2);
        const std::size_t length = bytes.number(2);
        if (type != 0) {
            bytes.skip(length);
            continue;
        }
        bytes.skip(3);
        const std::size_t nameLength = bytes.number(2);
        if (!bytes.has(nameLength) || nameLength >= capacity) return 0;
        std::memcpy(name, bytes.at, nameLength);
        name[nameLength] = 0;
        return nameLength;
    }
    return 0;
}

char* urlOfHello(const unsigned char* packet, std::size_t size) {
    const Bytes payload = payloadOf(packet, size);
    char name[255];
    const std::size_t length =
        walkHello(payload.at, static_cast<std::size_t>(payload.end - payload.at), name, sizeof name);
    if (length == 0) return nullptr;
    char* const url = new char[8 + length + 1];
    std::memcpy(url, "https://", 8);
    std::memcpy(url + 8, name, length + 1);
    return url;
}

char* urlOfGet(const unsigned char* packet, std::size_t size) {
    const Bytes payload = payloadOf(packet, size);
    const auto room = static_cast<std::size_t>(payload.end - payload.at);
    if (room < 16 || std::memcmp(payload.at, "GET ", 4) != 0) return nullptr;
    const unsigned char* const path = payload.at + 4;
    const auto* pathEnd = static_cast<const unsigned char*>(std::memchr(path, ' ', room - 4));
    if (!pathEnd) return nullptr;
    const unsigned char* const header = find(pathEnd, payload.end, "\r\nHost: ", 8);
    if (!header) return nullptr;
    const unsigned char* const host = header + 8;
    const auto* hostEnd = static_cast<const unsigned char*>(
        std::memchr(host, '\r', static_cast<std::size_t>(payload.end - host)));
    if (!hostEnd) return nullptr;
    const auto pathLength = static_cast<std::size_t>(pathEnd - path);
    const auto hostLength = static_cast<std::size_t>(hostEnd - host);
    char* const url = new char[7 + hostLength + pathLength + 1];
    std::memcpy(url, "http://", 7);
    std::memcpy(url + 7, host, hostLength);
    std::memcpy(url + 7 + hostLength, path, pathLength);
    url[7 + hostLength + pathLength] = 0;
    return url;
}

} // namespace bench
