#pragma once

// Base of the tests around the DNS tables: settings, a name service and a hosts file of the test's own.

#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <string>
#include <vector>

namespace testsupport {

class DnsWorld : public SettingsWorld {
protected:
    // There is an empty hosts file.
    DnsWorld();

    // The hosts file and the record of hosts that were added, as they stand.
    static std::string hosts();
    static std::string record();

    static void givenHosts(const std::string& content);
    static void givenRecord(const std::string& content);

    // A hosts file of this content, an empty record, and nothing left of a change that was cut off.
    static void givenHostsAtRest(const std::string& content);

    // Makes both tables, with the forced-safe-search host at 216.239.38.99.
    void givenTables();

    // Has `redirect` resolve to the address.
    void givenName(const std::string& redirect, const std::string& address);

    // Puts rows of the form "HOST,REDIRECT HOST" in force, as a configuration document holds them.
    static void setRemaps(const std::vector<std::string>& rows);

    // The rows of the present table, in the table's order; empty for no table or an empty one.
    static std::vector<std::string> remaps();

    // From now on the plain lines are logged; `logged` answers what has been logged since.
    void beVerbose();
    std::vector<std::string> logged() const;

    // What a reply with an A question for the host is redirected to, "HOST ADDRESS"; "(none)" if it is not.
    static std::string redirectOf(const std::string& host);

    // The text that the documents of a configuration and of the API hold for these rows.
    static std::string hostElements(const std::vector<std::string>& rows);

    PlayedNames& names; // never destroyed, since a check-in thread may use it after the test

private:
    std::size_t loggedBefore_ = 0;
};

} // namespace testsupport
