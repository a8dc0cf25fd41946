#pragma once

// Processes that a group forks, each with a state of the program of its own. They die with their maker.

#include "bench/Turns.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace bench {

// Runs code in a process of its own, when it is asked to.
class Worker {
public:
    using Work = std::function<Cost(int which)>;

    // `prepare` runs in the new process and makes its work. Throws when it does not come to its end.
    explicit Worker(const std::function<Work()>& prepare);
    ~Worker();

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Has the work done once and tells its cost.
    Cost run(int which = 0);

    pid_t process() const { return process_; }

private:
    pid_t process_ = -1;
    int channel_ = -1;
};

// A process that answers records on its end of a socket pair, as the daemon does for the extension.
class Answerer {
public:
    // `serve` runs in the new process and never returns; it says that it is ready by one message.
    explicit Answerer(const std::function<void(int socket)>& serve);
    ~Answerer();

    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

    // As presentTo.
    Cost answer(const std::vector<std::string>& records, long count, int expectedResult);

    // Presents one record and tells its result.
    int resultOf(const std::string& record);

    pid_t process() const { return process_; }

private:
    pid_t process_ = -1;
    int socket_ = -1;
};

// Presents that many records at a socket, the given ones in turn, 64 of them in flight, and tells what one cost: time,
// and processor time of the answering process. Throws when a result is not the one expected; a negative one stands for
// any.
Cost presentTo(int socket, pid_t process, const std::vector<std::string>& records, long count,
               int expectedResult);

// What `serve` can be: receives and sends as the listener does, and nothing in between.
void serveEcho(int socket);

// The daemon's outbound or inbound listener with its callback, after becomeDaemon.
void serveListener(int socket, bool inbound);

// Puts this process on one of the processors it may use: 0 is the first, 1 the second, if there are two.
void stayOnProcessor(int number);

// Takes that back, for a program that settles by itself.
void useAllProcessors();

// Resident memory of a process in bytes.
double residentBytes(pid_t process);

} // namespace bench
