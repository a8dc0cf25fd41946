#include "platform/SecureTransport.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <new>

namespace platform {

// An OpenSSL session over a BIO that calls the read and write functions, so that it never touches the
// descriptor itself.
struct SSLContext {
    enum class State { handshaking, connected, closed, failed };

    SSL_CTX* settings = nullptr;
    SSL* session = nullptr;
    SSLReadFunc read = nullptr;
    SSLWriteFunc write = nullptr;
    SSLConnectionRef connection = nullptr;
    State state = State::handshaking;
    // What the last call of `read` or `write` that moved nothing answered.
    OSStatus transferStatus = noErr;

    ~SSLContext() {
        SSL_free(session);
        SSL_CTX_free(settings);
    }
};

namespace {

// Keeps a count within what a BIO's or a session's int can say.
int clamped(std::size_t length) { return static_cast<int>(std::min<std::size_t>(length, INT_MAX)); }

// The answer of a BIO function for one transfer, told apart from its status and count.
int transferred(BIO* bio, SSLContext& context, OSStatus status, std::size_t moved, int retryFlags) {
    if (moved > 0) return clamped(moved);
    context.transferStatus = status;
    if (status == errSSLWouldBlock) BIO_set_flags(bio, retryFlags | BIO_FLAGS_SHOULD_RETRY);
    return -1;
}

int bioRead(BIO* bio, char* data, int length) {
    auto& context = *static_cast<SSLContext*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (!context.read || length <= 0) return -1;
    auto moved = static_cast<std::size_t>(length);
    const OSStatus status = context.read(context.connection, data, &moved);
    return transferred(bio, context, status, moved, BIO_FLAGS_READ);
}

int bioWrite(BIO* bio, const char* data, int length) {
    auto& context = *static_cast<SSLContext*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (!context.write || length <= 0) return -1;
    auto moved = static_cast<std::size_t>(length);
    const OSStatus status = context.write(context.connection, data, &moved);
    return transferred(bio, context, status, moved, BIO_FLAGS_WRITE);
}

long bioControl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

BIO_METHOD* makeTransferMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "read and write functions");
    if (!method) return nullptr;
    BIO_meth_set_read(method, bioRead);
    BIO_meth_set_write(method, bioWrite);
    BIO_meth_set_ctrl(method, bioControl);
    return method;
}

bool addTransport(SSLContext& context) {
    // One method for all contexts, for as long as the process lives: there are few numbers for new ones.
    static BIO_METHOD* const method = makeTransferMethod();
    BIO* bio = method ? BIO_new(method) : nullptr;
    if (!bio) return false;
    BIO_set_data(bio, &context);
    BIO_set_init(bio, 1);
    SSL_set_bio(context.session, bio, bio);
    return true;
}

// Keeps the library whole while the process ends: a background thread may still be in a session then.
void keepToTheEnd() {
    [[maybe_unused]] static const int kept = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

bool prepare(SSLContext& context) {
    keepToTheEnd();
    context.settings = SSL_CTX_new(TLS_client_method());
    if (!context.settings) return false;
    SSL_CTX_set_min_proto_version(context.settings, 0);
    // The lowest level: the oldest versions sign with what the higher levels refuse.
    SSL_CTX_set_security_level(context.settings, 0);
    SSL_CTX_set_options(context.settings, SSL_OP_LEGACY_SERVER_CONNECT);
    SSL_CTX_set_default_verify_paths(context.settings);
    SSL_CTX_set_verify(context.settings, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context.settings, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    context.session = SSL_new(context.settings);
    if (!context.session || !addTransport(context)) return false;
    SSL_set_connect_state(context.session);
    return true;
}

// Translates a session's failure and notes what it means for the context.
OSStatus failure(SSLContext& context, int result) {
    switch (SSL_get_error(context.session, result)) {
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            return errSSLWouldBlock;
        case SSL_ERROR_ZERO_RETURN:
            context.state = SSLContext::State::closed;
            return errSSLClosedGraceful;
        default:
            break;
    }
    context.state = SSLContext::State::failed;
    if (SSL_get_verify_result(context.session) != X509_V_OK) return errSSLXCertChainInvalid;
    const OSStatus transfer = context.transferStatus;
    return transfer == noErr || transfer == errSSLWouldBlock ? errSSLProtocol : transfer;
}

// What a read or write answers without trying; noErr if it may go on.
OSStatus refusal(const SSLContext& context) {
    switch (context.state) {
        case SSLContext::State::connected:
            return noErr;
        case SSLContext::State::closed:
            return errSSLClosedGraceful;
        default:
            return errSSLClosedAbort;
    }
}

void begin(SSLContext& context) {
    ERR_clear_error();
    context.transferStatus = noErr;
}

} // namespace

SSLContextRef SSLCreateContext(SSLProtocolSide side, SSLConnectionType type) {
    if (side != kSSLClientSide || type != kSSLStreamType) return nullptr;
    auto* context = new (std::nothrow) SSLContext;
    if (context && !prepare(*context)) {
        delete context;
        context = nullptr;
    }
    ERR_clear_error();
    return context;
}

void SSLReleaseContext(SSLContextRef context) { delete context; }

OSStatus SSLSetIOFuncs(SSLContextRef context, SSLReadFunc read, SSLWriteFunc write) {
    context->read = read;
    context->write = write;
    return noErr;
}

OSStatus SSLSetConnection(SSLContextRef context, SSLConnectionRef connection) {
    context->connection = connection;
    return noErr;
}

// Every version is allowed from the start, so there is nothing to lower.
OSStatus SSLSetProtocolVersionMin(SSLContextRef, int version) {
    return version == kSSLProtocolAll ? noErr : errSSLProtocol;
}

OSStatus SSLHandshake(SSLContextRef context) {
    if (context->state == SSLContext::State::connected) return noErr;
    if (context->state != SSLContext::State::handshaking) return errSSLClosedAbort;
    begin(*context);
    const int result = SSL_do_handshake(context->session);
    if (result != 1) return failure(*context, result);
    context->state = SSLContext::State::connected;
    return noErr;
}

OSStatus SSLRead(SSLContextRef context, void* data, std::size_t length, std::size_t* processed) {
    *processed = 0;
    const OSStatus refused = refusal(*context);
    if (refused != noErr) return refused;
    auto* bytes = static_cast<char*>(data);
    while (*processed < length) {
        begin(*context);
        const int result = SSL_read(context->session, bytes + *processed, clamped(length - *processed));
        if (result <= 0) return failure(*context, result);
        *processed += static_cast<std::size_t>(result);
    }
    return noErr;
}

OSStatus SSLWrite(SSLContextRef context, const void* data, std::size_t length, std::size_t* processed) {
    *processed = 0;
    const OSStatus refused = refusal(*context);
    if (refused != noErr) return refused;
    const auto* bytes = static_cast<const char*>(data);
    while (*processed < length) {
        begin(*context);
        const int result = SSL_write(context->session, bytes + *processed, clamped(length - *processed));
        if (result <= 0) return failure(*context, result);
        *processed += static_cast<std::size_t>(result);
    }
    return noErr;
}

OSStatus SSLClose(SSLContextRef context) {
    if (context->state == SSLContext::State::connected || context->state == SSLContext::State::closed) {
        begin(*context);
        SSL_shutdown(context->session);
        ERR_clear_error();
    }
    context->state = SSLContext::State::failed;
    return noErr;
}

} // namespace platform
