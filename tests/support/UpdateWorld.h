#pragma once

// The world of a whole update: the agent pushes an address over its real link, packages come from real servers
// through the real session, the user is played, and a script stands for the update program. One for each
// process.

#include "support/AgentLinkWorld.h"
#include "support/ManualClock.h"
#include "support/PlayedDialogs.h"

#include <string>

namespace testsupport {

class UpdateWorld {
public:
    // Connects the link and waits until its reader runs. From then on time stands still.
    UpdateWorld();

    UpdateWorld(const UpdateWorld&) = delete;
    UpdateWorld& operator=(const UpdateWorld&) = delete;

    // Has the agent push a configuration frame with this update address.
    void push(const std::string& url);

    // Lets the 300 seconds pass that an update waits for a young link.
    void settle();

    // Seconds from now until six in the evening, local time.
    int secondsUntilSix();

    // Blocks until the update has ended; whether it did.
    bool hasEnded();

    // The path of a package under the update directory.
    std::string package(const std::string& name) const;

    // The ready mark in the configuration file.
    std::string readyMark() const;

    // How often the update program ran and its sibling of the program's end, and the ready mark that the last
    // of them saw.
    int updateRuns() const;
    int updateCopyRuns() const;
    std::string markSeen() const;

    AgentLinkWorld link;
    ManualClock& clock = ManualClock::installed();
    PlayedDialogs& dialogs = PlayedDialogs::install();

private:
    void addHelper(const char* path, const std::string& name) const;
    int runsOf(const std::string& name) const;
};

} // namespace testsupport
