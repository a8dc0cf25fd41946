#include "lab/divert/ClientCommand.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace lab {
namespace {

constexpr int notStarted = 127;

// In a child of a process with threads: only what is allowed there.
[[noreturn]] void become(char* const* words, bool hasTerminal) {
    setpgid(0, 0);
    if (hasTerminal) {
        signal(SIGTTOU, SIG_IGN);
        tcsetpgrp(STDIN_FILENO, getpid());
        signal(SIGTTOU, SIG_DFL);
    }
    execvp(words[0], words);
    const char* error = strerror(errno);
    for (const char* text : {"fernhill-lab: ", static_cast<const char*>(words[0]), ": ", error, "\n"}) {
        if (write(STDERR_FILENO, text, std::strlen(text)) < 0) break;
    }
    _exit(notStarted);
}

std::vector<std::string> shell() {
    const char* program = std::getenv("SHELL");
    return {program && *program ? program : "/bin/sh"};
}

} // namespace

ClientCommand::ClientCommand(const std::vector<std::string>& words, bool hasTerminal) {
    std::vector<std::string> all = words.empty() ? shell() : words;
    std::vector<char*> pointers;
    pointers.reserve(all.size() + 1);
    for (std::string& word : all)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) become(pointers.data(), hasTerminal);
    if (pid_ > 0) ending_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (ending_ < 0)
        throw std::runtime_error(std::string("no process for the command: ") + std::strerror(errno));
}

ClientCommand::~ClientCommand() { close(ending_); }

bool ClientCommand::await(int milliseconds) {
    pollfd waiting{ending_, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) != 1) {
        goOn();
        return false;
    }
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return false;
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return true;
}

void ClientCommand::goOn() const {
    siginfo_t stop{};
    if (waitid(P_PID, static_cast<id_t>(pid_), &stop, WSTOPPED | WNOHANG) != 0 || stop.si_pid != pid_) return;
    if (stop.si_status == SIGTSTP) kill(-pid_, SIGCONT);
}

} // namespace lab
