#include "support/PacketBuilder.h"

#include "packet/TCPPacket.h"
#include "platform/ByteOrder.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

constexpr int fragmentHeader = 44;
constexpr int authenticationHeader = 51;

std::string addressBytes(int family, const std::string& printed) {
    char bytes[16];
    if (inet_pton(family, printed.c_str(), bytes) != 1) throw std::invalid_argument(printed);
    return std::string(bytes, family == AF_INET ? 4 : 16);
}

std::size_t extensionSize(int header, int lengthByte) {
    if (header == fragmentHeader) return 8;
    const int unit = header == authenticationHeader ? 4 : 8;
    return static_cast<std::size_t>(8 + unit * std::max(0, lengthByte));
}

} // namespace

PacketBuffer::PacketBuffer(std::uint64_t id, const std::string& packet)
    : buffer_(TCPPacket::receiveBufferSize), size_(packet.size()) {
    if (size_ > static_cast<std::size_t>(TCPPacket::packetRoom)) throw std::length_error("packet too long");
    std::memcpy(buffer_.data(), &id, sizeof id);
    std::copy(packet.begin(), packet.end(), buffer_.begin() + TCPPacket::recordHeaderSize);
}

char* PacketBuffer::packet() { return buffer_.data() + TCPPacket::recordHeaderSize; }

std::string PacketBuffer::bytes() const {
    return std::string(buffer_.data() + TCPPacket::recordHeaderSize, size_);
}

std::string PacketBuffer::record() const {
    return std::string(buffer_.data(), TCPPacket::recordHeaderSize + size_);
}

PacketBuilder::PacketBuilder(bool ipv6) : ipv6_(ipv6) {}

PacketBuilder PacketBuilder::ipv4() {
    return PacketBuilder(false).from("10.0.0.2", 50000).to("93.184.216.34", 80);
}

PacketBuilder PacketBuilder::ipv6() {
    return PacketBuilder(true).from("2001:db8::2", 50000).to("2001:db8::22", 80);
}

PacketBuilder& PacketBuilder::from(const std::string& address, int port) {
    source_ = addressBytes(ipv6_ ? AF_INET6 : AF_INET, address);
    sourcePort_ = port;
    return *this;
}

PacketBuilder& PacketBuilder::to(const std::string& address, int port) {
    destination_ = addressBytes(ipv6_ ? AF_INET6 : AF_INET, address);
    destinationPort_ = port;
    return *this;
}

PacketBuilder& PacketBuilder::reversed() {
    std::swap(source_, destination_);
    std::swap(sourcePort_, destinationPort_);
    return *this;
}

PacketBuilder& PacketBuilder::udp() {
    udp_ = true;
    return *this;
}

PacketBuilder& PacketBuilder::protocol(int number) {
    protocol_ = number;
    return *this;
}

PacketBuilder& PacketBuilder::payload(const std::string& bytes) {
    payload_ = bytes;
    return *this;
}

PacketBuilder& PacketBuilder::ipOptions(int words) {
    ipOptions_ = words;
    return *this;
}

PacketBuilder& PacketBuilder::tcpOptions(int words) {
    tcpOptions_ = words;
    return *this;
}

PacketBuilder& PacketBuilder::extension(int header, int lengthByte) {
    extensions_.push_back({header, lengthByte});
    return *this;
}

PacketBuilder& PacketBuilder::sizeReadAs(int size) {
    sizeReadAs_ = size;
    return *this;
}

PacketBuilder& PacketBuilder::put(int offset, const std::string& bytes) {
    overwritten_.emplace_back(offset, bytes);
    return *this;
}

PacketBuilder& PacketBuilder::id(std::uint64_t packetId) {
    id_ = packetId;
    return *this;
}

int PacketBuilder::transportNumber() const {
    if (protocol_ >= 0) return protocol_;
    return udp_ ? 17 : 6;
}

std::string PacketBuilder::ipHeader(std::size_t behind) const {
    if (ipv6_) {
        std::string header(8, '\0');
        header[0] = 0x60;
        if (sizeReadAs_ >= 0) {
            platform::writeNative(&header[4], static_cast<std::uint16_t>(sizeReadAs_ - 40));
        } else {
            platform::writeBig16(&header[4], static_cast<std::uint16_t>(behind));
        }
        header[6] = static_cast<char>(extensions_.empty() ? transportNumber() : extensions_[0].header);
        header[7] = 64;
        return header + source_ + destination_;
    }
    std::string header(12, '\0');
    const std::size_t size = 20 + 4 * static_cast<std::size_t>(ipOptions_) + behind;
    header[0] = static_cast<char>(0x40 | (5 + ipOptions_));
    platform::writeBig16(&header[2],
                         static_cast<std::uint16_t>(sizeReadAs_ >= 0 ? sizeReadAs_ : static_cast<int>(size)));
    header[8] = 64;
    header[9] = static_cast<char>(transportNumber());
    return header + source_ + destination_ + std::string(4 * static_cast<std::size_t>(ipOptions_), '\0');
}

std::string PacketBuilder::extensionHeaders() const {
    std::string headers;
    for (std::size_t i = 0; i < extensions_.size(); ++i) {
        const Extension& extension = extensions_[i];
        std::string header(extensionSize(extension.header, extension.lengthByte), '\0');
        header[0] =
            static_cast<char>(i + 1 < extensions_.size() ? extensions_[i + 1].header : transportNumber());
        if (extension.header != fragmentHeader) header[1] = static_cast<char>(extension.lengthByte);
        headers += header;
    }
    return headers;
}

std::string PacketBuilder::transportHeader() const {
    std::string header(udp_ ? 8 : 20 + 4 * static_cast<std::size_t>(tcpOptions_), '\0');
    platform::writeBig16(&header[0], static_cast<std::uint16_t>(sourcePort_));
    platform::writeBig16(&header[2], static_cast<std::uint16_t>(destinationPort_));
    if (udp_) {
        platform::writeBig16(&header[4], static_cast<std::uint16_t>(header.size() + payload_.size()));
    } else {
        header[12] = static_cast<char>((5 + tcpOptions_) << 4);
        header[13] = payload_.empty() ? 0x10 : 0x18;
    }
    return header;
}

std::string PacketBuilder::bytes() const {
    const std::string behind = extensionHeaders() + transportHeader() + payload_;
    std::string packet = ipHeader(behind.size()) + behind;
    for (const auto& [offset, text] : overwritten_) {
        const auto at = static_cast<std::size_t>(offset);
        if (packet.size() < at + text.size()) packet.resize(at + text.size());
        packet.replace(at, text.size(), text);
    }
    return packet;
}

PacketBuffer PacketBuilder::build() const { return PacketBuffer(id_, bytes()); }

std::string getRequest(const std::string& path, const std::string& host) {
    return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nAccept: */*\r\n\r\n";
}

} // namespace testsupport
