#pragma once

// The daemon with all that it stands on: a scratch root, a clock, and the stand-ins at both its ends.

#include "lab/DaemonRun.h"
#include "lab/EndingSignals.h"
#include "lab/ExtensionStandIn.h"
#include "lab/PlayedClock.h"
#include "lab/PolicyAgent.h"
#include "lab/RootFolder.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace lab {

struct Stage {
    // The root as for RootFolder; the time in microseconds since the epoch, at which the clock stands until it is
    // played, or nothing for the machine's own clock; the program as for DaemonRun. Throws InputError.
    Stage(const std::string& rootPath, Policy policy, std::optional<std::int64_t> time,
          const std::string& program = {});

    // Starts everything, or all but the agent, which then does not even listen. To be called before any other
    // thread is started. False when the daemon does not come to its control sockets.
    bool raise(bool withAgent = true);

    // In the order of making: the daemon ends before the sockets close.
    const std::unique_ptr<EndingSignals> signals; // where the root is temporary
    const RootFolder root;
    PlayedClock clock; // at rest when the machine's own is used
    ExtensionStandIn extension;
    PolicyAgent agent;
    DaemonRun daemon;
    std::unique_ptr<EndingWatch> watch; // once all is raised, where there are signals
};

} // namespace lab
