#include "bench/Workers.h"

#include "packet/PacketFilter.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "platform/KernelControl.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

constexpr int inFlight = 64;

// The driver looks for answers at times of its own: nobody is woken for each, and records enough are in flight
// meanwhile for the answering process not to wait.
void pause() {
    const timespec time = {0, 40000};
    nanosleep(&time, nullptr);
}

// Forks; the child has its end of a socket pair, does `work` and never comes back.
template <class DoWork>
pid_t forkWith(int type, int& ownEnd, DoWork work) {
    int ends[2];
    if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket pair");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        try {
            work(ends[1]);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
        _exit(1);
    }
    close(ends[1]);
    ownEnd = ends[0];
    return child;
}

void end(pid_t process, int socket) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    close(socket);
}

void sendRecord(int socket, const std::string& record) {
    if (send(socket, record.data(), record.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(record.size()))
        throw std::runtime_error("a record is not taken");
}

// Takes the results that are there, and tells how many.
long receiveAll(int socket, int expectedResult) {
    sysctl_result result;
    for (long answered = 0;; ++answered) {
        const ssize_t size = recv(socket, &result, sizeof result, MSG_DONTWAIT);
        if (size < 0 && errno == EAGAIN) return answered;
        if (size != sizeof result) throw std::runtime_error("a record is not answered");
        if (expectedResult >= 0 && static_cast<int>(result.result) != expectedResult)
            throw std::runtime_error("a record got the result " + std::to_string(result.result));
    }
}

// Hands the listener its end of a socket pair in place of the extension's control socket.
class GivenSocket final : public platform::KernelControl {
public:
    explicit GivenSocket(int socket) : socket_(socket) {}

    int open() override { return socket_; }
    int controlId(int, const char*, std::uint32_t& id) override {
        id = 1;
        return 0;
    }
    // From here on the listener receives.
    int connect(int socket, std::uint32_t) override { return ::send(socket, "r", 1, 0) == 1 ? 0 : -1; }
    int setOption(int, int, const void*, socklen_t) override { return 0; }
    int getOption(int, int, void* value, socklen_t& length) override {
        std::memset(value, 0, length);
        const std::int32_t version = 8;
        std::memcpy(value, &version, sizeof version);
        return 0;
    }

private:
    int socket_;
};

// Those that there are at first: a process that is forked by one that has settled already may go elsewhere.
const cpu_set_t& usableProcessors() {
    static const cpu_set_t usable = [] {
        cpu_set_t found;
        CPU_ZERO(&found);
        sched_getaffinity(0, sizeof found, &found);
        return found;
    }();
    return usable;
}

} // namespace

void stayOnProcessor(int number) {
    const cpu_set_t& usable = usableProcessors();
    for (int processor = 0, seen = 0; processor < CPU_SETSIZE; ++processor) {
        if (!CPU_ISSET(processor, &usable) || seen++ != number) continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(processor, &one);
        sched_setaffinity(0, sizeof one, &one);
        return;
    }
}

void useAllProcessors() { sched_setaffinity(0, sizeof(cpu_set_t), &usableProcessors()); }

double residentBytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    double size = 0;
    double resident = 0;
    file >> size >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

Worker::Worker(const std::function<Work()>& prepare) {
    process_ = forkWith(SOCK_SEQPACKET, channel_, [&prepare](int channel) {
        const Work work = prepare();
        for (int which = -1; ::send(channel, &which, sizeof which, 0) == sizeof which;) {
            if (recv(channel, &which, sizeof which, 0) != sizeof which) return;
            const Cost cost = work(which);
            if (::send(channel, &cost, sizeof cost, 0) != sizeof cost) return;
        }
    });
    int ready = 0;
    if (recv(channel_, &ready, sizeof ready, 0) != sizeof ready)
        throw std::runtime_error("a worker does not come up");
}

Worker::~Worker() { end(process_, channel_); }

Cost Worker::run(int which) {
    Cost cost;
    int ready = 0;
    if (::send(channel_, &which, sizeof which, 0) != sizeof which ||
        recv(channel_, &cost, sizeof cost, 0) != sizeof cost ||
        recv(channel_, &ready, sizeof ready, 0) != sizeof ready)
        throw std::runtime_error("a worker has ended");
    return cost;
}

Answerer::Answerer(const std::function<void(int socket)>& serve) {
    process_ = forkWith(SOCK_SEQPACKET, socket_, [&serve](int socket) {
        stayOnProcessor(1);
        serve(socket);
    });
    char ready = 0;
    if (recv(socket_, &ready, 1, 0) != 1) throw std::runtime_error("an answering process does not come up");
    stayOnProcessor(0);
    prctl(PR_SET_TIMERSLACK, 1);
}

Answerer::~Answerer() { end(process_, socket_); }

int Answerer::resultOf(const std::string& record) {
    sendRecord(socket_, record);
    sysctl_result result;
    if (recv(socket_, &result, sizeof result, 0) != sizeof result)
        throw std::runtime_error("a record is not answered");
    return static_cast<int>(result.result);
}

Cost Answerer::answer(const std::vector<std::string>& records, long count, int expectedResult) {
    return presentTo(socket_, process_, records, count, expectedResult);
}

Cost presentTo(int socket, pid_t process, const std::vector<std::string>& records, long count,
               int expectedResult) {
    const double processor = processorSeconds(process);
    const double wall = secondsNow();
    long sent = 0;
    for (long answered = 0; answered < count;) {
        for (const long due = std::min(count, answered + inFlight); sent < due; ++sent)
            sendRecord(socket, records[static_cast<std::size_t>(sent) % records.size()]);
        pause();
        answered += receiveAll(socket, expectedResult);
    }
    const auto operations = static_cast<double>(count);
    return {(secondsNow() - wall) / operations, (processorSeconds(process) - processor) / operations};
}

void serveEcho(int socket) {
    static char buffer[65535];
    sysctl_result result{};
    ::send(socket, "r", 1, 0);
    while (recv(socket, buffer, sizeof buffer, 0) > 0) {
        std::memcpy(&result, buffer, sizeof result.packetId);
        if (::send(socket, &result, sizeof result, 0) != sizeof result) return;
    }
}

void serveListener(int socket, bool inbound) {
    static GivenSocket control(socket);
    platform::kernelControlService.install(control);
    osxKextInterface(inbound, inbound ? tcpInBoundCallback : tcpOutBoundCallback);
}

} // namespace bench
