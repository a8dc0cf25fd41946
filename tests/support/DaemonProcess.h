#pragma once

// The whole daemon in a forked child, below the test's root: the shipped program on the real clock, over a
// played console, network and name service. The console is at the test's hand; the extension and the agent
// are whoever serves the control sockets and the agent's port. One for each process, made before any thread
// is started, so that the child has all of itself.

#include "support/LockList.h"
#include "support/ThreadList.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

class DaemonProcess {
public:
    // Claims the fixed ports and forks. The child waits for `start`; PATH and the root are those of now. What
    // `surroundings` installs in the child is played beside the rest.
    explicit DaemonProcess(const std::function<void()>& surroundings = {});

    // Kills the child.
    ~DaemonProcess();

    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Lets the daemon start with this user at the console; with nobody there for an empty name.
    void start(const std::string& consoleUser = "alice");

    // Another user, or nobody, comes to the console, and the daemon is notified.
    void changeConsoleUser(const std::string& name);

    void signal(int number);

    bool running();

    // Waits for the end; the exit status, or -1 for another end or none.
    int awaitEnd();

    // What it has printed; standard output is only complete after the end.
    std::string output() const;

    // The messages of the log so far, of all threads or of the main thread alone.
    std::vector<std::string> log() const;
    std::vector<std::string> mainLog() const;

    // Whether some message contains the text, or comes to do so.
    bool logs(const std::string& text) const;
    bool awaitLog(const std::string& text) const;

    // What it has named its watch of the console.
    std::string sessionName() const;

    pid_t process() const { return process_; }
    const ThreadList& threads() const { return threads_; }
    const LockList& locks() const { return locks_; }

    // The platform UUID that the registry tells.
    static constexpr char uuid[] = "11111111-2222-3333-4444-555555555555";

private:
    [[noreturn]] void runChild(int commands, const std::function<void()>& surroundings);
    void command(const std::string& line) const;

    ThreadList threads_;
    LockList locks_;
    pid_t process_ = -1;    // -1 once its end has been taken
    pid_t mainThread_ = -1; // as the log numbers it
    int commands_ = -1;
};

} // namespace testsupport
