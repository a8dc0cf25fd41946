#include "platform/linux/LdapWords.h"

#include "platform/linux/DirectoryNodes.h"

#include <cstdio>

namespace platform {
namespace {

constexpr char nativePrefix[] = "dsAttrTypeNative:";

struct AttributeWords {
    const char* recordType; // null: of every type
    const char* attribute;
    std::vector<std::string> ldap;
};

// The first line that fits counts.
const std::vector<AttributeWords>& attributeWords() {
    static const auto* const words = new std::vector<AttributeWords>{
        {kODRecordTypeUsers, kODAttributeTypeRecordName, {"uid"}},
        {nullptr, kODAttributeTypeRecordName, {"cn"}},
        {kODRecordTypeGroups, attributeRealName, {"apple-group-realname", "displayName", "cn"}},
        {nullptr, attributeRealName, {"cn"}},
        {nullptr, attributeUniqueID, {"uidNumber"}},
        {nullptr, attributePrimaryGroupID, {"gidNumber"}},
        {nullptr, kODAttributeTypeGroupMembership, {"memberUid"}},
        {nullptr, kODAttributeTypeNFSHomeDirectory, {"homeDirectory"}},
        {nullptr, attributeUserShell, {"loginShell"}},
        {nullptr, "dsAttrTypeStandard:EMailAddress", {"mail"}},
        {nullptr, "dsAttrTypeStandard:PrimaryNTDomain", {"sambaDomainName"}},
        {nullptr, "dsAttrTypeNative:distinguishedName", {"distinguishedName", "entryDN"}},
    };
    return *words;
}

const char* classFilter(const std::string& recordType) {
    if (recordType == kODRecordTypeUsers) return "(|(objectClass=posixAccount)(objectClass=inetOrgPerson))";
    if (recordType == kODRecordTypeGroups)
        return "(|(objectClass=posixGroup)(objectClass=groupOfNames)(objectClass=apple-group))";
    if (recordType == kODRecordTypeComputers)
        return "(|(objectClass=device)(objectClass=computer)(objectClass=ipHost)(objectClass=apple-computer)"
               ")";
    return nullptr;
}

} // namespace

std::vector<std::string> ldapAttributes(const std::string& recordType, const std::string& attribute) {
    for (const AttributeWords& words : attributeWords())
        if (attribute == words.attribute && (!words.recordType || recordType == words.recordType))
            return words.ldap;
    const std::size_t prefix = sizeof nativePrefix - 1;
    if (attribute.compare(0, prefix, nativePrefix) == 0 && attribute.size() > prefix)
        return {attribute.substr(prefix)};
    return {};
}

std::string ldapFilter(const std::string& recordType, const std::string& attribute,
                       const std::string& value) {
    const char* classes = classFilter(recordType);
    const auto names = ldapAttributes(recordType, attribute);
    if (!classes || names.empty()) return {};
    const std::string escaped = escapedForFilter(value);
    std::string filter = std::string("(&") + classes + "(|";
    for (const std::string& name : names)
        filter.append("(").append(name).append("=").append(escaped).append(")");
    return filter + "))";
}

std::string escapedForFilter(const std::string& value) {
    std::string escaped;
    for (const char character : value) {
        if (character == '*' || character == '(' || character == ')' || character == '\\' ||
            character == '\0') {
            char code[4];
            // NOLINTNEXTLINE(cert-err33-c): three signs have room
            std::snprintf(code, sizeof code, "\\%02x", static_cast<unsigned char>(character));
            escaped += code;
        } else {
            escaped += character;
        }
    }
    return escaped;
}

std::vector<std::string> knownAttributes() {
    std::vector<std::string> known;
    for (const AttributeWords& words : attributeWords())
        known.emplace_back(words.attribute);
    return known;
}

} // namespace platform
