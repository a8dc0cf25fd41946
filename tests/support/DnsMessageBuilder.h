#pragma once

// Builds DNS messages, well-formed unless told otherwise, and the packets that carry them.

#include "support/PacketBuilder.h"

#include <string>

namespace testsupport {

constexpr int dnsTypeA = 1;
constexpr int dnsTypeAAAA = 28;

// A name as it is on the wire: length bytes, labels, and the zero byte.
std::string dnsName(const std::string& dotted);

// The two bytes of a compression pointer.
std::string dnsPointer(int offset);

class DnsMessageBuilder {
public:
    // Adds a question of class IN. The counts follow, unless they are set.
    DnsMessageBuilder& question(const std::string& dotted, int type = dnsTypeA);

    // Adds a question whose name is these bytes.
    DnsMessageBuilder& rawQuestion(const std::string& nameBytes, int type = dnsTypeA);

    // Adds an A answer for the first question.
    DnsMessageBuilder& answer();

    // Any bytes behind what is there.
    DnsMessageBuilder& raw(const std::string& bytes);

    DnsMessageBuilder& questionCount(int count);
    DnsMessageBuilder& answerCount(int count);

    std::string bytes() const;

    // A UDP datagram from port 53 of 10.0.0.53, or of 2001:db8::53.
    PacketBuilder ipv4() const;
    PacketBuilder ipv6() const;

private:
    int questions_ = 0;
    int answers_ = 0;
    std::string behindHeader_;
};

} // namespace testsupport
