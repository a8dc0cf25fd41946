#include "lab/MacProgram.h"

#include "lab/WorldServer.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <system_error>

namespace lab {
namespace {

constexpr int cannotRun = 99;

constexpr const char* worldName = "fernhill-world-";

// A pipe on which one process tells another that it has come so far.
class Sign {
public:
    Sign() {
        if (pipe(ends_) != 0) _exit(cannotRun);
    }
    ~Sign() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Sign(const Sign&) = delete;
    Sign& operator=(const Sign&) = delete;

    void give() const {
        const char byte = 'r';
        if (write(ends_[1], &byte, 1) != 1) _exit(cannotRun);
    }

    // False when the other process has ended without it.
    bool await() {
        close(ends_[1]);
        char byte = 0;
        const bool came = read(ends_[0], &byte, 1) == 1;
        ends_[1] = -1;
        return came;
    }

private:
    int ends_[2];
};

[[noreturn]] void runServer(const std::string& path, pid_t program, const Sign& ready,
                            const std::function<bool()>& failed) {
    try {
        WorldServer server(path);
        ready.give();
        server.serve(program, failed);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    // Threads may still wait for services, so nothing is taken down.
    unlink(path.c_str());
    _exit(0);
}

// The server is no child of the program, which may wait for children of its own; it ends with the program, not with
// the process that forked it.
void leaveServerBehind(const std::string& path, pid_t program, const Sign& ready,
                       const std::function<bool()>& failed) {
    const pid_t between = fork();
    if (between != 0) {
        waitpid(between, nullptr, 0);
        return;
    }
    Sign detached;
    if (fork() != 0) _exit(detached.await() ? 0 : cannotRun);
    prctl(PR_SET_PDEATHSIG, 0);
    setsid();
    detached.give();
    runServer(path, program, ready, failed);
}

} // namespace

std::string machostPath() { return OSTLER_MACHOST_PATH; }

void removeWorlds(const std::string& root) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(root, ignored))
        if (entry.path().filename().string().rfind(worldName, 0) == 0) fs::remove(entry.path(), ignored);
}

void becomeMacProgram(const std::string& program, const std::string& root,
                      const std::vector<std::string>& words, const std::function<bool()>& failed) {
    // Process numbers are unique only within their namespace, folders everywhere.
    const std::string world = (root.empty() ? "/tmp" : root) + "/" + worldName + std::to_string(getpid());
    {
        Sign ready;
        leaveServerBehind(world, getpid(), ready, failed);
        if (!ready.await()) _exit(cannotRun);
    }

    std::vector<std::string> all = {machostPath(), "--argv0", words[0], "--world", world};
    if (!root.empty()) all.insert(all.end(), {"--root", root});
    all.push_back(program);
    all.insert(all.end(), words.begin() + 1, words.end());
    std::vector<char*> pointers;
    pointers.reserve(all.size() + 1);
    for (std::string& word : all)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    execv(pointers[0], pointers.data());
    std::perror(pointers[0]);
    _exit(cannotRun);
}

} // namespace lab
