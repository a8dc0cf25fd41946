#pragma once

// What the nodes of the directory have in common on this system: each can search by itself, and finds records that
// are held in memory as a whole.

#include "platform/Directory.h"

#include <string>
#include <utility>
#include <vector>

namespace platform {

constexpr char localNodeName[] = "/Local/Default";

constexpr char attributeRealName[] = "dsAttrTypeStandard:RealName";
constexpr char attributeUniqueID[] = "dsAttrTypeStandard:UniqueID";
constexpr char attributePrimaryGroupID[] = "dsAttrTypeStandard:PrimaryGroupID";
constexpr char attributeUserShell[] = "dsAttrTypeStandard:UserShell";
constexpr char attributeMetaRecordName[] = "dsAttrTypeStandard:AppleMetaRecordName";
constexpr char attributeMetaNodeLocation[] = "dsAttrTypeStandard:AppleMetaNodeLocation";

// A node that searches by itself. Any thread.
class SearchableNode : public DirectoryNode {
public:
    // Appends the records that fit the terms, at most as many as these allow. False with the error if not all of
    // them could be had.
    virtual bool find(const DirectoryQueryTerms& terms, DirectoryRecords& records,
                      DirectoryError& error) const = 0;
};

// A record with its details as the directory's words have them.
class HeldRecord final : public DirectoryRecord {
public:
    HeldRecord(std::string type, std::string description, DirectoryDetails details)
        : type_(std::move(type)), description_(std::move(description)), details_(std::move(details)) {}

    std::string recordType() const override { return type_; }
    std::string description() const override { return description_; }

    bool recordDetailsForAttributes(const std::vector<std::string>& attributes, DirectoryDetails& details,
                                    DirectoryError&) const override {
        for (const std::string& attribute : attributes) {
            const auto found = details_.find(attribute);
            if (found != details_.end()) details[attribute] = found->second;
        }
        return true;
    }

private:
    std::string type_;
    std::string description_;
    DirectoryDetails details_;
};

} // namespace platform
