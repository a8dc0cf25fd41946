#pragma once

// The query cache's entries and the look-up in it. The cache is a plain list; whoever shares it holds its
// lock around each call.

#include "gp/GPObject.h"

class GPList;
class GPString;
class GPTimer;

// A URL that was allowed, with the age of that answer. Like all records in lists it has two references in the
// list, its creator's and the list's own.
class QueryCacheEntry : public GPObject {
public:
    // Copies the URL and starts the entry's time.
    QueryCacheEntry(const char* text, int seconds);
    ~QueryCacheEntry() override;

    GPString* url;
    GPTimer* timer;
    int life; // in seconds
};

// What the cache knows a URL by, owned by the caller: the text in front of its query string, trimmed if it has one.
GPString* queryCacheKey(GPString* url);

// Whether the cache has a live entry of exactly this URL. Drops the expired entries that it meets and does
// not look at the one behind each.
bool isInQueryCache(GPList* cache, const char* url);
