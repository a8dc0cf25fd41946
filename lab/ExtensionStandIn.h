#pragma once

// The stand-in for the kernel extension: serves both control sockets of a root folder, answers their options,
// presents packet records to the daemon and takes its result records.

#include "packet/SysctlResult.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace lab {

enum class Direction { in, out };

// A record goes over in one message, or its header alone and the packet behind it.
enum class RecordForm { whole, headerFirst };

class ExtensionStandIn {
public:
    // Serves under `root`; `version` is what option 201 answers.
    explicit ExtensionStandIn(std::string root, std::int32_t version = 8);
    ~ExtensionStandIn();

    ExtensionStandIn(const ExtensionStandIn&) = delete;
    ExtensionStandIn& operator=(const ExtensionStandIn&) = delete;

    // Makes the sockets, so that the control names are known. Throws std::runtime_error.
    void listen();

    // Starts answering options; `listen` comes first.
    void start();

    // Waits until the daemon has connected both controls; false after that many real milliseconds for either.
    // Can be called again.
    bool waitForDaemon(int milliseconds);

    // Presents one packet and waits for its result record; nothing when the daemon did not answer within
    // that many real milliseconds. One thread at a time for each direction.
    std::optional<sysctl_result> present(Direction direction, const std::vector<char>& packet,
                                         int milliseconds, RecordForm form = RecordForm::whole);

    // Sends one message of any bytes, for which no result is waited; false when it does not go out.
    bool sendBytes(Direction direction, const std::vector<char>& bytes);

    // The next result of that direction, whatever it answers; nothing when none comes within that many real
    // milliseconds.
    std::optional<sysctl_result> awaitAnyResult(Direction direction, int milliseconds);

    // Whether the daemon has sent no result but those that were waited for. To be asked between presentations.
    bool hasOnlyAnswered() const;

    // False once the daemon has been found to have closed a control.
    bool connected() const { return connected_; }

    // Closes all sockets and ends the thread.
    void stop();

    // Descriptors that a forked child has no use for.
    std::vector<int> descriptors() const;

private:
    using Time = std::chrono::steady_clock::time_point;

    static bool sendRecord(int channel, const std::vector<char>& record, RecordForm form, Time limit);
    std::optional<sysctl_result> awaitResult(int channel, std::uint64_t id, Time limit);
    void serveOptions();
    void answerOption(int client) const;

    std::string root_;
    std::int32_t version_;
    int listeners_[2] = {-1, -1};
    int optionListeners_[2] = {-1, -1};
    int channels_[2] = {-1, -1};
    int wakeUp_ = -1;
    std::atomic<bool> connected_{true};
    std::atomic<std::uint64_t> nextId_{1};
    std::atomic<bool> hasStrays_{false};
    std::vector<char> records_[2]; // the one that is presented, for each direction
    std::thread thread_;
};

} // namespace lab
