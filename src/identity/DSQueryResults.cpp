// DSQuery: what the records of the two directories say.

#include "config/Configuration.h"
#include "identity/DSQuery.h"
#include "platform/HostName.h"

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

using namespace platform;

namespace {

constexpr char recordName[] = "dsAttrTypeStandard:RecordName";
constexpr char metaName[] = "dsAttrTypeStandard:AppleMetaRecordName";
constexpr char emailAddress[] = "dsAttrTypeStandard:EMailAddress";
constexpr char primaryDomain[] = "dsAttrTypeStandard:PrimaryNTDomain";
constexpr char realName[] = "dsAttrTypeStandard:RealName";
constexpr char groupId[] = "dsAttrTypeStandard:PrimaryGroupID";
constexpr char principalName[] = "dsAttrTypeNative:userPrincipalName";
constexpr char distinguishedName[] = "dsAttrTypeNative:distinguishedName";
constexpr char memberOf[] = "dsAttrTypeNative:memberOf";
constexpr char nativeName[] = "dsAttrTypeNative:name";

// Groups below are the system's own.
constexpr long firstOrdinaryGroup = 1000;

// The details of the first record of that type; none without such a record. False with the error if the record
// does not give them.
bool readDetails(const DirectoryRecords& records, const char* type,
                 const std::vector<std::string>& attributes, DirectoryDetails& details,
                 DirectoryError& error) {
    for (const auto& record : records)
        if (record->recordType() == type)
            return record->recordDetailsForAttributes(attributes, details, error);
    return true;
}

const char* textOrNull(const DirectoryText& text) { return text ? text->c_str() : nullptr; }

// The name under which the user's relay is kept: `name`, the record's own, or a text that it stores in
// `composed`, or an address, which makes the info's format "email".
const std::string* chooseRelay(const DirectoryDetails& user, const std::string* name, std::string& composed,
                               DSInfo* info) {
    for (const char* address : {principalName, emailAddress})
        if (const std::string* value = firstValue(user, address)) {
            info->userFormat = "email";
            return value;
        }
    const DirectoryText domain = firstText(user, primaryDomain);
    if (!domain) return name;
    composed = formatted("%@\\%@", {domain, firstText(user, recordName)});
    return &composed;
}

void storeRelay(const DirectoryDetails& user, DSInfo* info) {
    const std::string* name = firstValue(user, recordName);
    if (name) {
        info->username = *name;
        Configuration::getLastRelayUser(name->c_str()); // for its log line; nothing uses the answer
    }
    std::string composed;
    const std::string* relay = chooseRelay(user, name, composed, info);
    // Compared by identity: an address that reads like the record's name is stored.
    if (relay != name)
        Configuration::setLastRelay(textOrNull(info->username), relay->c_str(), textOrNull(info->userFormat));
}

void setIfPresent(DirectoryText& slot, const DirectoryDetails& details, const char* attribute) {
    if (const std::string* value = firstValue(details, attribute)) slot = *value;
}

} // namespace

void DSQuery::processADResults(const DirectoryRecords& results, DSInfo* info) {
    DirectoryDetails user;
    DirectoryDetails computer;
    DirectoryError error;
    if (!readDetails(results, kODRecordTypeUsers,
                     {principalName, emailAddress, recordName, primaryDomain, distinguishedName, memberOf},
                     user, error) ||
        !readDetails(results, kODRecordTypeComputers, {distinguishedName, nativeName}, computer, error)) {
        fail(error);
        logText("Failed to process Active Directory results."); // at every log level
        return;
    }
    storeRelay(user, info);
    setIfPresent(info->userDN, user, primaryDomain);
    setIfPresent(info->userOU, user, distinguishedName);
    if (firstValue(user, memberOf)) info->groups = user[memberOf];
    setIfPresent(info->computerName, computer, nativeName);
    setIfPresent(info->computerDN, computer, distinguishedName);
}

void DSQuery::processODResults(const DirectoryRecords& results, DSInfo* info) {
    DirectoryDetails user;
    DirectoryDetails computer;
    DirectoryError error;
    if (!readDetails(results, kODRecordTypeUsers, {metaName, recordName}, user, error) ||
        !readDetails(results, kODRecordTypeComputers, {metaName, recordName}, computer, error)) {
        fail(error);
        logTextVerbosely("Failed to process Open Directory results.");
        return;
    }
    setIfPresent(info->username, user, recordName);
    setIfPresent(info->userDN, user, metaName);
    const std::string* computerRecord = firstValue(computer, recordName);
    info->computerName =
        withoutExtension(computerRecord ? DirectoryText(*computerRecord) : hostName().currentHostName());
    setIfPresent(info->computerDN, computer, metaName);
}

void DSQuery::processODGroups(const DirectoryRecords& results, DSInfo* info) {
    std::vector<std::string> groups;
    for (const auto& record : results) {
        DirectoryDetails group;
        DirectoryError error;
        record->recordDetailsForAttributes({metaName, realName, groupId}, group, error);
        const std::string* directoryName = firstValue(group, metaName);
        const std::string* readableName = firstValue(group, realName);
        const std::string* id = firstValue(group, groupId);
        logTextVerbosely("Seeing Group name: %@. ", {firstText(group, realName)});
        if (!directoryName || !readableName || !id) continue;
        if (std::strtol(id->c_str(), nullptr, 10) < firstOrdinaryGroup) continue;
        groups.push_back(*readableName);
        groups.push_back(*directoryName);
    }
    info->groups = groups;
}

void DSQuery::processLocalResults(DSInfo* info) {
    const char* user = Configuration::cachedUserName();
    info->username = user ? DirectoryText(user) : std::nullopt;
    info->computerName = withoutExtension(hostName().currentHostName());
}

std::vector<std::string> DSQuery::convertSimpleGroupName(const std::vector<std::string>& groups,
                                                         const std::string& domain) {
    const std::string mark = "cn=";
    std::vector<std::string> result;
    for (const std::string& group : groups) {
        const std::size_t comma = group.find(',');
        if (group.compare(0, mark.size(), mark) != 0 || comma == std::string::npos) continue;
        result.push_back(formatted("%@\\%@", {domain, group.substr(mark.size(), comma - mark.size())}));
        result.push_back(group);
    }
    return result;
}
