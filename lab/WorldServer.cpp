#include "lab/WorldServer.h"

#include "lab/WorldAnswers.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

namespace lab {
namespace {

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("the world's path is too long");
    path.copy(address.sun_path, path.size());
    // What a process of the same number has left behind, which was killed.
    unlink(path.c_str());
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 64) != 0)
        throw std::runtime_error("no socket for the played world");
    return listener;
}

} // namespace

WorldServer::WorldServer(const std::string& path) : path_(path), listener_(listenAt(path)) {}

WorldServer::~WorldServer() {
    close(listener_);
    unlink(path_.c_str());
}

void WorldServer::serve(pid_t process, const std::function<bool()>& failed) {
    const int ended = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (ended < 0) return;
    for (;;) {
        pollfd waited[] = {{listener_, POLLIN, 0}, {ended, POLLIN, 0}};
        if (poll(waited, 2, -1) < 0) continue;
        if (waited[1].revents) break;
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        std::thread([connection, process, failed] {
            answerQuestion(connection);
            close(connection);
            if (failed()) kill(process, SIGKILL);
        }).detach();
    }
    close(ended);
}

} // namespace lab
