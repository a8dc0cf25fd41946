#pragma once

// The records of a TLS connection, moved by the program's own read and write functions: what OpenSSL wants to send
// stands in a queue until the write function has taken it, and what comes is handed over a whole record at a time.
// Follows sslRecord.c of Security. One thread at a time.

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace machost::security {

using Status = std::int32_t;
using MoveFunction = Status (*)(const void* connection, void* bytes, std::size_t* count);

// <Security/SecureTransport.h> and MacErrors.h
constexpr Status noError = 0, wouldBlock = -9803, closedGraceful = -9805, closedAbort = -9806,
                 closedNoNotify = -9816, ioError = -36, chainInvalid = -9807, protocolError = -9800,
                 internalError = -9810, recordOverflow = -9847, illegalParameter = -9830, badRequest = -909,
                 parameterError = -50;

class TlsRecords {
public:
    // Takes its place below the session, which it must not outlive.
    void attach(SSL* session);

    void setFunctions(MoveFunction read, MoveFunction write) {
        read_ = read;
        write_ = write;
    }
    void setConnection(const void* connection) { connection_ = connection; }

    // Sends what is queued; the write function's answer when that does not take all.
    Status serviceQueue();

    // Brings one whole record in. A close of the peer's in front of a record is an abort.
    Status readRecord();

private:
    static constexpr std::size_t headerSize = 5, largestRecord = 16384 + 2048 + headerSize;

    void collectOutput();

    BIO* incoming_ = nullptr; // owned by the session
    BIO* outgoing_ = nullptr; // likewise
    MoveFunction read_ = nullptr;
    MoveFunction write_ = nullptr;
    const void* connection_ = nullptr;
    std::string queue_;
    std::vector<char> record_; // what has come of the next record
};

} // namespace machost::security
