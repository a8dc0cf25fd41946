#pragma once

// The daemon's one connection to the local policy agent, a process of its own that listens on port 3456 of
// the loopback address. Over it the daemon says who is logged on and asks about URLs; the agent answers, and
// pushes configuration frames of its own accord.
//
// There is one instance, made at the first call of Instance and never destroyed. The connection's state is
// class-wide, so that a reconnect needs no object. Any thread may call any operation but ReConnect, which
// belongs to the reader thread. Lock order: none of the three locks is held while another is taken, except
// that a connect or a reconnect, which holds instanceMutex, changes the socket and sends under commandMutex.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <cstdint>

class GPDate;
class GPMutex;
class GPSockets;
class GPString;

class OstComm : public GPObject {
public:
    // Where the agent listens.
    static constexpr char agentHost[] = "127.0.0.1";
    static constexpr int agentPort = 3456;

    // The link. The first caller connects: it, and every caller behind it, waits until the first logon frame
    // has gone out, without limit. All callers wait likewise while a reconnect lasts. Borrowed.
    static OstComm* Instance() EXCLUDES(instanceMutex);

    // Connects to the agent on that host through a temporary object.
    explicit OstComm(const char* host);

    // Connects: opens the socket, repeats the logon frame until it has gone out, starts the reader. The host
    // stays the caller's. When the socket cannot be opened at all the link stays closed for good.
    explicit OstComm(GPString* host);

    ~OstComm() override;

    // Wakes the head of the waiting requests with an empty answer and builds the link anew; blocks until it
    // is back. For the reader thread alone.
    void ReConnect() EXCLUDES(instanceMutex);

    // Reports a logon. A missing or empty name goes out as "{}"; `authType` does not reach the wire. True when
    // the whole frame was sent.
    bool setUserLogonCommand(char* userName, char* authType);

    // Asks whether a URL may pass and blocks, without limit, until the agent answers. `queryNumber` stands in
    // log lines only. The result is owned by the caller: the reply's body, an empty text when a reconnect
    // ended the wait, or "{BOF}" at once when the link is closed or the frame could not be sent, which
    // includes a URL too long for a frame. Null when the wait ended without a reply.
    GPString* getPolicyCommand(char* url, int queryNumber);

    // Asks for a configuration frame and does not wait for it. True when the frame was sent.
    bool getConfigurationCommand();

    // Asks for the DNS redirects and reads the answer off the socket itself, beside the reader thread. The
    // result is owned by the caller; empty on failure.
    GPString* getDNSRedirectsCommand();

    // Sends the machine's addresses. True when the frame was sent.
    bool sendIpAddressesCommand();

    // Closes the socket; the reader thread is left alone.
    void OstCommClose();

    // Whether the daemon believes that the link stands.
    bool isOpened();

    // Stops an update that is under way and takes its dialogs away. Also for the signal handler.
    void clearPopups();

    // Sends a text of ASCII characters by HTTP POST and returns at once. The result says whether the sending
    // has failed already, so it is false in nearly every case; a later failure is only logged.
    bool postDataUrl(const char* url, char* body);

    // The moment at which the current reader thread started, plus 300 seconds; null before the first one. The
    // caller owns the result.
    static GPDate* responseThreadStarted();

    GPString* className() override;

private:
    static GPSockets* makeLinkSocket() REQUIRES(instanceMutex);
    static bool sendCommand(const char* command, std::uint32_t type, std::uint32_t sequence,
                            const char* body);

    void connect() REQUIRES(instanceMutex);
    void logOnUntilSent();

    // The lock of the instance, its creation and the whole of a reconnect.
    static GPMutex* const instanceMutex;
    static OstComm* m_pInstance GUARDED_BY(instanceMutex);
    static GPString* name GUARDED_BY(instanceMutex);          // the agent's host
    static GPString* hostIPAddress GUARDED_BY(instanceMutex); // the agent's resolved address
    static std::uint8_t
        port GUARDED_BY(instanceMutex); // a switch: while set the socket's port is agentPort, else 0
    static std::uint8_t timeout GUARDED_BY(instanceMutex); // times 5: seconds of one wait on the socket

    GPString* platform_;
    GPString* version_; // with the static mark
};

// The machine's addresses as the inside of a JSON object: "IPv4":[…],"IPv6":[…]. The caller owns the result.
GPString* getIpAddresses();

// The one reader of the link: files every frame under its number, wakes who waits for it, and starts
// loadConfigResponseThread for configuration frames. When the socket fails it reconnects and ends.
void* responseThread(void* unused);

// Reads the configuration frame that was filed under a number: block on failure, and an update's address. The
// argument is a heap copy of the 32-bit number, which the thread deletes.
void* loadConfigResponseThread(void* sequence);
