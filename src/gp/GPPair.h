#pragma once

// GPPair: an entry of a GPMap, which alone makes and keeps them.

#include "gp/GPObject.h"

#include <cstddef>
#include <new>
#include <string_view>

class GPPair : public GPObject {
public:
    // A new pair, whose copy of the key is in one piece of memory with it. Takes over the caller's reference to the
    // value.
    static GPPair* of(std::string_view key, GPObject* value);
    ~GPPair() override;

    const char* key() const { return key_; }
    GPObject* value() const { return value_; }

    // Gives back the reference of the pair's making, which is the map's own; from the second call on, as after
    // GPMap::rebalance, does nothing. The references of lists are theirs.
    void releaseMapReference();

    // The global ones, but for the size that a delete would tell: the piece of memory is larger than the object.
    static void* operator new(std::size_t size) = delete;
    static void operator delete(void* memory) { ::operator delete(memory); }

private:
    GPPair(const char* key, GPObject* value) noexcept;

    const char* key_;
    GPObject* value_;
    bool heldByMap_ = true;
};
