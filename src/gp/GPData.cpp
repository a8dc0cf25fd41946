#include "gp/GPData.h"

#include "gp/GPString.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

constexpr char className_[] = "GPData";

char* zeroed(int size) { return new char[static_cast<std::size_t>(std::max(size, 1))](); }

} // namespace

GPData::GPData() : bytes_(zeroed(1)), length_(0), spare_(0), size_(1) {}

GPData::GPData(int size) : bytes_(zeroed(size)), length_(0), spare_(std::max(size, 0)), size_(spare_) {}

GPData::GPData(const char* bytes, int len, bool absorb)
    : bytes_(nullptr), length_(bytes ? std::max(len, 0) : 0), spare_(0), size_(length_) {
    if (absorb) {
        bytes_ = const_cast<char*>(bytes);
        return;
    }
    bytes_ = zeroed(length_);
    if (length_ > 0) std::memcpy(bytes_, bytes, static_cast<std::size_t>(length_));
}

GPData::~GPData() { delete[] bytes_; }

GPString* GPData::className() { return GPString::string(className_); }

const char* GPData::cclassName() { return className_; }

GPData* GPData::dataWithData(const char* bytes, int len) { return new GPData(bytes, len, false); }

GPData* GPData::absorbeData(const char* bytes, int len) { return new GPData(bytes, len, true); }

GPData* GPData::dataWithSize(int size) { return new GPData(size); }

int GPData::length() const { return length_ == 0 && spare_ > 0 ? spare_ : length_; }

void GPData::append(const char* bytes, int n) {
    if (!bytes || n <= 0) return;
    const std::int32_t used = std::clamp(length_, 0, size_);
    if (n > std::numeric_limits<std::int32_t>::max() - used) return;

    // The true size counts as well: after setLength and clear the spare promises room that is not there.
    if (spare_ >= n && size_ - used >= n) {
        std::memmove(bytes_ + used, bytes, static_cast<std::size_t>(n));
        length_ = used + n;
        spare_ -= n;
        return;
    }
    char* larger = zeroed(used + n);
    if (used > 0) std::memcpy(larger, bytes_, static_cast<std::size_t>(used));
    std::memcpy(larger + used, bytes, static_cast<std::size_t>(n));
    delete[] bytes_;
    bytes_ = larger;
    length_ = size_ = used + n;
    spare_ = 0;
}

void GPData::append(const GPData* other) {
    // A buffer that was filled directly and never told its length counts as full.
    append(other->bytes_, std::min(other->length(), other->size_));
}

void GPData::clear() {
    delete[] bytes_;
    bytes_ = zeroed(1);
    size_ = 1;
    // The spare stays.
    length_ = 0;
}

GPString* GPData::convertToString() const {
    if (length() < 1 || !bytes_) return nullptr;
    return new GPString(bytes_, std::min(length(), size_));
}
