#pragma once

// A real directory server (slapd) on a free port of 127.0.0.1, with its configuration and its database in a folder
// of its own. It has the schemas for accounts, persons and devices and lets everybody read.

#include "support/TemporaryFolder.h"

#include <string>

namespace testsupport {

class SlapdServer {
public:
    // Serves these entries, in LDIF, below `base()`, whose own entry is there already. `settings` go into the
    // configuration as they are. Ready when the constructor returns.
    explicit SlapdServer(const std::string& entries, const std::string& settings = "");
    ~SlapdServer();

    SlapdServer(const SlapdServer&) = delete;
    SlapdServer& operator=(const SlapdServer&) = delete;

    // Ends the server; its port refuses connections then.
    void stop();

    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
    std::string nodeName() const { return "/LDAPv3/127.0.0.1:" + std::to_string(port_); }
    static std::string base() { return "dc=example,dc=com"; }

    // A settings file for clients that leads to this server.
    std::string clientSettings() const { return "URI " + uri() + "\nBASE " + base() + "\n"; }

private:
    TemporaryFolder folder_;
    int port_ = 0;
    int process_ = -1;
};

// The entries, in LDIF, of an account with its mail address, a group with its members, and a computer.
std::string accountEntry(const std::string& name, int id);
std::string groupEntry(const std::string& name, int id, const std::string& memberLines);
std::string computerEntry(const std::string& name);

} // namespace testsupport
