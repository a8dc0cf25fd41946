#pragma once

// The networks of a live run: this process's own is the client's, a router and the servers have one each, with veth
// pairs between them. They are named as `ip netns` names them, inside the lab's own /run.

#include <string>
#include <vector>

namespace lab {

struct LabAddresses {
    static constexpr const char* serversIpv4 = "10.53.2.2";
    static constexpr const char* serversIpv6 = "fd53:2::2";
    static constexpr const char* clientIpv4 = "10.53.1.2";
    static constexpr const char* clientIpv6 = "fd53:1::2";
};

// Numbers by which the kernel and the lab find each other.
constexpr unsigned inboundQueue = 0;
constexpr unsigned outboundQueue = 1;
constexpr unsigned recordGroup = 5;
constexpr unsigned ownMark = 0xfe; // of packets that the lab itself has made

// Makes the networks. To be called in a network namespace with nothing in it. Throws UnavailableError.
void makeNetworks();

// The words in front of a command that is to run in the servers' network.
std::vector<std::string> inServersNetwork(std::vector<std::string> words);

// From now on all TCP and UDP packets of the client, but those of its loopback interface, go to the queues; with
// `recorded` also to the group of that number, as they come. Throws UnavailableError.
void divertPackets(bool recorded);

// The same packets only to the group. Throws UnavailableError.
void recordPackets();

} // namespace lab
