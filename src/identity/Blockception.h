#pragma once

// Blockception: one directory query with its two completion callbacks, of which exactly one is called if it is set.
// Every search runs on the calling thread and calls back before it returns. All objects share the records found
// last, so only one search, with those that its callbacks start, may run at a time. Owned like any GPObject.

#include "gp/GPObject.h"
#include "platform/Directory.h"

#include <functional>
#include <memory>
#include <string>

class DSInfo;

class Blockception : public GPObject {
public:
    // The records are borrowed for the length of the call, and stay what they are when it starts another search.
    using Success = std::function<void(const platform::DirectoryRecords& records)>;
    using Failure = std::function<void(const platform::DirectoryError& error)>;

    // The cached user's record.
    void searchUserInfo(const platform::DirectoryNodeRef& node, Success success, Failure failure);

    // This computer's record, by the host's name without its extension.
    void searchComputerInfo(const platform::DirectoryNodeRef& node, Success success, Failure failure);

    // The groups that name the cached user as a member.
    void searchODMembership(const platform::DirectoryNodeRef& node, Success success, Failure failure);

    // The users whose home is the home directory of this process.
    void searchODLocalUser(const platform::DirectoryNodeRef& node, Success success, Failure failure);

    // The records of that type whose attribute equals the value; at most `resultCount`, 0 for all.
    void search(const char* recordType, const char* attribute, const std::string& queryValue,
                const platform::DirectoryNodeRef& node, int resultCount, Success success, Failure failure);

    // The delegate's part, for a query that is scheduled: an error ends the search, records are kept, and neither
    // of them means that the search is complete.
    void query(platform::DirectoryQuery* query, const platform::DirectoryRecords* foundResults,
               const platform::DirectoryError* error);

    // The callbacks of the search under way; empty without one.
    Success success;
    Failure failure;

    // Never set.
    DSInfo* ds = nullptr;

private:
    bool runQuery(const platform::DirectoryNodeRef& node, const platform::DirectoryQueryTerms& terms,
                  platform::DirectoryError& error);
    void clearCallbacks();

    std::unique_ptr<platform::DirectoryQuery> query_; // its delegate is this object
};
