#pragma once

// GPPair: an entry of a GPMap, which alone makes and keeps them.

#include "gp/GPObject.h"

class GPPair : public GPObject {
public:
    // Takes over the key, which must come from malloc, and the caller's reference to the value.
    GPPair(char* key, GPObject* value);
    ~GPPair() override;

    char const* key() const { return key_; }
    GPObject* value() const { return value_; }

    // Gives back the map's own reference ahead of its list's. A pair that GPMap::rebalance left with the
    // list's alone keeps that one.
    void releaseMapReference();

private:
    char* key_;
    GPObject* value_;
};
