#pragma once

// The connection of the agent link: the current socket, the sends on it, the replies that are awaited and the one
// reader thread. It exists once, is made when the program is loaded, and is never destroyed, since the reader runs
// until the process ends. For OstComm, which builds the connection, and the reader. Any thread, where nothing else
// is said.

#include "agent/AgentFrames.h"
#include "agent/ResponseTable.h"
#include "gp/GPMutex.h"
#include "gp/ThreadSafety.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class GPDate;
class GPSockets;

class AgentLink {
public:
    AgentLink() = default;
    AgentLink(const AgentLink&) = delete;
    AgentLink& operator=(const AgentLink&) = delete;

    // Takes a number for a frame. No atomic step: two threads can draw the same number.
    std::uint32_t nextSequence();

    // Builds a frame in a buffer of `Space` bytes and sends it in one piece, unmixed with other frames. False
    // when it does not fit, the link was closed meanwhile, or the send failed; `error` is then the errno.
    template <std::size_t Space>
    bool sendFrame(std::uint32_t type, std::uint32_t sequence, const char* body, int& error) {
        char frame[Space];
        return sendBytes(frame, buildAgentFrame(frame, Space, type, sequence, body), error);
    }

    // Whether the link is believed to stand.
    bool isOpened() const { return opened_ == 1; }
    void markOpened() { opened_ = 1; }
    void markClosed() { opened_ = 0; }

    // The current socket object, borrowed; null before the first.
    GPSockets* socket() const { return socket_; }

    // Marks the link as closed and puts another socket object in place, which is then the caller's to open: no
    // frame goes out on it before the link is marked as opened. The object that was there keeps its reference.
    void replaceSocket(GPSockets* replacement) EXCLUDES(commandMutex);

    // Close and reopen the current socket object between two frames, never inside one.
    void closeSocket() EXCLUDES(commandMutex);
    void reopenSocket() EXCLUDES(commandMutex);

    // The requests that wait for their replies.
    ResponseTable& responses() { return responses_; }

    // For the reader thread: the socket is its own now, from this moment, and no longer.
    void beginReading();
    void endReading() { responseThreadRunning_ = 0; }

    // Whether a reader thread has the socket.
    bool isBeingRead() const { return responseThreadRunning_ == 1; }

    // The moment at which the last reader began plus 300 seconds, owned by the caller; null before the first one.
    GPDate* responseThreadStarted() EXCLUDES(startedMutex);

private:
    bool sendBytes(const char* frame, std::size_t length, int& error) EXCLUDES(commandMutex);

    ResponseTable responses_; // has the response lock in it

    // Replaced, closed and sent on with the lock held; the reader reads from it without.
    GPMutex commandMutex;
    std::atomic<GPSockets*> socket_{nullptr};

    std::atomic<std::uint8_t> opened_{0};
    std::atomic<std::uint8_t> responseThreadRunning_{0};
    std::atomic<std::uint32_t> sequenceNum_{1};

    GPMutex startedMutex;
    GPDate* responseThreadStarted_ GUARDED_BY(startedMutex) = nullptr;
};

extern AgentLink& agentLink;
