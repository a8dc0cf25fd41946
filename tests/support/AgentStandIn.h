#pragma once

// Plays the policy agent over real TCP on port 3456 of the loopback interface: it takes the daemon's frames
// and sends what the test tells it to, whole frames, pieces of them, or garbage.

#include "lab/AgentFrame.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace testsupport {

class AgentStandIn {
public:
    using Frame = lab::AgentFrame;

    // Answers a policy question by its body; nothing means that no answer goes out.
    using Policy = std::function<std::optional<std::string>(const std::string& body)>;

    // Claims the fixed ports, listens and accepts. The newest connection is the one that is talked on.
    AgentStandIn();
    ~AgentStandIn();

    AgentStandIn(const AgentStandIn&) = delete;
    AgentStandIn& operator=(const AgentStandIn&) = delete;

    // Answers type 1 frames by itself from now on, on a thread of its own.
    void answerPolicy(Policy policy);

    // The next frame that was not asked for yet, or the next one of that type with the others dropped. When
    // none comes the test fails and the frame is empty.
    Frame awaitFrame();
    Frame awaitFrame(std::uint32_t type);

    // Blocks until so many connections have been accepted in all; the test fails when it does not come.
    void awaitConnections(int count);

    // Blocks until the daemon has ended a connection of its own accord; the test fails when it does not come.
    void awaitDisconnect();

    // The bytes of a frame with a right length, or with the one given.
    static std::string frame(std::uint32_t type, std::uint32_t sequence, const std::string& body) {
        return lab::agentFrame(type, sequence, body);
    }
    static std::string frameOfLength(std::uint32_t length, std::uint32_t type, std::uint32_t sequence,
                                     const std::string& body) {
        return lab::agentFrameOfLength(length, type, sequence, body);
    }

    // Sends a reply of type 1, a configuration frame, or any bytes on the newest connection.
    void reply(std::uint32_t sequence, const std::string& body);
    void push(const std::string& body);
    void sendBytes(const std::string& bytes);

    // Closes the newest connection, or breaks it with a reset.
    void closeConnection();
    void resetConnection();

    // Refuses new connections from now on, or takes them again.
    void stopListening();
    void listenAgain();

private:
    void serve();
    void accept();
    void receive();
    void takeFrames();
    void dropConnection();
    void sendLocked(const std::string& bytes);

    int wake_[2] = {-1, -1};
    std::thread thread_;

    std::mutex mutex_; // guards everything below
    std::condition_variable changed_;
    int listener_ = -1;
    int connection_ = -1;
    int accepted_ = 0;
    bool disconnected_ = false;
    lab::AgentFrameReader held_;
    std::deque<Frame> frames_;
    Policy policy_;
};

} // namespace testsupport
