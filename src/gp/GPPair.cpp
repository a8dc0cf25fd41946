#include "gp/GPPair.h"

#include <algorithm>

GPPair::GPPair(const char* key, GPObject* value) noexcept : key_(key), value_(value) {}

GPPair* GPPair::of(std::string_view key, GPObject* value) {
    void* const memory = ::operator new(sizeof(GPPair) + key.size() + 1);
    char* const ownKey = static_cast<char*>(memory) + sizeof(GPPair);
    *std::copy(key.begin(), key.end(), ownKey) = '\0';
    return ::new (memory) GPPair(ownKey, value);
}

GPPair::~GPPair() { value_->release(); }

void GPPair::releaseMapReference() {
    if (!heldByMap_) return;
    heldByMap_ = false;
    release();
}
