#pragma once

// The world of a program that runs under machost: whoever asks is answered by the services that are in force in this
// process, so what is played for the daemon of this build is played for the Mac's alike. What can be asked stands in
// docs/machost.md.

#include <functional>
#include <string>
#include <sys/types.h>

namespace lab {

class WorldServer {
public:
    // Listens at that path, which is removed at the end.
    explicit WorldServer(const std::string& path);
    ~WorldServer();

    WorldServer(const WorldServer&) = delete;
    WorldServer& operator=(const WorldServer&) = delete;

    // Answers, each question on a thread of its own, until that process has ended. When `failed` says after an answer
    // that something is wrong, the process is killed.
    void serve(pid_t process, const std::function<bool()>& failed);

private:
    const std::string path_;
    const int listener_;
};

} // namespace lab
