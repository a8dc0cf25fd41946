#include "machost/world/MachineDirectory.h"

#include "machost/libsystem/Paths.h"
#include "machost/world/LdapDirectory.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <mutex>

namespace machost::world::machine {
namespace {

constexpr std::uint32_t authenticationType = 0x2201;
constexpr const char* searchName = "/Search";
constexpr const char* localName = "/Local/Default";

// Attributes without "dsAttrTypeStandard:" in front.
DirectoryDetails inStandardWords(const DirectoryDetails& details) {
    DirectoryDetails full;
    for (const auto& [name, values] : details)
        full["dsAttrTypeStandard:" + name] = values;
    full["dsAttrTypeStandard:AppleMetaNodeLocation"] = {localName};
    return full;
}

DirectoryDetails detailsOf(const passwd& account) {
    const std::string gecos = account.pw_gecos ? account.pw_gecos : "";
    return inStandardWords({{"RecordName", {account.pw_name}},
                            {"RealName", {gecos.substr(0, gecos.find(','))}},
                            {"UniqueID", {std::to_string(account.pw_uid)}},
                            {"PrimaryGroupID", {std::to_string(account.pw_gid)}},
                            {"NFSHomeDirectory", {account.pw_dir}},
                            {"UserShell", {account.pw_shell}}});
}

DirectoryDetails detailsOf(const group& record) {
    DirectoryDetails details = {{"RecordName", {record.gr_name}},
                                {"RealName", {record.gr_name}},
                                {"PrimaryGroupID", {std::to_string(record.gr_gid)}}};
    for (char** member = record.gr_mem; *member; ++member)
        details["GroupMembership"].emplace_back(*member);
    return inStandardWords(details);
}

bool fits(const DirectoryDetails& details, const DirectoryTerms& terms) {
    const auto found = details.find(terms.attribute);
    return found != details.end() &&
           std::find(found->second.begin(), found->second.end(), terms.value) != found->second.end();
}

// Every account of the type in the system's order. Its cursor is one for the process.
std::vector<DirectoryDetails> accounts(const std::string& recordType) {
    static auto& lock = *new std::mutex;
    const std::lock_guard<std::mutex> guard(lock);
    std::vector<DirectoryDetails> all;
    // NOLINTBEGIN(concurrency-mt-unsafe): one walk at a time, by the lock
    if (recordType == "dsRecTypeStandard:Users") {
        setpwent();
        while (const passwd* account = getpwent())
            all.push_back(detailsOf(*account));
        endpwent();
    } else if (recordType == "dsRecTypeStandard:Groups") {
        setgrent();
        while (const group* record = getgrent())
            all.push_back(detailsOf(*record));
        endgrent();
    }
    // NOLINTEND(concurrency-mt-unsafe)
    return all;
}

class LocalNode final : public SearchedNode {
public:
    bool find(const DirectoryTerms& terms, DirectoryRecords& records, std::string&) const override {
        for (const DirectoryDetails& details : accounts(terms.recordType)) {
            if (!fits(details, terms)) continue;
            const std::string& name = details.at("dsAttrTypeStandard:RecordName").front();
            records.push_back(
                std::make_shared<HeldRecord>(terms.recordType, localName + (" " + name), details));
        }
        return true;
    }
};

DirectoryNodeRef networkNode(std::string* name = nullptr) {
    const auto settings = readLdapSettings(libsystem::hostPath("/etc/ldap/ldap.conf"));
    if (!settings) return nullptr;
    if (name) *name = ldapNodeName(*settings);
    return ldapNode(*settings);
}

// All nodes, the local one first. A server that does not answer is passed over.
class SearchNode final : public SearchedNode {
public:
    bool find(const DirectoryTerms& terms, DirectoryRecords& records, std::string&) const override {
        std::string ignored;
        LocalNode().find(terms, records, ignored);
        if (const auto network = networkNode())
            static_cast<const SearchedNode&>(*network).find(terms, records, ignored);
        return true;
    }
};

} // namespace

std::vector<std::string> nodeNames() {
    std::vector<std::string> names = {searchName, localName};
    std::string network;
    if (networkNode(&network)) names.push_back(network);
    return names;
}

DirectoryNodeRef nodeOfType(std::uint32_t type) {
    return type == authenticationType ? std::make_shared<SearchNode>() : nullptr;
}

DirectoryNodeRef nodeNamed(const std::string& name) {
    if (name == searchName) return std::make_shared<SearchNode>();
    if (name == localName) return std::make_shared<LocalNode>();
    std::string network;
    DirectoryNodeRef node = networkNode(&network);
    return name == network ? node : nullptr;
}

} // namespace machost::world::machine
