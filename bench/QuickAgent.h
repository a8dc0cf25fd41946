#pragma once

// The agent's end of the link for the bench: a thread that answers each question at once with "{}", or keeps silent
// until it is told to answer. Written for nothing but speed.

#include "bench/Turns.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

class QuickAgent {
public:
    // Listens on the agent's port, and starts to answer. Throws when the port is taken.
    explicit QuickAgent(bool silent);

    // How many questions have come.
    long questions() const { return questions_.load(); }

    // How many of them had the number of an earlier one. By rule two threads may draw one number at the same moment, and
    // one of them can then wait for ever.
    long numbersDrawnTwice() const { return numbersDrawnTwice_.load(); }

    void setSilent(bool silent);

private:
    void serve();
    void readLink();
    void note(std::uint32_t sequence);
    void flush();

    int listener_ = -1;
    int link_ = -1;
    int wakeUp_ = -1;
    std::string held_;
    std::string answers_;
    std::atomic<bool> silent_;
    std::atomic<long> questions_{0};
    std::vector<bool> numbersSeen_;
    std::atomic<long> numbersDrawnTwice_{0};
};

// The body of a question that the clients below ask.
extern const std::string questionBody;

// A socket that is connected to the agent's port. Throws when nobody listens there.
int connectedToAgent();

// Appends what one receive gives; false at the end.
bool receiveMore(int socket, std::string& held);

// Calls `take` with type and sequence of each whole frame that is held, and drops it. Throws for a length that no frame
// has.
void takeFrames(std::string& held,
                const std::function<void(std::uint32_t type, std::uint32_t sequence)>& take);

// A client that has questions of that kind in flight and nothing else to do: the cost of one, and the time that each
// took, in seconds.
class RawClient {
public:
    RawClient();

    Cost ask(long count, int inFlight, std::vector<double>& times);

private:
    int socket_ = -1;
};

} // namespace bench
