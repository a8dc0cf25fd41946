// The directory of this system: the local accounts, and an LDAP directory if the machine's LDAP settings name one.

#include "platform/Directory.h"

#include "platform/HostPaths.h"
#include "platform/linux/LdapNode.h"
#include "platform/linux/LocalAccounts.h"

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace platform {
namespace {

constexpr char searchNodeName[] = "/Search";

std::shared_ptr<LdapNode> networkNode() {
    const auto settings = readLdapSettings(HostPaths::ldapClientFile());
    return settings ? std::make_shared<LdapNode>(*settings) : nullptr;
}

// All nodes together, the local one first. A network node that does not answer is passed over.
class SearchNode final : public SearchableNode {
public:
    bool find(const DirectoryQueryTerms& terms, DirectoryRecords& records, DirectoryError&) const override {
        DirectoryError ignored;
        LocalAccounts().find(terms, records, ignored);
        if (const auto network = networkNode()) network->find(terms, records, ignored);
        return true;
    }
};

class NodeQuery final : public DirectoryQuery {
public:
    NodeQuery(DirectoryNodeRef node, DirectoryQueryTerms terms)
        : node_(std::move(node)), terms_(std::move(terms)) {}

    // There is no run loop here on which a query could be scheduled.
    void setDelegate(const DirectoryQueryDelegate&) override {}

    bool resultsAllowingPartial(bool partial, DirectoryRecords& records, DirectoryError& error) override {
        DirectoryRecords found;
        const bool isComplete = static_cast<const SearchableNode*>(node_.get())->find(terms_, found, error);
        if (!isComplete && (!partial || found.empty())) return false;
        const auto limit = static_cast<std::size_t>(terms_.maximumResults);
        if (limit > 0 && found.size() > limit) found.resize(limit);
        records = std::move(found);
        return true;
    }

private:
    DirectoryNodeRef node_;
    DirectoryQueryTerms terms_;
};

class SystemDirectory final : public Directory {
public:
    bool nodeNames(std::vector<std::string>& names, DirectoryError&) override {
        names = {searchNodeName, localNodeName};
        if (const auto network = networkNode()) names.push_back(network->name());
        return true;
    }

    DirectoryNodeRef nodeWithType(DirectoryNodeType type, DirectoryError& error) override {
        if (type == kODNodeTypeAuthentication) return std::make_shared<SearchNode>();
        error.description = "no node of this type";
        return nullptr;
    }

    DirectoryNodeRef nodeWithName(const std::string& name, DirectoryError& error) override {
        if (name == searchNodeName) return std::make_shared<SearchNode>();
        if (name == localNodeName) return std::make_shared<LocalAccounts>();
        const auto network = networkNode();
        if (network && name == network->name()) return network;
        error.description = "no node " + name;
        return nullptr;
    }

    std::unique_ptr<DirectoryQuery> queryWithNode(const DirectoryNodeRef& node,
                                                  const DirectoryQueryTerms& terms,
                                                  DirectoryError& error) override {
        if (node && terms.matchType == kODMatchEqualTo) return std::make_unique<NodeQuery>(node, terms);
        error.description = node ? "no search of this kind" : "no node to query";
        return nullptr;
    }
};

SystemDirectory systemDirectory;

} // namespace

Service<Directory> directoryService{&systemDirectory};

} // namespace platform
