#include "support/TlsServer.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace testsupport {

Certificate::Certificate(const std::string& name) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -sha256 -nodes -days 2 -subj /CN=" +
        name + " -addext subjectAltName=DNS:" + name + " -keyout " + keyFile() + " -out " +
        certificateFile() + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("no certificate");
}

void Certificate::trust() const {
    setenv("SSL_CERT_FILE", certificateFile().c_str(), 1);
    setenv("SSL_CERT_DIR", "/nonexistent", 1);
}

void trustNobody() {
    setenv("SSL_CERT_FILE", "/nonexistent", 1);
    setenv("SSL_CERT_DIR", "/nonexistent", 1);
}

TlsServer::TlsServer(const Certificate& certificate, Conversation conversation, int version)
    : settings_(SSL_CTX_new(TLS_server_method())) {
    signal(SIGPIPE, SIG_IGN);
    SSL_CTX_set_security_level(settings_, 0);
    SSL_CTX_set_min_proto_version(settings_, version);
    SSL_CTX_set_max_proto_version(settings_, version);
    SSL_CTX_use_certificate_file(settings_, certificate.certificateFile().c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(settings_, certificate.keyFile().c_str(), SSL_FILETYPE_PEM);
    thread_ = std::thread([this, talk = std::move(conversation)] { serve(talk); });
}

TlsServer::~TlsServer() {
    finish();
    SSL_CTX_free(settings_);
}

bool TlsServer::finish() {
    if (thread_.joinable()) thread_.join();
    return shookHands_;
}

void TlsServer::serve(const Conversation& conversation) {
    const Peer peer = listener_.accept();
    if (!peer.isOpen()) return;
    SSL* session = SSL_new(settings_);
    SSL_set_fd(session, peer.descriptor());
    shookHands_ = SSL_accept(session) == 1;
    if (shookHands_) conversation(session);
    SSL_free(session);
}

std::string tlsReadUntil(SSL* session, const std::string& marker) {
    std::string bytes;
    char byte = 0;
    while (bytes.find(marker) == std::string::npos && SSL_read(session, &byte, 1) == 1)
        bytes += byte;
    return bytes;
}

void tlsSend(SSL* session, const std::string& bytes) {
    SSL_write(session, bytes.data(), static_cast<int>(bytes.size()));
}

} // namespace testsupport
