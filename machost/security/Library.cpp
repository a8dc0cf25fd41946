// Secure Transport over OpenSSL: its states, what a call answers in each, and when bytes move. The protocol is
// OpenSSL's, at most 1.2, as 10.12 has it; the chain is checked against this machine's certificates.

#include "machost/security/Library.h"

#include "machost/objects/Object.h"
#include "machost/security/TlsRecords.h"

#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <memory>

namespace machost::security {
namespace {

enum class State { fresh, pending, ready, closedGracefully, closedByError };

class Context {
public:
    Context() : settings_(SSL_CTX_new(TLS_client_method())), session_(nullptr) {
        SSL_CTX_set_min_proto_version(settings_, TLS1_VERSION);
        SSL_CTX_set_max_proto_version(settings_, TLS1_2_VERSION);
        SSL_CTX_set_security_level(settings_, 0); // what was usual then
        SSL_CTX_set_options(settings_, SSL_OP_LEGACY_SERVER_CONNECT);
        SSL_CTX_set_default_verify_paths(settings_);
        SSL_CTX_set_verify(settings_, SSL_VERIFY_PEER, nullptr);
        session_ = SSL_new(settings_);
        SSL_set_connect_state(session_);
        records_.attach(session_);
    }
    ~Context() {
        SSL_free(session_);
        SSL_CTX_free(settings_);
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    TlsRecords& records() { return records_; }

    Status handshake() {
        if (state_ == State::closedGracefully) return closedGraceful;
        if (state_ == State::closedByError) return closedAbort;
        if (const Status status = finishHandshake()) return status;
        return records_.serviceQueue();
    }

    Status write(const void* bytes, std::size_t length, std::size_t& done) {
        done = 0;
        if (state_ == State::closedGracefully) return closedGraceful;
        if (state_ == State::closedByError) return closedAbort;
        if (state_ == State::fresh) return badRequest;
        if (const Status status = finishHandshake()) return noteEnd(status);
        // What is left from before may fail without an end to the session.
        if (const Status status = records_.serviceQueue()) return status;
        return noteEnd(writeOpen(bytes, length, done));
    }

    Status read(void* bytes, std::size_t length, std::size_t& done) {
        done = 0;
        if (state_ == State::closedGracefully) return closedGraceful;
        if (state_ == State::closedByError) return closedAbort;
        const Status status = readOpen(bytes, length, done);
        return status == closedNoNotify ? status : noteEnd(status);
    }

    // A stream that has gone is no failure then.
    Status close() {
        Status status = noError;
        if (state_ == State::ready || state_ == State::pending) {
            ERR_clear_error();
            SSL_shutdown(session_);
            status = records_.serviceQueue();
        }
        state_ = State::closedGracefully;
        return status == ioError ? noError : status;
    }

private:
    // One step of the handshake: what is to be sent goes out before the next record is awaited.
    Status proceed() {
        state_ = State::pending;
        ERR_clear_error();
        const int result = SSL_do_handshake(session_);
        const int reason = result == 1 ? SSL_ERROR_NONE : SSL_get_error(session_, result);
        if (const Status status = records_.serviceQueue()) return status;
        if (result == 1) {
            state_ = State::ready;
            return noError;
        }
        if (reason == SSL_ERROR_WANT_READ) return records_.readRecord();
        return SSL_get_verify_result(session_) != X509_V_OK ? chainInvalid : protocolError;
    }

    Status finishHandshake() {
        while (state_ != State::ready) {
            if (const Status status = proceed()) return status;
        }
        return noError;
    }

    // All is taken, even where only a part of it goes out at once.
    Status writeOpen(const void* bytes, std::size_t length, std::size_t& done) {
        const auto* from = static_cast<const char*>(bytes);
        while (done < length) {
            ERR_clear_error();
            const int part = SSL_write(session_, from + done,
                                       static_cast<int>(std::min<std::size_t>(length - done, INT_MAX)));
            if (part <= 0) return internalError;
            done += static_cast<std::size_t>(part);
        }
        return records_.serviceQueue();
    }

    // At most one record's content comes with a call.
    Status readOpen(void* bytes, std::size_t length, std::size_t& done) {
        if (const Status status = finishHandshake()) return status;
        const Status queued = records_.serviceQueue();
        if (queued != noError && queued != wouldBlock) return queued;
        while (length > 0) {
            ERR_clear_error();
            const int part =
                SSL_read(session_, bytes, static_cast<int>(std::min<std::size_t>(length, INT_MAX)));
            if (part > 0) {
                done = static_cast<std::size_t>(part);
                return noError;
            }
            switch (SSL_get_error(session_, part)) {
                case SSL_ERROR_WANT_READ:
                    if (const Status status = records_.readRecord()) return status;
                    break;
                case SSL_ERROR_ZERO_RETURN:
                    close(); // says the same to the peer
                    return closedGraceful;
                default:
                    return protocolError;
            }
        }
        return noError;
    }

    // What is neither a wait nor an orderly end closes the session for good.
    Status noteEnd(Status status) {
        if (status != noError && status != wouldBlock && status != closedGraceful)
            state_ = State::closedByError;
        return status;
    }

    SSL_CTX* const settings_;
    SSL* session_;
    TlsRecords records_;
    State state_ = State::fresh;
};

using ContextPointer = std::unique_ptr<Context>;
const Class contextClass{nullptr, nullptr, {}, nullptr, "SSLContext", destroyValue<ContextPointer>};

Context& contextOf(const void* object) { return *valueOf<ContextPointer>(object); }

// A server's side and datagrams are not played.
ObjectRef playedCreate(const void*, int side, int type) {
    constexpr int clientSide = 1, streamType = 0;
    if (side != clientSide || type != streamType) return nullptr;
    // Threads of the program may still be in a session while the process ends.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return createObject<ContextPointer>(contextClass, std::make_unique<Context>());
}

Status playedSetFunctions(const void* context, MoveFunction read, MoveFunction write) {
    if (!context) return parameterError;
    contextOf(context).records().setFunctions(read, write);
    return noError;
}

Status playedSetConnection(const void* context, const void* connection) {
    if (!context) return parameterError;
    contextOf(context).records().setConnection(connection);
    return noError;
}

// The versions that can be named; "all" is none of them.
Status playedSetMinimum(const void* context, int version) {
    if (!context) return parameterError;
    constexpr int known[] = {2, 4, 7, 8};
    return std::count(std::begin(known), std::end(known), version) ? noError : illegalParameter;
}

Status playedHandshake(const void* context) {
    return context ? contextOf(context).handshake() : parameterError;
}

Status playedRead(const void* context, void* bytes, std::size_t length, std::size_t* done) {
    return context && bytes && done ? contextOf(context).read(bytes, length, *done) : parameterError;
}

Status playedWrite(const void* context, const void* bytes, std::size_t length, std::size_t* done) {
    return context && done ? contextOf(context).write(bytes, length, *done) : parameterError;
}

Status playedClose(const void* context) { return context ? contextOf(context).close() : parameterError; }

const ImportTable& transportImports() {
    constexpr const char* context = "sslContext.c of Security";
    constexpr const char* transport = "sslTransport.c and sslRecord.c of Security";
    static const auto& table = *new ImportTable{
        function("_SSLCreateContext", playedCreate, context),
        function("_SSLSetIOFuncs", playedSetFunctions, context),
        function("_SSLSetConnection", playedSetConnection, context),
        function("_SSLSetProtocolVersionMin", playedSetMinimum, context),
        function("_SSLHandshake", playedHandshake, transport),
        function("_SSLRead", playedRead, transport),
        function("_SSLWrite", playedWrite, transport),
        function("_SSLClose", playedClose, transport),
    };
    return table;
}

} // namespace

Library library() {
    return {"/System/Library/Frameworks/Security.framework/Versions/A/Security", {&transportImports()}};
}

} // namespace machost::security
