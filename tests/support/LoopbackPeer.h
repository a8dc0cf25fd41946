#pragma once

// The other end of a connection, played by the test over real loopback sockets.

#include <sys/types.h>

#include <string>

namespace testsupport {

// One end of a stream connection; closed at the end of the scope. Reads give up after the tests' patience.
class Peer {
public:
    explicit Peer(int descriptor = -1) : descriptor_(descriptor) {}
    Peer(Peer&& other) noexcept;
    Peer& operator=(Peer&& other) noexcept;
    ~Peer() { close(); }

    bool isOpen() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }

    // Sends everything; false if the other end is gone.
    bool send(const std::string& bytes);

    // Reads until `count` bytes are there, or the other end has closed.
    std::string read(std::size_t count);

    // Reads up to and including `marker`, or until the other end has closed.
    std::string readUntil(const std::string& marker);

    // Reads until the other end has closed.
    std::string readAll();

    // Closes in order, so that the other end reads an end of the stream.
    void close();

    // Breaks the connection, so that the other end reads ECONNRESET.
    void reset();

    // Gives the descriptor away.
    int handOver();

private:
    bool readMore(std::string& bytes, std::size_t atMost);

    int descriptor_;
};

// A listening socket on 127.0.0.1; `port` 0 picks a free one.
class LoopbackListener {
public:
    explicit LoopbackListener(int port = 0);
    ~LoopbackListener();

    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    int port() const { return port_; }
    int descriptor() const { return descriptor_; }

    // The next connection; not open when none comes within the tests' patience.
    Peer accept();

private:
    int descriptor_ = -1;
    int port_ = 0;
};

// A port of 127.0.0.1 that nobody listens on. It stays with this process, which may come to listen there, as may a
// server that it starts (SO_REUSEADDR); nobody else is given it meanwhile.
int freePort();

// A connection to 127.0.0.1, tried again until someone listens there; not open after the tests' patience.
Peer connectTo(int port);

// Two ends of one TCP connection. The first is left as socket and accept made it: blocking.
void connectedPair(Peer& first, Peer& second);

} // namespace testsupport
