#pragma once

// One daemon from its start to its end, on a played clock, with all that it stands on in the lab's hands: the
// extension, the agent, the console and the network's addresses.

#include "lab/DaemonRun.h"
#include "lab/ExtensionStandIn.h"
#include "lab/PlayedClock.h"
#include "lab/PolicyAgent.h"
#include "lab/RootFolder.h"
#include "life/SharedConsole.h"

#include <cstdint>
#include <string>

namespace life {

// What a process has at one moment.
struct Holdings {
    long residentKilobytes = 0;
    int threads = 0;
    int descriptors = 0;
};

class Scene {
public:
    // Starts the daemon at this time, in microseconds, and logs somebody in. To be called in a network of the process's own, while no other
    // thread runs. Throws std::runtime_error.
    explicit Scene(std::int64_t time);

    lab::PlayedClock& clock() { return clock_; }
    lab::ExtensionStandIn& extension() { return extension_; }
    lab::PolicyAgent& agent() { return agent_; }

    bool daemonRuns() { return daemon_.running(); }
    std::string lastOutput() const { return root_.outputTail(); }

    // Each waits until it has been taken in, and throws std::runtime_error when that does not come.
    void logIn();
    void awaitLogon();
    void awaitBlockOnFailure(bool on);

    // Waits until the daemon has at most so many threads: what was begun has then ended. False when that does not come.
    bool waitForThreads(int most);

    void logOut() { console_.seat(0); }

    // Gives the loopback device one more address, or takes that away again.
    void changeAddresses();

    // Waits until the daemon has at most so many threads and descriptors, for a few seconds, and looks.
    Holdings holdings(int threads, int descriptors);

private:
    lab::RootFolder root_{""};
    lab::PlayedClock clock_;
    lab::ExtensionStandIn extension_{root_.path()};
    lab::PolicyAgent agent_;
    SharedConsole console_;
    lab::DaemonRun daemon_;
    long logons_ = 0;
    int users_ = 0;
    bool hasOneAddressMore_ = false;
};

} // namespace life
