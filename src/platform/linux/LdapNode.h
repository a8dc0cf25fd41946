#pragma once

// The node of an LDAP directory, asked without a name and password of its own over a connection for each search.

#include "platform/linux/DirectoryNodes.h"

#include <optional>
#include <string>
#include <utility>

namespace platform {

// Where the directory is, and below which name its records are.
struct LdapSettings {
    std::string uri;
    std::string base;
    int connectSeconds = 10;    // how long a search waits for a server to let it connect, and again for TLS
    int answerSeconds = 30;     // and for its answer
    long answerBytes = 1 << 28; // that the server may say in all: the library keeps it in memory
};

// The URI and BASE lines of a settings file in the form of ldap.conf; nothing without both of them.
std::optional<LdapSettings> readLdapSettings(const std::string& path);

class LdapNode final : public SearchableNode {
public:
    explicit LdapNode(LdapSettings settings) : settings_(std::move(settings)) {}

    // "/LDAPv3/" and the host of the first URI, with its port if that is there.
    std::string name() const;

    // Asks the first server of the URI line that lets it connect. Blocks for as long as the settings say, for each server
    // that does not and for the answer. A message of more than 64 MB ends the search, as does a longer
    // answer than the settings allow.
    bool find(const DirectoryQueryTerms& terms, DirectoryRecords& records,
              DirectoryError& error) const override;

private:
    LdapSettings settings_;
};

} // namespace platform
