#pragma once

// A directory that the test plays: nodes with records, of which a query finds those whose attribute has the value,
// and failures on demand. The search node finds the records of all nodes. Used by one thread.

#include "platform/Directory.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

class PlayedDirectory final : public platform::Directory {
public:
    // Puts this service in force for the rest of the process; it must live as long.
    void install() { platform::directoryService.install(*this); }

    // A node at the end of the list.
    void addNode(const std::string& name);

    // A record on that node, which is listed first if need be. `details` may leave out the prefixes
    // "dsAttrTypeStandard:" for names that begin with a capital letter and "dsAttrTypeNative:" for others.
    void add(const std::string& node, const std::string& type, const platform::DirectoryDetails& details);

    // The same, but the record does not give its details: that fails with the description.
    void addMute(const std::string& node, const std::string& type, const platform::DirectoryDetails& details,
                 const std::string& description);

    // From now on queries for that type, on other nodes than the search node, fail when they run.
    void failQueries(const std::string& type, const std::string& description);

    // From now on such queries cannot even be made.
    void refuseQueries(const std::string& type, const std::string& description);

    // From now on there is no search node, no list of names, no node of that name.
    void takeAwaySearchNode() { hasSearchNode_ = false; }
    void failNodeNames() { hasNames_ = false; }
    void closeNode(const std::string& name) { closed_.insert(name); }

    // The queries that ran: node, type, attribute and value, what is returned, and the limit.
    const std::vector<std::string>& queries() const { return queries_; }

    // What was asked of records, each question with its attributes in order.
    const std::vector<std::string>& detailQuestions() const { return questions_->details; }

    // How often a record was asked for its description.
    int descriptionsAsked() const { return questions_->descriptions; }

    // All records in the order in which they were added.
    platform::DirectoryRecords records() const;

    // The delegate that was set last.
    const platform::DirectoryQueryDelegate& lastDelegate() const { return lastDelegate_; }

    bool nodeNames(std::vector<std::string>& names, platform::DirectoryError& error) override;
    platform::DirectoryNodeRef nodeWithType(platform::DirectoryNodeType type,
                                            platform::DirectoryError& error) override;
    platform::DirectoryNodeRef nodeWithName(const std::string& name,
                                            platform::DirectoryError& error) override;
    std::unique_ptr<platform::DirectoryQuery> queryWithNode(const platform::DirectoryNodeRef& node,
                                                            const platform::DirectoryQueryTerms& terms,
                                                            platform::DirectoryError& error) override;

private:
    // What was asked of the records, which may outlive the directory.
    struct Questions {
        std::vector<std::string> details;
        int descriptions = 0;
    };

    class Record;
    class Node;
    class Query;

    bool run(const std::string& node, const platform::DirectoryQueryTerms& terms,
             platform::DirectoryRecords& records, platform::DirectoryError& error);

    std::vector<std::string> names_;
    std::vector<std::pair<std::string, std::shared_ptr<const Record>>> records_; // with their node
    std::map<std::string, std::string> failing_;
    std::map<std::string, std::string> refused_;
    std::set<std::string> closed_;
    bool hasSearchNode_ = true;
    bool hasNames_ = true;
    std::vector<std::string> queries_;
    std::shared_ptr<Questions> questions_ = std::make_shared<Questions>();
    platform::DirectoryQueryDelegate lastDelegate_;
};

// The name of the node that all others are searched through.
constexpr char searchNode[] = "/Search";

} // namespace testsupport
