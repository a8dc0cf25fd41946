#include "machost/world/DialogProgram.h"

#include "machost/world/Clock.h"
#include "machost/world/World.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace machost::world {
namespace {

using Texts = std::vector<std::pair<std::string, std::string>>;

// Response flags of a notification.
constexpr unsigned long defaultButton = 0, alternateButton = 1, cancelled = 3;

constexpr char notRun = 127;

std::string textOf(const Texts& texts, const char* key) {
    for (const auto& [known, text] : texts)
        if (known == key) return text;
    return {};
}

std::string onPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    for (std::string left = path ? path : "/usr/bin:/bin"; !left.empty();) {
        const std::size_t end = left.find(':');
        const std::string candidate = left.substr(0, end) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        left.erase(0, end == std::string::npos ? end : end + 1);
    }
    return {};
}

Words commandOf(const Texts& texts) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return {};
    const std::string header = textOf(texts, "AlertHeader"), message = textOf(texts, "AlertMessage");
    const std::string yes = textOf(texts, "DefaultButtonTitle"), no = textOf(texts, "AlternateButtonTitle");
    Words words;
    if (const std::string zenity = onPath("zenity"); !zenity.empty()) {
        words = {zenity,
                 no.empty() ? "--info" : "--question",
                 "--no-markup",
                 "--title=" + header,
                 "--text=" + message,
                 "--ok-label=" + yes};
        if (!no.empty()) words.push_back("--cancel-label=" + no);
    } else if (const std::string kdialog = onPath("kdialog"); !kdialog.empty()) {
        words = {kdialog, "--title", header};
        if (no.empty())
            words.insert(words.end(), {"--ok-label", yes, "--msgbox", message});
        else
            words.insert(words.end(), {"--yes-label", yes, "--no-label", no, "--yesno", message});
    }
    return words;
}

// Gives a new process back what the program may have changed of signals.
void resetSignals() {
    for (const int number : {SIGCHLD, SIGPIPE, SIGTERM, SIGINT})
        signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the forked child has this one thread
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Runs the dialog's program until it ends or the other side of `control` goes, and writes its status. Only what is
// allowed between fork and exec.
[[noreturn]] void watch(char* const* words, int control, int answer) {
    resetSignals();
    signal(SIGPIPE, SIG_IGN);
    const pid_t program = fork();
    if (program == 0) {
        signal(SIGPIPE, SIG_DFL);
        execv(words[0], words);
        _exit(notRun);
    }
    char code = notRun;
    if (program > 0) {
        const int ended = static_cast<int>(syscall(SYS_pidfd_open, program, 0));
        pollfd waited[] = {{ended, POLLIN, 0}, {control, POLLIN, 0}};
        while (poll(waited, 2, -1) < 0 && errno == EINTR) {
        }
        if (waited[0].revents == 0) kill(program, SIGTERM);
        int status = 0;
        waitpid(program, &status, 0);
        if (WIFEXITED(status)) code = static_cast<char>(WEXITSTATUS(status));
    }
    [[maybe_unused]] const ssize_t written = write(answer, &code, 1);
    _exit(0);
}

class DesktopDialog final : public Dialog {
public:
    DesktopDialog(double seconds, int control, int answer)
        : seconds_(seconds), control_(control), answer_(answer) {}
    ~DesktopDialog() override {
        close(control_);
        close(answer_);
    }
    DesktopDialog(const DesktopDialog&) = delete;
    DesktopDialog& operator=(const DesktopDialog&) = delete;

    unsigned long awaitAnswer() override {
        constexpr double longest = 1000000;
        const auto limit = static_cast<std::int64_t>(std::min(seconds_, longest) * 1e6);
        const int milliseconds = seconds_ > 0 ? static_cast<int>(eventLimit(limit) / 1000) : -1;
        pollfd waited{answer_, POLLIN, 0};
        int ready = 0;
        do
            ready = poll(&waited, 1, milliseconds);
        while (ready < 0 && errno == EINTR);
        char code = notRun;
        if (ready > 0 && read(answer_, &code, 1) != 1) code = notRun;
        cancel();
        if (code == 0) return defaultButton;
        return code == 1 ? alternateButton : cancelled;
    }

    void cancel() override { shutdown(control_, SHUT_RDWR); }

private:
    const double seconds_;
    const int control_; // shutting it down ends the dialog's program
    const int answer_;  // the program's status comes here
};

// The watching process is nobody's child here: the program never meets it in a wait of its own.
bool leaveWatcher(const Words& command, int control, int answer) {
    Words words = command;
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    const pid_t between = fork();
    if (between == 0) {
        const pid_t watcher = fork();
        if (watcher == 0) watch(pointers.data(), control, answer);
        _exit(0);
    }
    if (between > 0) waitpid(between, nullptr, 0);
    return between > 0;
}

} // namespace

std::unique_ptr<Dialog> showOnDesktop(double seconds, const Texts& texts) {
    const Words command = commandOf(texts);
    int control[2], answer[2];
    if (command.empty() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0) return nullptr;
    if (pipe2(answer, O_CLOEXEC) != 0) {
        close(control[0]);
        close(control[1]);
        return nullptr;
    }
    const bool watched = leaveWatcher(command, control[1], answer[1]);
    close(control[1]);
    close(answer[1]);
    auto dialog = std::make_unique<DesktopDialog>(seconds, control[0], answer[0]);
    return watched ? std::move(dialog) : nullptr;
}

} // namespace machost::world
