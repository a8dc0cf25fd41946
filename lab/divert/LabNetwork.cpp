#include "lab/divert/LabNetwork.h"

#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <fstream>

namespace lab {
namespace {

constexpr char clientLinks[] = "link set lo up\n"
                               "link add c0 type veth peer name r0 netns router\n"
                               "addr add 10.53.1.2/24 dev c0\n"
                               "addr add fd53:1::2/64 dev c0 nodad\n"
                               "link set c0 up\n"
                               "route add default via 10.53.1.1\n"
                               "route add default via fd53:1::1\n";

constexpr char routerLinks[] = "link add r1 type veth peer name s0 netns servers\n"
                               "addr add 10.53.1.1/24 dev r0\n"
                               "addr add fd53:1::1/64 dev r0 nodad\n"
                               "addr add 10.53.2.1/24 dev r1\n"
                               "addr add fd53:2::1/64 dev r1 nodad\n"
                               "link set lo up\n"
                               "link set r0 up\n"
                               "link set r1 up\n";

constexpr char serversLinks[] = "addr add 10.53.2.2/24 dev s0\n"
                                "addr add fd53:2::2/64 dev s0 nodad\n"
                                "link set lo up\n"
                                "link set s0 up\n"
                                "route add default via 10.53.2.1\n"
                                "route add default via fd53:2::1\n";

constexpr char forwarding[] = "echo 1 > /proc/sys/net/ipv4/ip_forward && "
                              "echo 1 > /proc/sys/net/ipv6/conf/all/forwarding";

// The lab speaks to the client in the servers' name over the loopback interface.
void acceptForeignSources() {
    for (const char* interface : {"all", "default", "lo", "c0"})
        std::ofstream(fmt::format("/proc/sys/net/ipv4/conf/{}/rp_filter", interface)) << 0;
}

void addRule(const char* chain, const char* protocol, const std::vector<std::string>& target) {
    const bool inbound = std::string(chain) == "INPUT";
    for (const char* program : {"iptables", "ip6tables"}) {
        std::vector<std::string> words = {
            program, "-A",   chain, "!",      inbound ? "-i" : "-o",  "lo", "-p", protocol,
            "-m",    "mark", "!",   "--mark", std::to_string(ownMark)};
        words.insert(words.end(), target.begin(), target.end());
        runTool(words);
    }
}

void addRules(const char* chain, const std::vector<std::string>& target) {
    for (const char* protocol : {"tcp", "udp"})
        addRule(chain, protocol, target);
}

} // namespace

void makeNetworks() {
    runTool({"ip", "netns", "add", "router"});
    runTool({"ip", "netns", "add", "servers"});
    runTool({"ip", "-batch", "-"}, clientLinks);
    runTool({"ip", "-n", "router", "-batch", "-"}, routerLinks);
    runTool({"ip", "-n", "servers", "-batch", "-"}, serversLinks);
    runTool({"ip", "netns", "exec", "router", "sh", "-c", forwarding});
    acceptForeignSources();
}

std::vector<std::string> inServersNetwork(std::vector<std::string> words) {
    words.insert(words.begin(), {"ip", "netns", "exec", "servers"});
    return words;
}

void recordPackets() {
    const std::vector<std::string> record = {"-j", "NFLOG", "--nflog-group", std::to_string(recordGroup)};
    addRules("INPUT", record);
    addRules("OUTPUT", record);
}

void divertPackets(bool recorded) {
    if (recorded) recordPackets();
    addRules("INPUT", {"-j", "NFQUEUE", "--queue-num", std::to_string(inboundQueue)});
    addRules("OUTPUT", {"-j", "NFQUEUE", "--queue-num", std::to_string(outboundQueue)});
}

} // namespace lab
