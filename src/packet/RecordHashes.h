#pragma once

// RecordHashes: the hashes by which HijackTable's indices find records. They are mixed with seeds, so that nobody can
// choose addresses or URLs that share one. Copies may be used by any thread.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>

class RecordHashes {
public:
    // Makes the seeds of three numbers that the sender of a packet or of a URL does not know.
    RecordHashes(std::uint64_t first, std::uint64_t second, std::uint64_t third)
        : seed_(mixed(first ^ oddConstant, second | 1)), otherSeed_(mixed(seed_ ^ oddConstant, third | 1)) {}

    // The hash of one end of a connection. Both factors hide behind a seed: an address that made one of them 0 would
    // take the rest out of the hash.
    std::uint64_t ofEnd(unsigned address, const in6_addr& addressIpv6, int port) const {
        const std::uint64_t own = static_cast<std::uint64_t>(address) << 32 | static_cast<unsigned>(port);
        const std::uint64_t half = mixed(own ^ seed_, wordAt(addressIpv6.s6_addr) ^ otherSeed_);
        return mixed(half ^ seed_, wordAt(addressIpv6.s6_addr + 8) ^ otherSeed_);
    }

    std::uint64_t ofUrl(const char* url) const {
        std::size_t left = std::strlen(url);
        std::uint64_t hash = mixed(left ^ seed_, oddConstant);
        for (; left >= sizeof hash; left -= sizeof hash, url += sizeof hash)
            hash = mixed(hash ^ wordAt(url), seed_);
        std::uint64_t rest = 0;
        std::memcpy(&rest, url, left);
        return mixed(hash ^ rest, seed_);
    }

private:
    static constexpr std::uint64_t oddConstant = 0x9e3779b97f4a7c15;

    // Folds the 128-bit product of two words into one.
    static std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
        const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }

    static std::uint64_t wordAt(const void* bytes) {
        std::uint64_t word;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }

    std::uint64_t seed_;
    std::uint64_t otherSeed_;
};
