#pragma once

// DSQuery: the search for the cached user, the computer's record and the user's groups, in Active Directory or in
// Open Directory, whichever the machine has. One object for the process, never released. The whole search runs on
// the calling thread, one at a time, and calls back before it returns. Nothing in the daemon starts it.

#include "gp/GPObject.h"
#include "identity/DSInfo.h"
#include "platform/Directory.h"

#include <functional>
#include <string>
#include <vector>

class DSQuery : public GPObject {
public:
    // What the search ends with; the info is borrowed for the length of the call.
    using Success = std::function<void(DSInfo* info)>;
    using Failure = std::function<void(const platform::DirectoryError& error)>;

    enum NodeKind { activeDirectory = 0, openDirectory = 1, localOnly = 2 };

    // The one object, made at the first call; borrowed.
    static DSQuery* sharedDSQuery();

    // Searches, and ends in `success` with as much as is known. `failure` is for a user search that failed and for
    // a record that does not give its details; after the latter `success` is called all the same.
    void search(Success success, Failure failure);

    // The rest of the search once the user's records are there.
    void ADSearch(const platform::DirectoryNodeRef& node, DSInfo* info,
                  const platform::DirectoryRecords& results);
    void ODSearch(const platform::DirectoryNodeRef& node, DSInfo* info,
                  const platform::DirectoryRecords& results);

    // Finds the node that knows the cached user, or failing that the first network directory, and says of what
    // kind it is; null and `localOnly` if there is none.
    int selectNode(platform::DirectoryNodeRef& node);

    // Fill the info from records. A record that does not give its details leads to `failure`; a group is left out.
    void processADResults(const platform::DirectoryRecords& results, DSInfo* info);
    void processODResults(const platform::DirectoryRecords& results, DSInfo* info);
    void processODGroups(const platform::DirectoryRecords& results, DSInfo* info);
    void processLocalResults(DSInfo* info);

    // Each group, such as "cn=staff,dc=x", as DOMAIN\staff and as it is. One of another form is left out.
    static std::vector<std::string> convertSimpleGroupName(const std::vector<std::string>& groups,
                                                           const std::string& domain);

    // The callbacks of the last search.
    Success success;
    Failure failure;

private:
    void finish(DSInfo* info);
    void fail(const platform::DirectoryError& error);
    void searchComputer(const platform::DirectoryNodeRef& node, DSInfo* info,
                        const std::function<void(const platform::DirectoryRecords&)>& process);
};
