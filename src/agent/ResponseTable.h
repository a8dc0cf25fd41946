#pragma once

// The table in which replies of the agent find their waiting requests: the list of ResponseEntry objects and
// its lock. One exists for the agent link; any thread may call any operation. An entry in the table has two
// references, its creator's and the list's, and both go when it is taken out.
//
// Replies that nobody waits for stay, so the list can become long; entries are found by their number without a walk.

#include "gp/GPList.h"
#include "gp/ThreadSafety.h"

#include <cstddef>
#include <cstdint>
#include <map>

class GPMutex;
class GPString;
class ResponseEntry;

class ResponseTable {
public:
    ResponseTable();
    ~ResponseTable();

    ResponseTable(const ResponseTable&) = delete;
    ResponseTable& operator=(const ResponseTable&) = delete;

    // Opens a slot for a request, to be called before the request is sent. The result carries a reference for
    // the caller beside the two of the table, so that it outlives a removal by somebody else: two requests
    // can draw one number, and a configuration frame can carry the number of a request.
    ResponseEntry* open(std::uint32_t sequence);

    // Blocks until the entry is signalled, without limit. Then a copy of the response, owned by the caller,
    // with the first entry of that number taken out; null, with the table left as it is, when there is none.
    GPString* wait(ResponseEntry* entry);

    // Takes out the first entry with that number, if there is one.
    void remove(std::uint32_t sequence);

    // Gives the caller's own reference to an opened entry back.
    void close(ResponseEntry* entry);

    // Stores a reply in the first entry with its number and wakes who waits there. A number that nobody waits
    // for gets an entry of its own, which stays until it is taken.
    void deliver(std::uint32_t sequence, const char* text, std::size_t length);

    // Takes out the first entry with that number. False if there is none; otherwise `response` becomes a copy
    // of what it holds, owned by the caller.
    bool take(std::uint32_t sequence, GPString*& response);

    // Gives the head of the list an empty response and wakes who waits there. The head alone,
    // whether somebody waits at it or not: later waiters stay asleep.
    void wakeHead();

    // Number of entries.
    int count();

private:
    // Where the entries stand in the list. Those of one number follow each other in the list's order.
    using Index = std::multimap<std::uint32_t, GPList::Node*>;

    void addLocked(ResponseEntry* entry) REQUIRES(responseMutex);
    // The first entry with that number, or the end.
    Index::iterator findLocked(std::uint32_t sequence) REQUIRES(responseMutex);
    ResponseEntry* entryAtLocked(Index::iterator found) REQUIRES(responseMutex);
    void removeLocked(Index::iterator found) REQUIRES(responseMutex);

    GPMutex* responseMutex;
    GPList* responses GUARDED_BY(responseMutex); // with the fields of its entries
    Index index_ GUARDED_BY(responseMutex);
};
