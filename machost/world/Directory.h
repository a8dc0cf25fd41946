#pragma once

// The directory that the program sees: a played one, or this machine's accounts and the LDAP server that its LDAP
// settings name. One thread at a time for a node and what came from it.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace machost::world {

using DirectoryDetails = std::map<std::string, std::vector<std::string>>;

class DirectoryRecord {
public:
    virtual ~DirectoryRecord() = default;
    virtual const std::string& type() const = 0;
    virtual const std::string& description() const = 0;

    // Those of the attributes that the record has. False with the problem when they cannot be had.
    virtual bool details(const std::vector<std::string>& attributes, DirectoryDetails& details,
                         std::string& problem) const = 0;
};
using DirectoryRecords = std::vector<std::shared_ptr<const DirectoryRecord>>;

struct DirectoryTerms {
    std::string recordType;
    std::string attribute;
    std::uint32_t matchType = 0;
    std::string value;
    std::string returned;
    std::int64_t limit = 0; // 0 for none
};
constexpr std::uint32_t directoryMatchEqual = 0x2001;

class DirectoryQuery {
public:
    virtual ~DirectoryQuery() = default;

    // Runs to the end. False with the problem when that failed; with `partial` what was found may do.
    virtual bool results(bool partial, DirectoryRecords& records, std::string& problem) = 0;
};

class DirectoryNode {
public:
    virtual ~DirectoryNode() = default;

    // Null with the problem for terms that cannot be asked.
    virtual std::unique_ptr<DirectoryQuery> query(const DirectoryTerms& terms, std::string& problem) = 0;
};
using DirectoryNodeRef = std::shared_ptr<DirectoryNode>;

// False, or null, with the problem.
bool directoryNodeNames(std::vector<std::string>& names, std::string& problem);
DirectoryNodeRef directoryNodeOfType(std::uint32_t type, std::string& problem);
DirectoryNodeRef directoryNodeNamed(const std::string& name, std::string& problem);

} // namespace machost::world
