#include "identity/Blockception.h"

#include "config/Configuration.h"
#include "identity/DirectoryText.h"
#include "platform/HostName.h"

#include <cstddef>
#include <utility>

using namespace platform;

namespace {

constexpr std::size_t firstCapacity = 2;
constexpr int noLimit = 0;

std::shared_ptr<DirectoryRecords> newResults() {
    auto results = std::make_shared<DirectoryRecords>();
    results->reserve(firstCapacity);
    return results;
}

// What the search under way has found. Each search makes a new array, so that a callback keeps the one it was
// given while it starts the next search.
std::shared_ptr<DirectoryRecords>& queryResults = *new std::shared_ptr<DirectoryRecords>(newResults());

std::string cachedUser() {
    const char* name = Configuration::cachedUserName();
    return name ? name : "";
}

void append(const DirectoryRecords& records) {
    queryResults->insert(queryResults->end(), records.begin(), records.end());
}

void foundResults(void* object, DirectoryQuery* query, const DirectoryRecords* records,
                  const DirectoryError* error) {
    static_cast<Blockception*>(object)->query(query, records, error);
}

// The callbacks are called through copies: they may start a search with the same object.

// NOLINTNEXTLINE(performance-unnecessary-value-param)
void call(const Blockception::Success callback) {
    const std::shared_ptr<DirectoryRecords> results = queryResults;
    if (callback) callback(*results);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
void call(const Blockception::Failure callback, const DirectoryError& error) {
    if (callback) callback(error);
}

} // namespace

void Blockception::searchUserInfo(const DirectoryNodeRef& node, Success onSuccess, Failure onFailure) {
    search(kODRecordTypeUsers, kODAttributeTypeRecordName, cachedUser(), node, 1, std::move(onSuccess),
           std::move(onFailure));
}

void Blockception::searchComputerInfo(const DirectoryNodeRef& node, Success onSuccess, Failure onFailure) {
    const DirectoryText computer = withoutExtension(hostName().currentHostName());
    search(kODRecordTypeComputers, kODAttributeTypeRecordName, computer.value_or(""), node, 1,
           std::move(onSuccess), std::move(onFailure));
}

void Blockception::searchODMembership(const DirectoryNodeRef& node, Success onSuccess, Failure onFailure) {
    search(kODRecordTypeGroups, kODAttributeTypeGroupMembership, cachedUser(), node, noLimit,
           std::move(onSuccess), std::move(onFailure));
}

void Blockception::searchODLocalUser(const DirectoryNodeRef& node, Success onSuccess, Failure onFailure) {
    search(kODRecordTypeUsers, kODAttributeTypeNFSHomeDirectory, hostName().homeDirectory(), node, noLimit,
           std::move(onSuccess), std::move(onFailure));
}

void Blockception::search(const char* recordType, const char* attribute, const std::string& queryValue,
                          const DirectoryNodeRef& node, int resultCount, Success onSuccess,
                          Failure onFailure) {
    queryResults = newResults();
    success = std::move(onSuccess);
    failure = std::move(onFailure);

    DirectoryError error;
    const bool done = runQuery(
        node,
        {recordType, attribute, kODMatchEqualTo, queryValue, kODAttributeTypeAllAttributes, resultCount},
        error);
    if (done) {
        call(success);
    } else {
        logTextVerbosely("Failed to query Directory Server: %@", {error.description});
        call(failure, error);
    }
    clearCallbacks();
}

void Blockception::query(DirectoryQuery*, const DirectoryRecords* found, const DirectoryError* error) {
    if (error) {
        call(failure, *error);
        queryResults->clear();
    } else if (found) {
        append(*found);
        return;
    } else {
        call(success);
    }
    clearCallbacks();
}

bool Blockception::runQuery(const DirectoryNodeRef& node, const DirectoryQueryTerms& terms,
                            DirectoryError& error) {
    query_ = directory().queryWithNode(node, terms, error);
    if (!query_) return false;
    query_->setDelegate({foundResults, this});
    DirectoryRecords records;
    if (!query_->resultsAllowingPartial(false, records, error)) return false;
    append(records);
    return true;
}

void Blockception::clearCallbacks() {
    success = nullptr;
    failure = nullptr;
}
