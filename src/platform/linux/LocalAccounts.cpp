#include "platform/linux/LocalAccounts.h"

#include "platform/linux/AccountLookup.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform {
namespace {

// The walks over all accounts share one cursor in the process.
std::mutex& walkMutex() {
    static auto* const mutex = new std::mutex;
    return *mutex;
}

// A line that is no more than a plus sign has a name and nothing else.
const char* textOf(const char* field) { return field ? field : ""; }

std::string realName(const passwd& user) {
    const std::string details = textOf(user.pw_gecos);
    return details.substr(0, details.find(','));
}

DirectoryDetails detailsOf(const passwd& user) {
    return {{kODAttributeTypeRecordName, {user.pw_name}},
            {attributeRealName, {realName(user)}},
            {attributeUniqueID, {std::to_string(user.pw_uid)}},
            {attributePrimaryGroupID, {std::to_string(user.pw_gid)}},
            {kODAttributeTypeNFSHomeDirectory, {textOf(user.pw_dir)}},
            {attributeUserShell, {textOf(user.pw_shell)}},
            {attributeMetaNodeLocation, {localNodeName}}};
}

DirectoryDetails detailsOf(const group& record) {
    DirectoryDetails details = {{kODAttributeTypeRecordName, {record.gr_name}},
                                {attributeRealName, {record.gr_name}},
                                {attributePrimaryGroupID, {std::to_string(record.gr_gid)}},
                                {attributeMetaNodeLocation, {localNodeName}}};
    for (char** member = record.gr_mem; *member; ++member)
        details[kODAttributeTypeGroupMembership].push_back(*member);
    return details;
}

bool fits(const DirectoryDetails& details, const DirectoryQueryTerms& terms) {
    const auto values = details.find(terms.attribute);
    return values != details.end() &&
           std::find(values->second.begin(), values->second.end(), terms.queryValue) != values->second.end();
}

// Appends the account if it fits; whether more may follow.
bool take(const DirectoryQueryTerms& terms, const DirectoryDetails& details, DirectoryRecords& records,
          std::size_t limit) {
    if (fits(details, terms)) {
        const std::string& name = details.at(kODAttributeTypeRecordName).front();
        records.push_back(
            std::make_shared<HeldRecord>(terms.recordType, std::string(localNodeName) + " " + name, details));
    }
    return records.size() < limit;
}

void findUsers(const DirectoryQueryTerms& terms, DirectoryRecords& records, std::size_t limit) {
    if (terms.attribute == kODAttributeTypeRecordName) {
        passwd user{};
        std::vector<char> space;
        const auto byName = [&](auto... out) { return getpwnam_r(terms.queryValue.c_str(), out...); };
        if (lookUpAccount(user, space, byName)) take(terms, detailsOf(user), records, limit);
        return;
    }
    const std::lock_guard<std::mutex> lock(walkMutex());
    // NOLINTBEGIN(concurrency-mt-unsafe): one walk at a time, by the lock
    setpwent();
    while (const passwd* user = getpwent())
        if (!take(terms, detailsOf(*user), records, limit)) break;
    endpwent();
    // NOLINTEND(concurrency-mt-unsafe)
}

void findGroups(const DirectoryQueryTerms& terms, DirectoryRecords& records, std::size_t limit) {
    if (terms.attribute == kODAttributeTypeRecordName) {
        group record{};
        std::vector<char> space;
        const auto byName = [&](auto... out) { return getgrnam_r(terms.queryValue.c_str(), out...); };
        if (lookUpAccount(record, space, byName)) take(terms, detailsOf(record), records, limit);
        return;
    }
    const std::lock_guard<std::mutex> lock(walkMutex());
    // NOLINTBEGIN(concurrency-mt-unsafe): one walk at a time, by the lock
    setgrent();
    while (const group* record = getgrent())
        if (!take(terms, detailsOf(*record), records, limit)) break;
    endgrent();
    // NOLINTEND(concurrency-mt-unsafe)
}

} // namespace

bool LocalAccounts::find(const DirectoryQueryTerms& terms, DirectoryRecords& records, DirectoryError&) const {
    const std::size_t limit =
        terms.maximumResults > 0 ? records.size() + static_cast<std::size_t>(terms.maximumResults) : SIZE_MAX;
    if (terms.recordType == kODRecordTypeUsers) findUsers(terms, records, limit);
    if (terms.recordType == kODRecordTypeGroups) findGroups(terms, records, limit);
    return true;
}

} // namespace platform
