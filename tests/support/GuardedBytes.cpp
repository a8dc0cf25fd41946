#include "support/GuardedBytes.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace testsupport {

GuardedBytes::GuardedBytes(const std::string& bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t readable = (bytes.size() + page - 1) / page * page;
    length_ = readable + page;
    pages_ = mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
    EXPECT_NE(pages_, MAP_FAILED);
    auto* const forbidden = static_cast<unsigned char*>(pages_) + readable;
    EXPECT_EQ(mprotect(forbidden, page, PROT_NONE), 0);
    data_ = forbidden - bytes.size();
    if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() { munmap(pages_, length_); }

} // namespace testsupport
