#pragma once

// The daemon under test: the shipped program in a forked child, under a scratch root and on a played clock or
// the machine's own, its output read line by line.

#include "lab/Descriptor.h"
#include "lab/PlayedClock.h"
#include "lab/ProcessSpace.h"
#include "lab/RootFolder.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace lab {

class DaemonRun {
public:
    // Null for the clock leaves the daemon the machine's own. `program` is the build to run, as checkedProgram
    // answers it; empty for this build's own. What `surroundings`
    // installs in the child is played beside the rest.
    DaemonRun(const RootFolder& root, PlayedClock* clock, std::string program = {},
              std::function<void()> surroundings = {});
    ~DaemonRun();

    DaemonRun(const DaemonRun&) = delete;
    DaemonRun& operator=(const DaemonRun&) = delete;

    // Forks; the child closes `foreign` and runs the daemon with its log echoed. To be called before any
    // thread is started.
    void start(const std::vector<int>& foreign);

    // Asks the daemon to end, kills it after two seconds, and waits for it; with a given program, for all of its
    // processes.
    void stop();

    // Ends the daemon and all processes of a given program at once. From then on whoever asks after it waits for ever,
    // so that no thread tells of an end that the lab has brought about: the lab is to end now. On any thread.
    void endForGood();

    // How the daemon has ended: "status 1", "signal 9"; empty while it runs.
    const std::string& ending() const { return ending_; }

    // The given program, if any.
    const std::string& program() const { return program_; }

    // Why a given program was not run, once it has ended; empty when it was.
    std::string refusal() const;

    bool running();
    pid_t pid();

    // How many queries the daemon has resolved so far, with or without an open record.
    long resolved();

    // Waits until `resolved` is at least `count`; false after that many real milliseconds.
    bool waitForResolved(long count, int milliseconds);

    // Waits until the daemon has taken in at least `count` configuration frames, which it tells at log level
    // 1; false after that many real milliseconds.
    bool waitForSettings(long count, int milliseconds);

private:
    static void takeOutput(Descriptor output, const std::vector<int>& foreign);
    void becomeProgramOfThisSystem(int reason) const;
    [[noreturn]] void runSystemProgram(int reason, int refusal) const;
    [[noreturn]] void runDaemon();
    void send(int signal);
    void endNow();
    void killAndBury();
    void readOutput(const Descriptor& output);
    void takeLine(const std::string& line);
    bool waitFor(const long& number, long count, int milliseconds);
    void noteEnding(int status);

    const RootFolder& root_;
    PlayedClock* const clock_;
    const std::string program_;
    const std::function<void()> surroundings_;
    int ended_ = -1;     // a pidfd of the daemon
    Descriptor refusal_; // what a program of this system that was not run leaves
    std::thread reader_;

    std::mutex life_;    // guards the three below, once the daemon has been started
    ProcessSpace space_; // of a given program
    pid_t pid_ = -1;
    std::string ending_;

    std::mutex mutex_; // guards all below
    std::condition_variable changed_;
    long resolved_ = 0;
    long settings_ = 0;
    bool silent_ = false; // the output has come to its end
};

} // namespace lab
