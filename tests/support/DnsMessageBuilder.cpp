#include "support/DnsMessageBuilder.h"

#include "platform/ByteOrder.h"

#include <sstream>

namespace testsupport {
namespace {

std::string big16(int value) {
    std::string bytes(2, '\0');
    platform::writeBig16(&bytes[0], static_cast<std::uint16_t>(value));
    return bytes;
}

} // namespace

std::string dnsName(const std::string& dotted) {
    std::string bytes;
    std::istringstream labels(dotted);
    for (std::string label; std::getline(labels, label, '.');)
        bytes += static_cast<char>(label.size()) + label;
    return bytes + '\0';
}

std::string dnsPointer(int offset) { return big16(0xc000 | offset); }

DnsMessageBuilder& DnsMessageBuilder::question(const std::string& dotted, int type) {
    return rawQuestion(dnsName(dotted), type);
}

DnsMessageBuilder& DnsMessageBuilder::rawQuestion(const std::string& nameBytes, int type) {
    ++questions_;
    return raw(nameBytes + big16(type) + big16(1));
}

DnsMessageBuilder& DnsMessageBuilder::answer() {
    ++answers_;
    return raw(dnsPointer(12) + big16(dnsTypeA) + big16(1) + std::string("\0\0\1\54\0\4\300\0\2\12", 10));
}

DnsMessageBuilder& DnsMessageBuilder::raw(const std::string& bytes) {
    behindHeader_ += bytes;
    return *this;
}

DnsMessageBuilder& DnsMessageBuilder::questionCount(int count) {
    questions_ = count;
    return *this;
}

DnsMessageBuilder& DnsMessageBuilder::answerCount(int count) {
    answers_ = count;
    return *this;
}

std::string DnsMessageBuilder::bytes() const {
    return "\x12\x34" + big16(0x8180) + big16(questions_) + big16(answers_) + big16(0) + big16(0) +
           behindHeader_;
}

PacketBuilder DnsMessageBuilder::ipv4() const {
    return PacketBuilder::ipv4().udp().from("10.0.0.53", 53).to("10.0.0.2", 50000).payload(bytes());
}

PacketBuilder DnsMessageBuilder::ipv6() const {
    return PacketBuilder::ipv6().udp().from("2001:db8::53", 53).to("2001:db8::2", 50000).payload(bytes());
}

} // namespace testsupport
