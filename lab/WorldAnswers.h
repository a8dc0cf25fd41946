#pragma once

#include <cstdint>
#include <functional>

namespace lab {

// Reads the one question of a connection and answers it by the services that are in force. Returns when the answer is
// whole or the asker has gone; may block as long as the service does. Any thread.
void answerQuestion(int connection);

// Has askers read the played time, in microseconds, from this memory instead of asking for it each time. Before the
// first question.
void shareClockMemory(int descriptor);

// Holds connections to that port back until `released` can be read, or its other end has gone. Before the first
// question.
void holdConnectionsBack(int port, int released);

// Has this process told of each thread's start, with the distance of its function from the program's header, and of its
// end, with 0. Before the first question.
void observeThreads(std::function<void(int thread, std::uint64_t function)> observer);

} // namespace lab
