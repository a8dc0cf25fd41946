#include "support/PlayedDirectory.h"

#include <algorithm>
#include <cctype>

using namespace platform;

namespace testsupport {
namespace {

std::string fullName(const std::string& attribute) {
    if (attribute.find(':') != std::string::npos) return attribute;
    const bool isStandard = std::isupper(static_cast<unsigned char>(attribute[0])) != 0;
    return (isStandard ? "dsAttrTypeStandard:" : "dsAttrTypeNative:") + attribute;
}

} // namespace

class PlayedDirectory::Record final : public DirectoryRecord {
public:
    Record(std::string type, const DirectoryDetails& details, std::string failure,
           std::shared_ptr<Questions> questions)
        : type_(std::move(type)), failure_(std::move(failure)), questions_(std::move(questions)) {
        for (const auto& [attribute, values] : details)
            details_[fullName(attribute)] = values;
    }

    std::string recordType() const override { return type_; }

    std::string description() const override {
        ++questions_->descriptions;
        return name();
    }

    const std::vector<std::string>& values(const std::string& attribute) const {
        static const std::vector<std::string> none;
        const auto found = details_.find(attribute);
        return found == details_.end() ? none : found->second;
    }

    bool recordDetailsForAttributes(const std::vector<std::string>& attributes, DirectoryDetails& details,
                                    DirectoryError& error) const override {
        std::string question = name() + ":";
        for (const std::string& attribute : attributes)
            question += " " + attribute;
        questions_->details.push_back(question);
        if (!failure_.empty()) {
            error.description = failure_;
            return false;
        }
        for (const std::string& attribute : attributes)
            if (details_.count(attribute)) details[attribute] = values(attribute);
        return true;
    }

private:
    std::string name() const {
        const auto& names = values(kODAttributeTypeRecordName);
        return "record " + (names.empty() ? "" : names.front());
    }

    std::string type_;
    std::string failure_;
    std::shared_ptr<Questions> questions_;
    DirectoryDetails details_;
};

class PlayedDirectory::Node final : public DirectoryNode {
public:
    explicit Node(std::string nodeName) : name(std::move(nodeName)) {}

    const std::string name;
};

class PlayedDirectory::Query final : public DirectoryQuery {
public:
    Query(PlayedDirectory& directory, DirectoryNodeRef node, DirectoryQueryTerms terms)
        : directory_(directory), node_(std::move(node)), terms_(std::move(terms)) {}

    void setDelegate(const DirectoryQueryDelegate& delegate) override { directory_.lastDelegate_ = delegate; }

    bool resultsAllowingPartial(bool partial, DirectoryRecords& records, DirectoryError& error) override {
        if (partial) {
            error.description = "the search asks for whole results";
            return false;
        }
        return directory_.run(static_cast<const Node*>(node_.get())->name, terms_, records, error);
    }

private:
    PlayedDirectory& directory_;
    DirectoryNodeRef node_;
    DirectoryQueryTerms terms_;
};

void PlayedDirectory::addNode(const std::string& name) {
    if (std::find(names_.begin(), names_.end(), name) == names_.end()) names_.push_back(name);
}

void PlayedDirectory::add(const std::string& node, const std::string& type, const DirectoryDetails& details) {
    addMute(node, type, details, "");
}

void PlayedDirectory::addMute(const std::string& node, const std::string& type,
                              const DirectoryDetails& details, const std::string& description) {
    addNode(node);
    records_.emplace_back(node, std::make_shared<Record>(type, details, description, questions_));
}

void PlayedDirectory::failQueries(const std::string& type, const std::string& description) {
    failing_[type] = description;
}

void PlayedDirectory::refuseQueries(const std::string& type, const std::string& description) {
    refused_[type] = description;
}

DirectoryRecords PlayedDirectory::records() const {
    DirectoryRecords all;
    for (const auto& [node, record] : records_)
        all.push_back(record);
    return all;
}

bool PlayedDirectory::nodeNames(std::vector<std::string>& names, DirectoryError& error) {
    if (hasNames_) names = names_;
    if (!hasNames_) error.description = "no names";
    return hasNames_;
}

DirectoryNodeRef PlayedDirectory::nodeWithType(DirectoryNodeType type, DirectoryError& error) {
    if (hasSearchNode_ && type == kODNodeTypeAuthentication) return std::make_shared<Node>(searchNode);
    error.description = "no such type";
    return nullptr;
}

DirectoryNodeRef PlayedDirectory::nodeWithName(const std::string& name, DirectoryError& error) {
    if (!closed_.count(name) && std::find(names_.begin(), names_.end(), name) != names_.end())
        return std::make_shared<Node>(name);
    error.description = "no node " + name;
    return nullptr;
}

std::unique_ptr<DirectoryQuery> PlayedDirectory::queryWithNode(const DirectoryNodeRef& node,
                                                               const DirectoryQueryTerms& terms,
                                                               DirectoryError& error) {
    const bool isRefused =
        node && static_cast<const Node*>(node.get())->name != searchNode && refused_.count(terms.recordType);
    if (node && !isRefused && terms.matchType == kODMatchEqualTo)
        return std::make_unique<Query>(*this, node, terms);
    error.description = isRefused ? refused_[terms.recordType] : "no node to query";
    return nullptr;
}

bool PlayedDirectory::run(const std::string& node, const DirectoryQueryTerms& terms,
                          DirectoryRecords& records, DirectoryError& error) {
    queries_.push_back(node + " " + terms.recordType + " " + terms.attribute + "=" + terms.queryValue + " " +
                       terms.returnAttributes + " " + std::to_string(terms.maximumResults));
    if (node != searchNode && failing_.count(terms.recordType)) {
        error.description = failing_[terms.recordType];
        return false;
    }
    for (const auto& [place, record] : records_) {
        if ((node != searchNode && place != node) || record->recordType() != terms.recordType) continue;
        const auto& values = record->values(terms.attribute);
        if (std::find(values.begin(), values.end(), terms.queryValue) == values.end()) continue;
        records.push_back(record);
        if (static_cast<int>(records.size()) == terms.maximumResults) break;
    }
    return true;
}

} // namespace testsupport
