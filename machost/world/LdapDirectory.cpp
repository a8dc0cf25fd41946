#include "machost/world/LdapDirectory.h"

#include <ldap.h>
#include <strings.h>

#include <cstdio>
#include <fstream>

namespace machost::world::machine {
namespace {

constexpr timeval connectLimit = {10, 0}, searchLimit = {30, 0};
constexpr const char* nativePrefix = "dsAttrTypeNative:";

struct CloseConnection {
    void operator()(LDAP* connection) const { ldap_unbind_ext_s(connection, nullptr, nullptr); }
};
struct FreeMessage {
    void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};

// Which LDAP attributes hold a standard one, the best first; those of RFC 2307 and of Apple's template for it.
std::vector<std::string> ldapNames(const std::string& recordType, const std::string& attribute) {
    static const auto& names = *new std::map<std::string, std::vector<std::string>>{
        {"dsAttrTypeStandard:RecordName", {"cn"}},
        {"dsAttrTypeStandard:RealName", {"cn"}},
        {"dsAttrTypeStandard:UniqueID", {"uidNumber"}},
        {"dsAttrTypeStandard:PrimaryGroupID", {"gidNumber"}},
        {"dsAttrTypeStandard:GroupMembership", {"memberUid"}},
        {"dsAttrTypeStandard:NFSHomeDirectory", {"homeDirectory"}},
        {"dsAttrTypeStandard:UserShell", {"loginShell"}},
        {"dsAttrTypeStandard:EMailAddress", {"mail"}},
        {"dsAttrTypeStandard:PrimaryNTDomain", {"sambaDomainName"}},
        {"dsAttrTypeNative:distinguishedName", {"distinguishedName", "entryDN"}}};
    if (attribute == "dsAttrTypeStandard:RecordName" && recordType == "dsRecTypeStandard:Users")
        return {"uid"};
    if (attribute == "dsAttrTypeStandard:RealName" && recordType == "dsRecTypeStandard:Groups")
        return {"apple-group-realname", "displayName", "cn"};
    const auto found = names.find(attribute);
    if (found != names.end()) return found->second;
    const std::string prefix = nativePrefix;
    const bool isNative =
        attribute.compare(0, prefix.size(), prefix) == 0 && attribute.size() > prefix.size();
    return isNative ? std::vector<std::string>{attribute.substr(prefix.size())} : std::vector<std::string>();
}

const std::vector<const char*>& translatedAttributes() {
    static const auto& all = *new std::vector<const char*>{
        "dsAttrTypeStandard:RecordName",      "dsAttrTypeStandard:RealName",
        "dsAttrTypeStandard:UniqueID",        "dsAttrTypeStandard:PrimaryGroupID",
        "dsAttrTypeStandard:GroupMembership", "dsAttrTypeStandard:NFSHomeDirectory",
        "dsAttrTypeStandard:UserShell",       "dsAttrTypeStandard:EMailAddress",
        "dsAttrTypeStandard:PrimaryNTDomain", "dsAttrTypeNative:distinguishedName"};
    return all;
}

std::vector<std::string> objectClasses(const std::string& recordType) {
    if (recordType == "dsRecTypeStandard:Users") return {"posixAccount", "inetOrgPerson"};
    if (recordType == "dsRecTypeStandard:Groups") return {"posixGroup", "groupOfNames", "apple-group"};
    if (recordType == "dsRecTypeStandard:Computers")
        return {"device", "computer", "ipHost", "apple-computer"};
    return {};
}

// RFC 4515
std::string escaped(const std::string& value) {
    std::string text;
    for (const char character : value) {
        if (std::string_view("*()\\\0", 5).find(character) == std::string_view::npos) {
            text += character;
            continue;
        }
        char code[4];
        // NOLINTNEXTLINE(cert-err33-c): three signs have room
        std::snprintf(code, sizeof code, "\\%02x", static_cast<unsigned char>(character));
        text += code;
    }
    return text;
}

// Empty for terms that nothing in an LDAP directory corresponds to.
std::string filterOf(const DirectoryTerms& terms) {
    const auto kinds = objectClasses(terms.recordType);
    const auto names = ldapNames(terms.recordType, terms.attribute);
    if (kinds.empty() || names.empty()) return {};
    std::string filter = "(&(|";
    for (const std::string& kind : kinds)
        filter += "(objectClass=" + kind + ")";
    filter += ")(|";
    for (const std::string& name : names)
        filter += "(" + name + "=" + escaped(terms.value) + ")";
    return filter + "))";
}

struct IgnoringCase {
    bool operator()(const std::string& one, const std::string& other) const {
        return strcasecmp(one.c_str(), other.c_str()) < 0;
    }
};
using Entry = std::map<std::string, std::vector<std::string>, IgnoringCase>;

Entry readEntry(LDAP* connection, LDAPMessage* message) {
    Entry entry;
    BerElement* position = nullptr;
    for (char* name = ldap_first_attribute(connection, message, &position); name;
         name = ldap_next_attribute(connection, message, position)) {
        berval** values = ldap_get_values_len(connection, message, name);
        for (berval** value = values; value && *value; ++value)
            entry[name].emplace_back((*value)->bv_val, (*value)->bv_len);
        ldap_value_free_len(values);
        ldap_memfree(name);
    }
    ber_free(position, 0);
    return entry;
}

DirectoryDetails translated(const Entry& entry, const std::string& recordType) {
    DirectoryDetails details;
    for (const auto& [name, values] : entry)
        details[nativePrefix + name] = values;
    for (const char* attribute : translatedAttributes())
        for (const std::string& name : ldapNames(recordType, attribute)) {
            const auto found = entry.find(name);
            if (found == entry.end()) continue;
            details[attribute] = found->second;
            break;
        }
    return details;
}

std::string nameOf(LDAP* connection, LDAPMessage* message) {
    char* text = ldap_get_dn(connection, message);
    std::string name = text ? text : "";
    ldap_memfree(text);
    return name;
}

class LdapNode final : public SearchedNode {
public:
    explicit LdapNode(LdapSettings settings) : settings_(std::move(settings)) {}

    bool find(const DirectoryTerms& terms, DirectoryRecords& records, std::string& problem) const override {
        const std::string filter = filterOf(terms);
        if (filter.empty()) return true;
        LDAP* opened = nullptr;
        int status = ldap_initialize(&opened, settings_.uri.c_str());
        const std::unique_ptr<LDAP, CloseConnection> connection(status == LDAP_SUCCESS ? opened : nullptr);
        if (connection) status = search(connection.get(), filter, terms, records);
        const bool isWhole = status == LDAP_SUCCESS || (status == LDAP_SIZELIMIT_EXCEEDED && terms.limit > 0);
        if (!isWhole) problem = ldap_err2string(status);
        return isWhole;
    }

private:
    int search(LDAP* connection, const std::string& filter, const DirectoryTerms& terms,
               DirectoryRecords& records) const {
        const int version = LDAP_VERSION3;
        ldap_set_option(connection, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(connection, LDAP_OPT_NETWORK_TIMEOUT, &connectLimit);
        ldap_set_option(connection, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        char user[] = LDAP_ALL_USER_ATTRIBUTES, operational[] = LDAP_ALL_OPERATIONAL_ATTRIBUTES;
        const bool standardOnly = terms.returned == "dsAttributesStandardAll";
        char* wanted[] = {user, standardOnly ? nullptr : operational, nullptr};
        timeval limit = searchLimit;
        LDAPMessage* answer = nullptr;
        const int most = terms.limit > 0 ? static_cast<int>(terms.limit) : LDAP_NO_LIMIT;
        const int status =
            ldap_search_ext_s(connection, settings_.base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), wanted,
                              0, nullptr, nullptr, &limit, most, &answer);
        const std::unique_ptr<LDAPMessage, FreeMessage> owned(answer);
        for (LDAPMessage* message = answer ? ldap_first_entry(connection, answer) : nullptr; message;
             message = ldap_next_entry(connection, message)) {
            const std::string name = nameOf(connection, message);
            DirectoryDetails details = translated(readEntry(connection, message), terms.recordType);
            details["dsAttrTypeStandard:AppleMetaRecordName"] = {name};
            details["dsAttrTypeStandard:AppleMetaNodeLocation"] = {ldapNodeName(settings_)};
            records.push_back(std::make_shared<HeldRecord>(terms.recordType, name, details));
        }
        return status;
    }

    const LdapSettings settings_;
};

class SearchedQuery final : public DirectoryQuery {
public:
    SearchedQuery(std::shared_ptr<const SearchedNode> node, DirectoryTerms terms)
        : node_(std::move(node)), terms_(std::move(terms)) {}

    bool results(bool partial, DirectoryRecords& records, std::string& problem) override {
        DirectoryRecords found;
        if (!node_->find(terms_, found, problem) && (!partial || found.empty())) return false;
        const auto limit = static_cast<std::size_t>(terms_.limit);
        if (limit > 0 && found.size() > limit) found.resize(limit);
        records = std::move(found);
        return true;
    }

private:
    const std::shared_ptr<const SearchedNode> node_;
    const DirectoryTerms terms_;
};

} // namespace

std::unique_ptr<DirectoryQuery> SearchedNode::query(const DirectoryTerms& terms, std::string& problem) {
    if (terms.matchType == directoryMatchEqual)
        return std::make_unique<SearchedQuery>(shared_from_this(), terms);
    problem = "no search of this kind";
    return nullptr;
}

bool HeldRecord::details(const std::vector<std::string>& attributes, DirectoryDetails& details,
                         std::string&) const {
    for (const std::string& attribute : attributes) {
        const auto found = details_.find(attribute);
        if (found != details_.end()) details[attribute] = found->second;
    }
    return true;
}

std::optional<LdapSettings> readLdapSettings(const std::string& path) {
    std::ifstream file(path);
    LdapSettings settings;
    for (std::string line; std::getline(file, line);) {
        const std::size_t word = line.find_first_not_of(" \t");
        if (word == std::string::npos) continue;
        const std::size_t end = line.find_first_of(" \t", word);
        const std::size_t start = line.find_first_not_of(" \t", end);
        if (end == std::string::npos || start == std::string::npos) continue;
        const std::string key = line.substr(word, end - word);
        const std::string value = line.substr(start, line.find_last_not_of(" \t\r") + 1 - start);
        if (strcasecmp(key.c_str(), "URI") == 0) settings.uri = value;
        if (strcasecmp(key.c_str(), "BASE") == 0) settings.base = value;
    }
    if (settings.uri.empty() || settings.base.empty()) return std::nullopt;
    return settings;
}

std::string ldapNodeName(const LdapSettings& settings) {
    const std::size_t scheme = settings.uri.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    return "/LDAPv3/" + settings.uri.substr(start, settings.uri.find_first_of("/, \t", start) - start);
}

DirectoryNodeRef ldapNode(const LdapSettings& settings) { return std::make_shared<LdapNode>(settings); }

} // namespace machost::world::machine
