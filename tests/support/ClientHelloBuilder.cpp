#include "support/ClientHelloBuilder.h"

namespace testsupport {
namespace {

std::string big(std::size_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text += static_cast<char>(value >> shift & 255);
    return text;
}

std::string extension(int type, const std::string& data) {
    return big(static_cast<std::size_t>(type), 2) + big(data.size(), 2) + data;
}

std::size_t fieldOr(int field, std::size_t real) {
    return field >= 0 ? static_cast<std::size_t>(field) : real;
}

} // namespace

ClientHelloBuilder::ClientHelloBuilder() = default;

ClientHelloBuilder& ClientHelloBuilder::serverName(const std::string& name) {
    name_ = name;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::withoutServerName() {
    named_ = false;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::withoutExtensions() {
    extended_ = false;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::recordVersion(int major, int minor) {
    major_ = major;
    minor_ = minor;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::sessionIdLength(int bytes) {
    sessionIdLength_ = bytes;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::cipherSuitesLength(int bytes) {
    cipherSuitesLength_ = bytes;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::compressionMethods(int count) {
    compressionMethods_ = count;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::extensionBefore(int type, const std::string& data) {
    before_ += extension(type, data);
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::extensionAfter(int type, const std::string& data) {
    after_ += extension(type, data);
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::nameLengthField(int value) {
    nameLengthField_ = value;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::recordLengthField(int value) {
    recordLengthField_ = value;
    return *this;
}

ClientHelloBuilder& ClientHelloBuilder::handshakeType(int value) {
    handshakeType_ = value;
    return *this;
}

std::string ClientHelloBuilder::serverNameExtension() const {
    if (!named_) return "";
    const std::string entry = '\0' + big(fieldOr(nameLengthField_, name_.size()), 2) + name_;
    return extension(0, big(entry.size(), 2) + entry);
}

std::string ClientHelloBuilder::build() const {
    std::string hello = "\x03\x03" + std::string(32, 'r');
    hello += static_cast<char>(sessionIdLength_);
    hello += std::string(static_cast<std::size_t>(sessionIdLength_), 's');
    hello += big(static_cast<std::size_t>(cipherSuitesLength_), 2);
    hello += std::string(static_cast<std::size_t>(cipherSuitesLength_), 'c');
    hello += static_cast<char>(compressionMethods_);
    hello += std::string(static_cast<std::size_t>(compressionMethods_), '\0');
    if (extended_) {
        const std::string extensions = before_ + serverNameExtension() + after_;
        hello += big(extensions.size(), 2) + extensions;
    }
    const std::string handshake = static_cast<char>(handshakeType_) + big(hello.size(), 3) + hello;
    std::string record = "\x16";
    record += static_cast<char>(major_);
    record += static_cast<char>(minor_);
    return record + big(fieldOr(recordLengthField_, handshake.size()), 2) + handshake;
}

std::pair<std::string, std::string> ClientHelloBuilder::split(std::size_t bytes) const {
    const std::string whole = build();
    return {whole.substr(0, bytes), whole.substr(bytes)};
}

} // namespace testsupport
