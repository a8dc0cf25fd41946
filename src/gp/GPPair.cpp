#include "gp/GPPair.h"

#include <cstdlib>

GPPair::GPPair(char* key, GPObject* value) : key_(key), value_(value) {}

GPPair::~GPPair() {
    std::free(key_);
    value_->release();
}

void GPPair::releaseMapReference() {
    if (!heldByMap_) return;
    heldByMap_ = false;
    release();
}
