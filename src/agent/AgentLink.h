#pragma once

// The class-wide state of the agent link, private to OstComm and its reader thread. It exists once, is made
// when the program is loaded, and is never destroyed, since the reader runs until the process ends.

#include "agent/AgentFrames.h"
#include "agent/ResponseTable.h"
#include "gp/GPMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class GPDate;
class GPSockets;
class GPString;
class OstComm;

struct AgentLink {
    GPMutex instanceMutex; // creation of the instance, and the whole of a reconnect
    GPMutex commandMutex;  // one frame's send
    GPMutex startedMutex;  // responseThreadStarted

    ResponseTable responses; // has the response lock in it

    OstComm* m_pInstance = nullptr;    // guarded by instanceMutex
    GPString* name = nullptr;          // the agent's host; guarded by instanceMutex
    GPString* hostIPAddress = nullptr; // the agent's resolved address; guarded by instanceMutex
    std::uint8_t port = 0;             // a switch: while set the socket's port is 3456, else 0
    std::uint8_t timeout = 0;          // times 5: seconds of one wait on the socket

    std::atomic<GPSockets*> socket{nullptr}; // the current socket object
    std::atomic<std::uint8_t> opened{0};     // 1 while the link is believed to stand
    std::atomic<std::uint8_t> responseThreadRunning{0};
    GPDate* responseThreadStarted = nullptr; // guarded by startedMutex

    // Takes a number for a frame. No atomic step: two threads can draw the same number.
    std::uint32_t nextSequence();

    // Builds a frame in a buffer of `Space` bytes and sends it in one piece, unmixed with other frames. False
    // when it does not fit, the link was closed meanwhile, or the send failed; `error` is then the errno.
    template <std::size_t Space>
    bool sendFrame(std::uint32_t type, std::uint32_t sequence, const char* body, int& error) {
        char frame[Space];
        return sendBytes(frame, buildAgentFrame(frame, Space, type, sequence, body), error);
    }

    // Marks the link as closed and puts another socket object in place, which is then the caller's to open: no
    // frame goes out on it before `opened` is set. The object that was there before keeps its reference.
    void replaceSocket(GPSockets* replacement);

    // Close and reopen the current socket object between two frames, never inside one.
    void closeSocket();
    void reopenSocket();

    // Notes that a reader thread starts now.
    void markReaderStart();

    // A copy of responseThreadStarted, owned by the caller; null before the first reader.
    GPDate* readerStarted();

private:
    bool sendBytes(const char* frame, std::size_t length, int& error);

    std::atomic<std::uint32_t> sequenceNum_{1};
};

extern AgentLink& agentLink;
