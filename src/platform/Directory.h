#pragma once

// The machine's directory service with the words of OpenDirectory: its nodes, queries on a node, and the records
// that they find. All of it runs on the calling thread and blocks while the directory is asked; one thread at a
// time for a query.

#include "platform/Service.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace platform {

using DirectoryNodeType = std::uint32_t;
constexpr DirectoryNodeType kODNodeTypeAuthentication = 0x2201; // the search node, which leads to all others

using DirectoryMatchType = std::uint32_t;
constexpr DirectoryMatchType kODMatchEqualTo = 0x2001;

constexpr char kODRecordTypeUsers[] = "dsRecTypeStandard:Users";
constexpr char kODRecordTypeGroups[] = "dsRecTypeStandard:Groups";
constexpr char kODRecordTypeComputers[] = "dsRecTypeStandard:Computers";

constexpr char kODAttributeTypeRecordName[] = "dsAttrTypeStandard:RecordName";
constexpr char kODAttributeTypeGroupMembership[] = "dsAttrTypeStandard:GroupMembership";
constexpr char kODAttributeTypeNFSHomeDirectory[] = "dsAttrTypeStandard:NFSHomeDirectory";

// What a query may ask for in place of an attribute's name.
constexpr char kODAttributeTypeAllAttributes[] = "dsAttributesAll";
constexpr char kODAttributeTypeStandardOnly[] = "dsAttributesStandardAll";

struct DirectoryError {
    std::string description;
};

// The values of attributes, by the attribute's name.
using DirectoryDetails = std::map<std::string, std::vector<std::string>>;

class DirectoryRecord {
public:
    virtual ~DirectoryRecord() = default;

    virtual std::string recordType() const = 0;

    // The record in one line, for the log.
    virtual std::string description() const = 0;

    // Puts those of the attributes that the record has into `details`. False with the error, and nothing in
    // `details`, if they cannot be had.
    virtual bool recordDetailsForAttributes(const std::vector<std::string>& attributes,
                                            DirectoryDetails& details, DirectoryError& error) const = 0;
};

using DirectoryRecords = std::vector<std::shared_ptr<const DirectoryRecord>>;

// A part of the directory that can be searched.
class DirectoryNode {
public:
    virtual ~DirectoryNode() = default;
};

using DirectoryNodeRef = std::shared_ptr<DirectoryNode>;

class DirectoryQuery;

// Who is told what a query finds once it is scheduled on a run loop; `object` is handed back. No records and no
// error mean the end.
struct DirectoryQueryDelegate {
    void (*foundResults)(void* object, DirectoryQuery* query, const DirectoryRecords* records,
                         const DirectoryError* error) = nullptr;
    void* object = nullptr;
};

class DirectoryQuery {
public:
    virtual ~DirectoryQuery() = default;

    // The delegate's object must live as long as the query.
    virtual void setDelegate(const DirectoryQueryDelegate& delegate) = 0;

    // Runs the query to its end on this thread and answers all records. False with the error, and no records, if
    // that failed. With `partial` a backend may answer with what it has so far, also in place of a failure.
    virtual bool resultsAllowingPartial(bool partial, DirectoryRecords& records, DirectoryError& error) = 0;
};

// What a query looks for.
struct DirectoryQueryTerms {
    std::string recordType;
    std::string attribute;
    DirectoryMatchType matchType = kODMatchEqualTo;
    std::string queryValue;
    std::string returnAttributes = kODAttributeTypeAllAttributes;
    int maximumResults = 0; // 0: no limit
};

// The default session with the directory.
class Directory {
public:
    // The names of all nodes, in the directory's order. False with the error if they cannot be had.
    virtual bool nodeNames(std::vector<std::string>& names, DirectoryError& error) = 0;

    // A node; null with the error if there is no such node.
    virtual DirectoryNodeRef nodeWithType(DirectoryNodeType type, DirectoryError& error) = 0;
    virtual DirectoryNodeRef nodeWithName(const std::string& name, DirectoryError& error) = 0;

    // A query that does not run yet; null with the error if it cannot be made, as on a null node.
    virtual std::unique_ptr<DirectoryQuery>
    queryWithNode(const DirectoryNodeRef& node, const DirectoryQueryTerms& terms, DirectoryError& error) = 0;

protected:
    ~Directory() = default;
};

extern Service<Directory> directoryService;

inline Directory& directory() { return directoryService.get(); }

} // namespace platform
