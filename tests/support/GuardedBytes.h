#pragma once

// Bytes with memory behind them that nobody may touch: a read beyond the last one ends the process, in every build.

#include <cstddef>
#include <string>

namespace testsupport {

class GuardedBytes {
public:
    explicit GuardedBytes(const std::string& bytes);
    ~GuardedBytes();

    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    const unsigned char* data() const { return data_; }

private:
    void* pages_;
    std::size_t length_; // of the pages, the forbidden one among them
    unsigned char* data_;
};

} // namespace testsupport
