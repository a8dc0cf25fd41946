#pragma once

// An LDAP server as a node of the directory, and what this machine's nodes have in common.

#include "machost/world/Directory.h"

#include <optional>

namespace machost::world::machine {

// A node that finds all records at once.
class SearchedNode : public DirectoryNode, public std::enable_shared_from_this<SearchedNode> {
public:
    // Appends what fits. False with the problem when that is not all.
    virtual bool find(const DirectoryTerms& terms, DirectoryRecords& records, std::string& problem) const = 0;

    std::unique_ptr<DirectoryQuery> query(const DirectoryTerms& terms, std::string& problem) override;
};

class HeldRecord final : public DirectoryRecord {
public:
    HeldRecord(std::string type, std::string description, DirectoryDetails details)
        : type_(std::move(type)), description_(std::move(description)), details_(std::move(details)) {}

    const std::string& type() const override { return type_; }
    const std::string& description() const override { return description_; }
    bool details(const std::vector<std::string>& attributes, DirectoryDetails& details,
                 std::string& problem) const override;

private:
    const std::string type_, description_;
    const DirectoryDetails details_;
};

struct LdapSettings {
    std::string uri;
    std::string base;
};

// The URI and BASE of a file in the form of ldap.conf; nothing without both.
std::optional<LdapSettings> readLdapSettings(const std::string& path);

// "/LDAPv3/" and the first server's host, with its port if that is there.
std::string ldapNodeName(const LdapSettings& settings);

DirectoryNodeRef ldapNode(const LdapSettings& settings);

} // namespace machost::world::machine
