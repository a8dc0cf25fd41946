#pragma once

// A kernel extension that the test plays: each control socket that the daemon opens is one end of a socket
// pair, and the test holds the other.

#include "platform/KernelControl.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sysctl_result;

namespace testsupport {

class PlayedKernelControl final : public platform::KernelControl {
public:
    // Puts this service in force for the rest of the process; it must live as long.
    void install() { platform::kernelControlService.install(*this); }

    // What the extension does; all of it works unless told.
    void refuseSockets() { socketsFail_ = true; }
    void forget(const std::string& controlName) { unknown_ = controlName; }
    void refuseConnections() { connectionsFail_ = true; }
    void answerVersion(std::int32_t version) { version_ = version; }
    void failVersion() { versionFails_ = true; }
    void failLogLevel() { logLevelFails_ = true; }

    // Waits until the control of that name is connected; the test's end of it, -1 after the tests' patience.
    int waitForControl(const std::string& name);

    // The test's end of the control socket opened last, connected or not; -1 before the first.
    int lastOpened();

    // The test's end of the control socket that the option was last set or read on; -1 for none.
    int optionSocket(int option);

    // How often option 224 was read, with the length asked for last; the log level set last.
    int statisticsReads();
    socklen_t statisticsLength();
    std::string statisticsBuffer();
    std::optional<std::int32_t> logLevelSet();

    // Waits until the statistics were read that often; false after the tests' patience.
    bool waitForStatistics(int reads);

    int open() override;
    int controlId(int socket, const char* name, std::uint32_t& id) override;
    int connect(int socket, std::uint32_t id) override;
    int setOption(int socket, int option, const void* value, socklen_t length) override;
    int getOption(int socket, int option, void* value, socklen_t& length) override;

private:
    void noteOption(int socket, int option);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, int> otherEnds_;
    std::map<int, int> optionSockets_;
    std::vector<std::string> names_;
    std::map<std::string, int> connected_;
    std::string unknown_;
    std::string statisticsBuffer_;
    std::optional<std::int32_t> logLevelSet_;
    std::int32_t version_ = 8;
    socklen_t statisticsLength_ = 0;
    int statisticsReads_ = 0;
    int lastOpened_ = -1;
    bool socketsFail_ = false;
    bool connectionsFail_ = false;
    bool versionFails_ = false;
    bool logLevelFails_ = false;
};

// A new played extension that lasts as long as the process: listener threads outlive their test.
PlayedKernelControl& lastingKernelControl();

// Sends one record to the daemon.
void sendRecord(int control, const std::string& record);

// Receives the daemon's next result record; nothing when none comes within a short while.
std::optional<sysctl_result> receiveResult(int control, int milliseconds = 2000);

} // namespace testsupport
