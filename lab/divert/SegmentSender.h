#pragma once

// Puts IP packets of the lab's own into the network, whoever they say they come from.

#include "lab/Capture.h"

#include <vector>

namespace lab {

class SegmentSender {
public:
    // Opens its sockets in the network namespace of the caller. Throws UnavailableError.
    SegmentSender();
    ~SegmentSender();

    SegmentSender(const SegmentSender&) = delete;
    SegmentSender& operator=(const SegmentSender&) = delete;

    // Sends one IP packet to its destination; what is for this computer goes over the loopback interface. The packet
    // carries the lab's mark, so that it is not diverted. Any thread.
    void send(const Endpoint& destination, const std::vector<char>& packet) const;

private:
    int sockets_[2] = {-1, -1}; // IPv4, IPv6
};

} // namespace lab
