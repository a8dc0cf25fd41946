#include "filter/QueryCache.h"

#include "config/Configuration.h"
#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"

#include <cstdint>

namespace {

void drop(GPList* cache, QueryCacheEntry* entry) {
    if (Configuration::isLogLevel(128))
        logf("--- removed 0x%x from cache (%s); count=%d",
             static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry)), entry->url->cstr(),
             cache->count());
    cache->removeObject(entry);
    entry->release();
}

} // namespace

QueryCacheEntry::QueryCacheEntry(const char* text, int seconds)
    : url(new GPString(text)), timer(new GPTimer(true)), life(seconds) {}

QueryCacheEntry::~QueryCacheEntry() {
    url->release();
    timer->release();
}

GPString* queryCacheKey(GPString* url) {
    GPString* key = url->copy();
    const int query = key->find("?", false);
    if (query >= 0) key->subString(0, query)->trim();
    return key;
}

bool isInQueryCache(GPList* cache, const char* url) {
    auto* entry = static_cast<QueryCacheEntry*>(cache->firstObject());
    while (entry) {
        if (entry->timer->elapsedTime() > entry->life * 1000000LL)
            drop(cache, entry);
        else if (entry->url->isEqual(url))
            return true;
        // After a removal the cursor is already on the next entry, which is thus stepped over.
        entry = static_cast<QueryCacheEntry*>(cache->nextObject());
    }
    return false;
}
