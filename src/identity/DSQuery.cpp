#include "identity/DSQuery.h"

#include "config/Configuration.h"
#include "gp/Owned.h"
#include "identity/Blockception.h"
#include "platform/HostName.h"

#include <memory>
#include <optional>
#include <utility>

using namespace platform;

namespace {

constexpr char locationAttribute[] = "dsAttrTypeStandard:AppleMetaNodeLocation";
constexpr char originalNodeAttribute[] = "dsAttrTypeStandard:OriginalNodeName";
constexpr char localNode[] = "/Local/Default";
constexpr char openDirectoryMark[] = "LDAPv3";
constexpr char activeDirectoryMark[] = "All Domains";

bool holds(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

DirectoryText cachedUser() {
    const char* name = Configuration::cachedUserName();
    return name ? DirectoryText(name) : std::nullopt;
}

// The first record that the whole directory has of the cached user; null if it has none.
std::shared_ptr<const DirectoryRecord> cachedUsersRecord() {
    DirectoryError error;
    const DirectoryNodeRef everything = directory().nodeWithType(kODNodeTypeAuthentication, error);
    DirectoryQueryTerms terms;
    terms.recordType = kODRecordTypeUsers;
    terms.attribute = kODAttributeTypeRecordName;
    terms.queryValue = cachedUser().value_or("");
    terms.returnAttributes = kODAttributeTypeStandardOnly;
    const auto query = directory().queryWithNode(everything, terms, error);
    DirectoryRecords records;
    if (!query || !query->resultsAllowingPartial(false, records, error) || records.empty()) return nullptr;
    return records.front();
}

// The name of the node that the cached user comes from; absent for a user of this machine alone.
DirectoryText cachedUsersNode() {
    const auto record = cachedUsersRecord();
    DirectoryDetails details;
    DirectoryError error;
    if (!record ||
        !record->recordDetailsForAttributes({locationAttribute, originalNodeAttribute}, details, error))
        return std::nullopt;
    const DirectoryText location = firstText(details, locationAttribute);
    // The record of a mobile account is a local copy.
    return location == DirectoryText(localNode) ? firstText(details, originalNodeAttribute) : location;
}

// The first network node of all, and its kind; absent if there is none.
DirectoryText firstNetworkNode(int& kind) {
    std::vector<std::string> names;
    DirectoryError error;
    directory().nodeNames(names, error);
    logTextVerbosely("selectNode nodeNames: %@. ", {described(names)});
    for (const std::string& name : names) {
        logTextVerbosely("Checking node name: %@. ", {name});
        if (holds(name, activeDirectoryMark)) {
            kind = DSQuery::activeDirectory;
            return name;
        }
        if (holds(name, openDirectoryMark)) {
            kind = DSQuery::openDirectory;
            return name;
        }
    }
    return std::nullopt;
}

DirectoryNodeRef nodeNamed(const std::string& name) {
    DirectoryError error;
    return directory().nodeWithName(name, error);
}

} // namespace

DSQuery* DSQuery::sharedDSQuery() {
    static auto* const shared = new DSQuery;
    return shared;
}

int DSQuery::selectNode(DirectoryNodeRef& node) {
    if (const DirectoryText name = cachedUsersNode()) {
        node = nodeNamed(*name);
        const bool isOpenDirectory = holds(*name, openDirectoryMark);
        logTextVerbosely(isOpenDirectory ? "Selecting OD Domain %@. " : "Selecting AD Domain %@. ", {name});
        return isOpenDirectory ? openDirectory : activeDirectory;
    }
    int kind = localOnly;
    const DirectoryText name = firstNetworkNode(kind);
    node = nullptr;
    if (!name) return localOnly;
    logTextVerbosely("Selecting node name: %@. ", {name});
    node = nodeNamed(*name);
    return kind;
}

void DSQuery::search(Success onSuccess, Failure onFailure) {
    success = std::move(onSuccess);
    failure = std::move(onFailure);
    DirectoryNodeRef node;
    const int kind = selectNode(node);
    const auto blockception = Owned<Blockception>::adopt(new Blockception);
    const auto owned = Owned<DSInfo>::adopt(new DSInfo);
    DSInfo* info = owned.get();
    info->userFormat = "directory";
    if (kind == localOnly) {
        processLocalResults(info);
        finish(info);
        return;
    }

    const DirectoryText user = cachedUser();
    logTextVerbosely("starting search for user info %@. ", {user});
    blockception->searchUserInfo(
        node,
        [&](const DirectoryRecords& results) {
            if (results.empty()) {
                logTextVerbosely("No user information found in Directory Server for username: %@. Sending "
                                 "local login information...",
                                 {user});
                processLocalResults(info);
                finish(info);
                return;
            }
            logRecordsVerbosely("search searchUserInfo results: %@. ", results);
            if (kind == activeDirectory)
                ADSearch(node, info, results);
            else
                ODSearch(node, info, results);
        },
        [&](const DirectoryError& error) {
            fail(error);
            logTextVerbosely("Failed to lookup user info.");
        });
}

void DSQuery::ADSearch(const DirectoryNodeRef& node, DSInfo* info, const DirectoryRecords& results) {
    logTextVerbosely("processADResults for user.");
    logRecordsVerbosely("ADSearch userInfo results: %@. ", results);
    processADResults(results, info);
    info->computerName = hostName().currentHostName();
    searchComputer(node, info, [&](const DirectoryRecords& computers) {
        if (logsDirectory())
            logText("ADSearch searchComputerInfo %@ results: %@. ",
                    {info->computerName, described(computers)});
        logTextVerbosely("processADResults for computer.");
        processADResults(computers, info);
    });
}

void DSQuery::ODSearch(const DirectoryNodeRef& node, DSInfo* info, const DirectoryRecords& results) {
    logTextVerbosely("Process Open Directory info.");
    logRecordsVerbosely("ODSearch results: %@. ", results);
    processODResults(results, info);
    const auto blockception = Owned<Blockception>::adopt(new Blockception);
    blockception->searchODMembership(
        node,
        [&](const DirectoryRecords& groups) {
            logRecordsVerbosely("searchODMembership results: %@. ", groups);
            processODGroups(groups, info);
            searchComputer(node, info,
                           [&](const DirectoryRecords& computers) { processODResults(computers, info); });
        },
        [&](const DirectoryError&) {
            finish(info);
            logTextVerbosely("Failed to resolve group membership.");
        });
}

// A computer that cannot be found does not fail the search.
void DSQuery::searchComputer(const DirectoryNodeRef& node, DSInfo* info,
                             const std::function<void(const DirectoryRecords&)>& process) {
    const auto blockception = Owned<Blockception>::adopt(new Blockception);
    blockception->searchComputerInfo(
        node,
        [&](const DirectoryRecords& computers) {
            process(computers);
            finish(info);
        },
        [&](const DirectoryError&) {
            finish(info);
            logTextVerbosely("Failed to resolve computer information.");
        });
}

// Called through copies: a callback may start another search.

void DSQuery::finish(DSInfo* info) {
    const Success callback = success;
    if (callback) callback(info);
}

void DSQuery::fail(const DirectoryError& error) {
    const Failure callback = failure;
    if (callback) callback(error);
}
