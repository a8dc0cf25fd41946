#pragma once

// GPPair: an entry of a GPMap, which alone makes and keeps them.

#include "gp/GPObject.h"

class GPPair : public GPObject {
public:
    // Takes over the key, which must come from malloc, and the caller's reference to the value.
    GPPair(char* key, GPObject* value);
    ~GPPair() override;

    const char* key() const { return key_; }
    GPObject* value() const { return value_; }

    // Gives back the reference of the pair's making, which is the map's own; from the second call on, as after
    // GPMap::rebalance, does nothing. The references of lists are theirs.
    void releaseMapReference();

private:
    char* key_;
    GPObject* value_;
    bool heldByMap_ = true;
};
