#pragma once

// A TLS server of the test's own on a loopback port, with a certificate that it makes.

#include "support/LoopbackPeer.h"
#include "support/TemporaryFolder.h"

#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <thread>

namespace testsupport {

// A self-signed certificate for `name` and its key, in files of the folder.
class Certificate {
public:
    explicit Certificate(const std::string& name);

    std::string certificateFile() const { return folder_.file("certificate.pem"); }
    std::string keyFile() const { return folder_.file("key.pem"); }

    // Makes this certificate the only root of the default store, for contexts that are made from now on.
    void trust() const;

private:
    TemporaryFolder folder_;
};

// Makes the default store empty.
void trustNobody();

// Serves one connection on a thread: the handshake, then `conversation` if it succeeded.
class TlsServer {
public:
    using Conversation = std::function<void(SSL*)>;

    // `version` limits the server to one version (TLS1_VERSION and so on); 0 leaves all.
    TlsServer(const Certificate& certificate, Conversation conversation, int version = 0);
    ~TlsServer();

    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    int port() const { return listener_.port(); }

    // Waits until the connection has been served. Whether the handshake succeeded.
    bool finish();

private:
    void serve(const Conversation& conversation);

    LoopbackListener listener_;
    SSL_CTX* settings_;
    bool shookHands_ = false;
    std::thread thread_;
};

// Reads up to and including `marker`, or until the client stops.
std::string tlsReadUntil(SSL* session, const std::string& marker);

void tlsSend(SSL* session, const std::string& bytes);

} // namespace testsupport
