#include "machost/security/TlsRecords.h"

namespace machost::security {

void TlsRecords::attach(SSL* session) {
    incoming_ = BIO_new(BIO_s_mem());
    outgoing_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(incoming_, -1);
    SSL_set_bio(session, incoming_, outgoing_);
}

void TlsRecords::collectOutput() {
    char bytes[4096];
    for (int count; (count = BIO_read(outgoing_, bytes, sizeof bytes)) > 0;)
        queue_.append(bytes, static_cast<std::size_t>(count));
}

Status TlsRecords::serviceQueue() {
    collectOutput();
    while (!queue_.empty()) {
        std::size_t moved = queue_.size();
        const Status status = write_(connection_, queue_.data(), &moved);
        queue_.erase(0, moved);
        if (status != noError) return status;
    }
    return noError;
}

Status TlsRecords::readRecord() {
    for (;;) {
        const bool inHeader = record_.size() < headerSize;
        std::size_t wanted = headerSize;
        if (!inHeader)
            wanted += static_cast<std::size_t>(static_cast<std::uint8_t>(record_[3])) << 8 |
                      static_cast<std::uint8_t>(record_[4]);
        if (wanted > largestRecord) return recordOverflow;
        if (!inHeader && record_.size() == wanted) {
            BIO_write(incoming_, record_.data(), static_cast<int>(record_.size()));
            record_.clear();
            return noError;
        }
        const std::size_t had = record_.size();
        std::size_t count = wanted - had;
        record_.resize(wanted);
        const Status status = read_(connection_, record_.data() + had, &count);
        record_.resize(had + count);
        if (status == wouldBlock) return status;
        if (status != noError) return inHeader ? closedAbort : status;
    }
}

} // namespace machost::security
