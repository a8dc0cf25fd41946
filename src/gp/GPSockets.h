#pragma once

// The one socket class: a TCP or UDP client over IPv4 with optional TLS, or a listener that hands accepted
// connections to a pool of threads. All waiting is done with an event queue of the object's own.
//
// An object belongs to one thread at a time and has no lock. Two threads may share one only if one of them
// reads and the others do no more than `send`, under a lock of theirs. Of the agent's link, a DNS request reads its answer
// beside the reader, by rule; only the recorded error is made for that.

#include "gp/GPObject.h"
#include "platform/SecureTransport.h"

#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

class GPData;
class GPString;
class GPThreadPool;

class GPSockets : public GPObject {
public:
    GPSockets();

    // Port 443 turns TLS on. The host text is copied; null is allowed.
    GPSockets(int port, const char* host);

    // Port 80.
    explicit GPSockets(const char* host);

    // Closes the connection.
    ~GPSockets() override;

    int port() const { return port_; }
    // Also turns TLS on for 443 and off for any other port.
    void setPort(int port);

    const char* server() const { return host_; }
    void setServer(const char* host);

    // Seconds for one wait; 0 waits without limit.
    int timeout() const { return timeout_; }
    void setTimeout(int seconds) { timeout_ = seconds; }

    bool useSSL() const { return useSSL_; }
    void setUseSSL(bool use) { useSSL_ = use; }

    bool isUDP() const { return useUDP_; }
    void useUDP(bool use) { useUDP_ = use; }

    // The last recorded error; 0 means none. A time-out leaves it alone. A read that ends because the peer
    // closed or broke the connection always leaves it above 0: the errno of that read, or ECONNRESET where
    // an orderly close left errno at 0. So a reader may loop for as long as it is 0.
    int error() const { return error_.load(std::memory_order_relaxed); }
    void setError(int error) { error_.store(error, std::memory_order_relaxed); }

    // Whether there is an event queue to wait with. False before the first read or write, when no queue could be made,
    // and behind one that met an error event, which closes the queue: a read that gave nothing has then not waited.
    bool hasQueue() const { return kqueue_ >= 0; }

    // Numeric text of the peer as openConnection resolved it, or null; valid until the next openConnection.
    const char* IPAddress() const;

    // The wait of objects made later, in seconds, and the backlog of later listeners. For program start.
    static void setDefaultTimeout(int seconds);

    // Resolves the host and starts to connect, without waiting for the end of it: the first write's wait
    // finds out. With TLS the handshake is done here. False when the host is missing or does not resolve or
    // no socket can be made.
    bool openConnection();

    // Takes over a connected descriptor as it is; false for one below 1.
    bool openConnection(int socket);

    // Runs the TLS handshake on the open socket, spinning until it is over. True whatever came of it, except
    // without a socket: a failed handshake shows in later reads.
    bool openSSLConnection();

    // Closes what is open. The object keeps the descriptor's number and is not meant to be opened again.
    void closeConnection();
    void closeSSLConnection();

    // Binds to host and port ("127.0.0.1" without a host) and serves: each accepted connection goes to
    // `callback` on one of `count` pool threads, with an object that is released afterwards. Blocks while it
    // serves; false when the socket cannot be set up.
    bool listenConnection(void (*callback)(GPSockets*), int count);

    // The accept loop behind listenConnection, which takes up to `count` events at a time. Ends, with false,
    // only when the wait fails.
    bool socketListen(void (*callback)(GPSockets*), int count);

    // Fills an IPv4 address record. False for numeric text that is no address and for a name that does not
    // resolve.
    static bool getIPAddress(const char* host, sockaddr* address, int port);

    // Whether each of the first four dotted numbers is at most 255; false with fewer than three dots.
    static bool validateIP(const char* text);

    // Writes the text and its ending zero byte.
    bool writeString(const char* text);

    // Open the connection if there has never been one, wait until it can be written to, and send everything. Once for
    // each connection: the wait of a second write ends with its time where the system keeps its event disabled.
    // The text form sends no zero byte.
    bool writeData(const char* bytes, int length);
    bool writeData(GPString* text);
    bool writeData(GPData* data);

    // Waits once and answers what is there at that moment, as an owned object; null when the time is over,
    // the peer has closed, or the wait fails. `count` becomes the number of bytes read.
    GPData* readData();
    GPData* readData(long& count);
    GPString* readString();
    GPString* readString(long& count);

    // Sends on the descriptor with no waiting and no TLS; true when everything was taken.
    bool send(const char* bytes, int length);

    // Reads up to `length` bytes over TLS and answers how many came. Spins until all of them are there or
    // the connection ends.
    long sslRead(char* bytes, long length);

    // Writes over TLS; true whatever came of it.
    bool sslWrite(const char* bytes, long length);

    // One wait and one transfer in one direction. Reading appends to `data`, or makes it when it is null;
    // writing sends all of it. `count` becomes the result of the read.
    bool socketStream(bool read, GPData*& data, long& count);

    // The input and output functions of the TLS context; `connection` holds the descriptor.
    static platform::OSStatus readFromSSLSocket(platform::SSLConnectionRef connection, void* data,
                                                std::size_t* length);
    static platform::OSStatus writeToSSLSocket(platform::SSLConnectionRef connection, const void* data,
                                               std::size_t* length);

    // The pool's function: runs the callback with an accepted client and releases the client.
    static void poolThread(void* accepted);

private:
    static int Default_Timeout;

    bool writeAll(GPData* data);
    bool readWaiting(std::int64_t waiting, GPData*& data, long& count);
    void acceptClient(void (*callback)(GPSockets*));
    void closeQueue();

    int port_ = 80;
    char* host_ = nullptr;
    int socket_ = 0;
    int kqueue_ = -1;
    bool useSSL_ = false;
    int timeout_ = Default_Timeout;
    platform::SSLContextRef sslContext_ = nullptr;
    GPThreadPool* threadPool_ = nullptr;
    GPString* ipAddress_ = nullptr;
    bool useUDP_ = false;
    std::atomic<int> error_{0}; // two threads may read the agent's link

    // Whether `socket_` is still this object's to close: its number stays after the close, and by then can
    // belong to somebody else.
    bool ownsSocket_ = false;
};
