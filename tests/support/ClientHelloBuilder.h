#pragma once

// Builds the first TLS record of a connection, a ClientHello, well-formed unless told otherwise.

#include <string>
#include <utility>

namespace testsupport {

class ClientHelloBuilder {
public:
    // A TLS 1.2 hello that names www.example.org, with an empty session id and two cipher suites.
    ClientHelloBuilder();

    ClientHelloBuilder& serverName(const std::string& name);
    ClientHelloBuilder& withoutServerName();

    // Ends the hello behind its compression methods.
    ClientHelloBuilder& withoutExtensions();

    // Version of the record layer; the hello's own version stays 3.3.
    ClientHelloBuilder& recordVersion(int major, int minor);

    ClientHelloBuilder& sessionIdLength(int bytes);
    ClientHelloBuilder& cipherSuitesLength(int bytes);
    ClientHelloBuilder& compressionMethods(int count);

    // Adds an extension in front of the server name, or behind it.
    ClientHelloBuilder& extensionBefore(int type, const std::string& data);
    ClientHelloBuilder& extensionAfter(int type, const std::string& data);

    // What the length fields claim, whatever the sizes really are.
    ClientHelloBuilder& nameLengthField(int value);
    ClientHelloBuilder& recordLengthField(int value);
    ClientHelloBuilder& handshakeType(int value);

    std::string build() const;

    // The hello in two segments, the first of `bytes` bytes.
    std::pair<std::string, std::string> split(std::size_t bytes) const;

private:
    std::string serverNameExtension() const;

    std::string name_ = "www.example.org";
    bool named_ = true;
    bool extended_ = true;
    int major_ = 3;
    int minor_ = 1;
    int sessionIdLength_ = 0;
    int cipherSuitesLength_ = 4;
    int compressionMethods_ = 1;
    int nameLengthField_ = -1;
    int recordLengthField_ = -1;
    int handshakeType_ = 1;
    std::string before_;
    std::string after_;
};

} // namespace testsupport
