#include "platform/linux/DialogProgram.h"

#include "platform/ChildProcess.h"
#include "platform/EndSignals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>

namespace platform {
namespace {

// The exit status of a program that could not be run.
constexpr char noProgram = 127;

const std::string& textOf(const NotificationDictionary& dictionary, NotificationKey key) {
    static const std::string none;
    for (const auto& entry : dictionary) {
        if (entry.first == key) return entry.second;
    }
    return none;
}

bool isKdialog(const std::string& program) {
    const std::string name = "kdialog";
    return program.size() >= name.size() &&
           program.compare(program.size() - name.size(), name.size(), name) == 0;
}

[[noreturn]] void runProgram(char* const* arguments) {
    for (int changed : {SIGCHLD, SIGPIPE, SIGTERM, SIGINT})
        signal(changed, SIG_DFL);
    restoreChildSignals();
    execv(arguments[0], arguments);
    _exit(noProgram);
}

[[noreturn]] void endHelper(int answer, char code) {
    [[maybe_unused]] const ssize_t written = write(answer, &code, 1);
    _exit(0);
}

// The helper process: waits for the program's end, or for that of the control connection, and reports the exit
// status. Calls only what is allowed between fork and exec.
[[noreturn]] void watchProgram(char* const* arguments, int control, int answer) {
    signal(SIGCHLD, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    // What ends the daemon ends the dialog's program by way of the control connection.
    for (int left : {SIGTERM, SIGINT})
        signal(left, SIG_IGN);
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the forked child has this one thread
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
    const int ends = signalfd(-1, &childEnds, SFD_CLOEXEC);
    const pid_t program = fork();
    if (program == 0) runProgram(arguments);
    // Without a program there is none to wait for, and signalling it would signal every process there is.
    if (program < 0) endHelper(answer, noProgram);

    pollfd waited[2] = {{ends, POLLIN, 0}, {control, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    if (waited[0].revents == 0) kill(program, SIGTERM);
    int status = 0;
    waitpid(program, &status, 0);
    endHelper(answer, WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : noProgram);
}

} // namespace

std::vector<std::string> dialogCommand(const std::string& program, const NotificationDictionary& dictionary) {
    const std::string& header = textOf(dictionary, NotificationKey::alertHeader);
    const std::string& message = textOf(dictionary, NotificationKey::alertMessage);
    const std::string& yes = textOf(dictionary, NotificationKey::defaultButtonTitle);
    const std::string& no = textOf(dictionary, NotificationKey::alternateButtonTitle);
    if (isKdialog(program)) {
        std::vector<std::string> command = {program, "--title", header};
        if (no.empty())
            command.insert(command.end(), {"--ok-label", yes, "--msgbox", message});
        else
            command.insert(command.end(), {"--yes-label", yes, "--no-label", no, "--yesno", message});
        return command;
    }
    std::vector<std::string> command = {program,
                                        no.empty() ? "--info" : "--question",
                                        "--no-markup",
                                        "--title=" + header,
                                        "--text=" + message,
                                        "--ok-label=" + yes};
    if (!no.empty()) command.push_back("--cancel-label=" + no);
    return command;
}

std::string findDialogProgram() {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return {};
    const char* path = std::getenv("PATH");
    for (const char* name : {"zenity", "kdialog"}) {
        std::string rest = path ? path : "/usr/bin:/bin";
        while (!rest.empty()) {
            const std::size_t colon = rest.find(':');
            const std::string candidate = rest.substr(0, colon) + "/" + name;
            if (access(candidate.c_str(), X_OK) == 0) return candidate;
            rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
        }
    }
    return {};
}

void DialogProgram::start(const NotificationDictionary& dictionary) {
    const std::string program = findDialogProgram();
    if (program.empty()) return;
    std::vector<std::string> command = dialogCommand(program, dictionary);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    int control[2];
    int answer[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0) return;
    if (pipe2(answer, O_CLOEXEC) != 0) {
        close(control[0]);
        close(control[1]);
        return;
    }
    helper_ = forkChild();
    if (helper_ == 0) {
        close(control[1]);
        close(answer[0]);
        watchProgram(arguments.data(), control[0], answer[1]);
    }
    close(control[0]);
    close(answer[1]);
    control_ = control[1];
    answer_ = answer[0];
    if (helper_ < 0) stop();
}

unsigned long DialogProgram::answer() const {
    char code = 0;
    if (read(answer_, &code, 1) != 1) return notificationCancelResponse;
    if (code == 0) return notificationDefaultResponse;
    return code == 1 ? notificationAlternateResponse : notificationCancelResponse;
}

void DialogProgram::stop() {
    if (control_ >= 0) {
        // Said in words too: the helper of another dialog may hold this end open.
        [[maybe_unused]] const ssize_t written = send(control_, "", 1, MSG_NOSIGNAL);
        close(control_);
    }
    if (answer_ >= 0) close(answer_);
    // Without a child to ask about, because the system has cleared it away, this comes back at once.
    if (helper_ > 0) {
        while (waitpid(helper_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    helper_ = 0;
    control_ = -1;
    answer_ = -1;
}

} // namespace platform
