#pragma once

// Base of the tests around the directory search: "alice" is the cached user, "mac01.local" the host, and the
// directory is the test's own. One for each process.

#include "identity/DSInfo.h"
#include "support/PlayedDirectory.h"
#include "support/PlayedHostName.h"
#include "support/SettingsWorld.h"

#include <string>
#include <vector>

namespace testsupport {

class DirectoryWorld : public SettingsWorld {
protected:
    DirectoryWorld();

    // Sets log level 1.
    static void logEverything();

    // The user's record on that node, with its record name and location beside these details, and a computer's.
    void givenUser(const std::string& node, platform::DirectoryDetails details = {});
    void givenComputer(const std::string& node, platform::DirectoryDetails details = {});

    // Runs the whole search. How it ended, one entry for each call back: "success", or "failure: " with its text;
    // the info of the last success is copied to `found`.
    std::vector<std::string> search();

    using Ends = std::vector<std::string>;
    using Texts = std::vector<std::string>;

    // A text, "(none)" for an absent one.
    static std::string shown(const DirectoryText& text) { return text.value_or("(none)"); }

    PlayedDirectory& directory; // both live as long as the process
    PlayedHostName& host;
    DSInfo found;
};

// Copies all that a search fills in.
void copyInfo(const DSInfo& from, DSInfo& to);

} // namespace testsupport
