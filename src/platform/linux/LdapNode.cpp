#include "platform/linux/LdapNode.h"

#include "platform/linux/LdapWords.h"

#include <ldap.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

namespace platform {
namespace {

constexpr timeval connectTimeout = {10, 0};
constexpr timeval searchTimeout = {30, 0};

struct Unbind {
    void operator()(LDAP* connection) const { ldap_unbind_ext_s(connection, nullptr, nullptr); }
};
struct FreeMessage {
    void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
struct FreeText {
    void operator()(char* text) const { ldap_memfree(text); }
};
struct FreeValues {
    void operator()(berval** values) const { ldap_value_free_len(values); }
};
struct FreeCursor {
    void operator()(BerElement* cursor) const { ber_free(cursor, 0); }
};

using Connection = std::unique_ptr<LDAP, Unbind>;
using Text = std::unique_ptr<char, FreeText>;

struct Attribute {
    std::string name;
    std::vector<std::string> values;
};

// The entry's attributes by their names in lower case: LDAP does not tell cases apart.
using Entry = std::map<std::string, Attribute>;

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return text;
}

Connection connectTo(const std::string& uri, int& status) {
    LDAP* connection = nullptr;
    status = ldap_initialize(&connection, uri.c_str());
    if (status != LDAP_SUCCESS) return nullptr;
    const int version = LDAP_VERSION3;
    ldap_set_option(connection, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(connection, LDAP_OPT_NETWORK_TIMEOUT, &connectTimeout);
    ldap_set_option(connection, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    return Connection(connection);
}

std::vector<std::string> valuesOf(LDAP* connection, LDAPMessage* message, const char* attribute) {
    const std::unique_ptr<berval*, FreeValues> values(ldap_get_values_len(connection, message, attribute));
    std::vector<std::string> texts;
    for (berval** value = values.get(); value && *value; ++value)
        texts.emplace_back((*value)->bv_val, (*value)->bv_len);
    return texts;
}

Entry readEntry(LDAP* connection, LDAPMessage* message) {
    Entry entry;
    BerElement* position = nullptr;
    Text attribute(ldap_first_attribute(connection, message, &position));
    const std::unique_ptr<BerElement, FreeCursor> cursor(position);
    while (attribute) {
        entry[lowercase(attribute.get())] = {attribute.get(), valuesOf(connection, message, attribute.get())};
        attribute.reset(ldap_next_attribute(connection, message, position));
    }
    return entry;
}

// The entry in the directory's words: those that correspond to an LDAP attribute, and each attribute as a native
// one.
DirectoryDetails translated(const Entry& entry, const std::string& recordType) {
    DirectoryDetails details;
    for (const auto& [key, attribute] : entry)
        if (!attribute.values.empty()) details["dsAttrTypeNative:" + attribute.name] = attribute.values;
    for (const std::string& attribute : knownAttributes()) {
        for (const std::string& name : ldapAttributes(recordType, attribute)) {
            const auto found = entry.find(lowercase(name));
            if (found == entry.end() || found->second.values.empty()) continue;
            details[attribute] = found->second.values;
            break;
        }
    }
    return details;
}

// The whole text of a file; empty when it does not open.
std::string textOf(const std::string& path) {
    std::string text;
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (!file) return text;
    char piece[4096];
    while (const std::size_t got = std::fread(piece, 1, sizeof piece, file))
        text.append(piece, got);
    std::fclose(file);
    return text;
}

int sizeLimit(const DirectoryQueryTerms& terms) {
    return terms.maximumResults > 0 ? terms.maximumResults : LDAP_NO_LIMIT;
}

} // namespace

std::optional<LdapSettings> readLdapSettings(const std::string& path) {
    std::istringstream file(textOf(path));
    LdapSettings settings;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string keyword;
        std::string value;
        words >> keyword >> std::ws;
        std::getline(words, value);
        value.erase(value.find_last_not_of(" \t\r") + 1);
        if (strcasecmp(keyword.c_str(), "URI") == 0) settings.uri = value;
        if (strcasecmp(keyword.c_str(), "BASE") == 0) settings.base = value;
    }
    if (settings.uri.empty() || settings.base.empty()) return std::nullopt;
    return settings;
}

std::string LdapNode::name() const {
    const std::size_t scheme = settings_.uri.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    return "/LDAPv3/" + settings_.uri.substr(start, settings_.uri.find_first_of("/, \t", start) - start);
}

bool LdapNode::find(const DirectoryQueryTerms& terms, DirectoryRecords& records,
                    DirectoryError& error) const {
    const std::string filter = ldapFilter(terms.recordType, terms.attribute, terms.queryValue);
    if (filter.empty()) return true;

    char userAttributes[] = LDAP_ALL_USER_ATTRIBUTES;
    char ownAttributes[] = LDAP_ALL_OPERATIONAL_ATTRIBUTES;
    char* attributes[] = {userAttributes, ownAttributes, nullptr};
    if (terms.returnAttributes == kODAttributeTypeStandardOnly) attributes[1] = nullptr;

    int status = LDAP_SUCCESS;
    const Connection connection = connectTo(settings_.uri, status);
    LDAPMessage* answer = nullptr;
    timeval timeout = searchTimeout;
    if (connection)
        status =
            ldap_search_ext_s(connection.get(), settings_.base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                              attributes, 0, nullptr, nullptr, &timeout, sizeLimit(terms), &answer);
    const std::unique_ptr<LDAPMessage, FreeMessage> owned(answer);

    LDAPMessage* message = answer ? ldap_first_entry(connection.get(), answer) : nullptr;
    for (; message; message = ldap_next_entry(connection.get(), message)) {
        const Text dn(ldap_get_dn(connection.get(), message));
        DirectoryDetails details = translated(readEntry(connection.get(), message), terms.recordType);
        details[attributeMetaRecordName] = {dn ? dn.get() : ""};
        details[attributeMetaNodeLocation] = {name()};
        records.push_back(std::make_shared<HeldRecord>(terms.recordType, dn ? dn.get() : "", details));
    }

    // With a limit of ours the directory says that there is more.
    const bool reachedOurLimit = status == LDAP_SIZELIMIT_EXCEEDED && terms.maximumResults > 0;
    if (status == LDAP_SUCCESS || reachedOurLimit) return true;
    error.description = ldap_err2string(status);
    return false;
}

} // namespace platform
