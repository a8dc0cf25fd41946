// A stream of packet records through both callbacks, with the real query engine and a stand-in agent behind
// them, in a network of its own.
//
// The input is a list of steps: a byte that says what comes, then what it needs. 0: time passes (one byte, in
// seconds). 1: an inbound packet, 2: an outbound one (a run of bytes). Anything else: the last packet comes
// again, out or in by its lowest bit.

#include "config/Configuration.h"
#include "fuzz/FuzzInput.h"
#include "gp/GPLog.h"
#include "lab/OfflineNames.h"
#include "lab/PlayedClock.h"
#include "lab/PolicyAgent.h"
#include "lab/PrivateNetwork.h"
#include "lab/RootFolder.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/HostPaths.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr char rules[] = "block *b* http://localhost:6543/\n"
                         "garble *g*\n"
                         "retry 1 *r*\n";

// The world that all inputs share: the daemon's state lives as long as the process.
class World {
public:
    World() : root_(""), agent_(lab::Policy::parse(rules, "rules"), true) {
        std::signal(SIGPIPE, SIG_IGN);
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        platform::HostPaths::setRoot(root_.path().c_str());
        platform::clockService.install(clock_);
        platform::nameLookupService.install(lab::offlineNames());
        clock_.set(now_);
        lab::enterPrivateNetwork();
        agent_.listen();
        agent_.start();
        Configuration::loadConfig();
        Configuration::addServerName("localhost", false, true);
    }

    void passSeconds(int seconds) {
        now_ += std::int64_t{seconds} * 1000000;
        clock_.set(now_);
    }

    void present(char* packet, bool inbound) {
        sysctl_result result{};
        const int verdict =
            inbound ? tcpInBoundCallback(packet, &result) : tcpOutBoundCallback(packet, &result);
        if (verdict != verdictDrop && verdict != verdictPass && verdict != verdictRedirect &&
            verdict != verdictHold)
            std::abort();
        if (verdict == verdictRedirect && result.redirectUrl[0] == '\0') std::abort();
    }

private:
    lab::RootFolder root_;
    lab::PlayedClock clock_;
    lab::PolicyAgent agent_;
    std::int64_t now_ = 1794635810LL * 1000000;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World& world = *new World;
    static std::vector<char>& buffer = *new std::vector<char>(TCPPacket::receiveBufferSize);
    char* packet = buffer.data() + TCPPacket::recordHeaderSize;

    fuzzing::FuzzInput input(data, size);
    for (int steps = 0; !input.empty() && steps < 64; ++steps) {
        const std::uint8_t step = input.byte();
        if (step == 0) {
            world.passSeconds(input.byte());
            continue;
        }
        if (step <= 2) {
            const std::string bytes = input.run();
            std::memcpy(packet, bytes.data(),
                        std::min<std::size_t>(bytes.size(), 65535 - TCPPacket::recordHeaderSize));
        }
        world.present(packet, (step & 1) != 0);
    }
    // The next input finds no record of this one alive.
    world.passSeconds(200);
    return 0;
}
