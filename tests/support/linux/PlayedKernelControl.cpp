#include "support/PlayedKernelControl.h"

#include "support/Patience.h"

#include "packet/SysctlResult.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace testsupport {
namespace {

int failWith(int error) {
    errno = error;
    return -1;
}

} // namespace

int PlayedKernelControl::waitForControl(const std::string& name) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool there = changed_.wait_for(lock, patience, [&] { return connected_.count(name) != 0; });
    return there ? connected_[name] : -1;
}

int PlayedKernelControl::lastOpened() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastOpened_;
}

int PlayedKernelControl::optionSocket(int option) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto at = optionSockets_.find(option);
    return at == optionSockets_.end() ? -1 : at->second;
}

void PlayedKernelControl::noteOption(int socket, int option) {
    const auto other = otherEnds_.find(socket);
    optionSockets_[option] = other == otherEnds_.end() ? -1 : other->second;
}

int PlayedKernelControl::statisticsReads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statisticsReads_;
}

socklen_t PlayedKernelControl::statisticsLength() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statisticsLength_;
}

std::string PlayedKernelControl::statisticsBuffer() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statisticsBuffer_;
}

std::optional<std::int32_t> PlayedKernelControl::logLevelSet() {
    std::lock_guard<std::mutex> lock(mutex_);
    return logLevelSet_;
}

bool PlayedKernelControl::waitForStatistics(int reads) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return statisticsReads_ >= reads; });
}

int PlayedKernelControl::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    int ends[2];
    if (socketsFail_ || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return failWith(EMFILE);
    otherEnds_[ends[0]] = lastOpened_ = ends[1];
    return ends[0];
}

int PlayedKernelControl::controlId(int, const char* name, std::uint32_t& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (name == unknown_) return failWith(ENOENT);
    names_.emplace_back(name);
    id = static_cast<std::uint32_t>(names_.size());
    return 0;
}

int PlayedKernelControl::connect(int socket, std::uint32_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (connectionsFail_) return failWith(ECONNREFUSED);
    connected_[names_.at(id - 1)] = otherEnds_.at(socket);
    changed_.notify_all();
    return 0;
}

int PlayedKernelControl::setOption(int socket, int option, const void* value, socklen_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    noteOption(socket, option);
    std::int32_t level = 0;
    if (logLevelFails_ || option != 70 || length != sizeof level) return failWith(EINVAL);
    std::memcpy(&level, value, sizeof level);
    logLevelSet_ = level;
    return 0;
}

int PlayedKernelControl::getOption(int socket, int option, void* value, socklen_t& length) {
    std::lock_guard<std::mutex> lock(mutex_);
    noteOption(socket, option);
    if (option == 201 && !versionFails_ && length == sizeof version_) {
        std::memcpy(value, &version_, sizeof version_);
        return 0;
    }
    if (option != 224) return failWith(ENOPROTOOPT);
    statisticsBuffer_.assign(static_cast<const char*>(value));
    statisticsLength_ = length;
    ++statisticsReads_;
    changed_.notify_all();
    return 0;
}

PlayedKernelControl& lastingKernelControl() {
    static auto& made = *new std::vector<std::unique_ptr<PlayedKernelControl>>;
    made.push_back(std::make_unique<PlayedKernelControl>());
    return *made.back();
}

void sendRecord(int control, const std::string& record) {
    ASSERT_EQ(static_cast<ssize_t>(record.size()), send(control, record.data(), record.size(), MSG_NOSIGNAL));
}

std::optional<sysctl_result> receiveResult(int control, int milliseconds) {
    pollfd waiting{control, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) != 1) return {};
    sysctl_result result{};
    char record[2 * sizeof result];
    const ssize_t count = recv(control, record, sizeof record, 0);
    if (count != sizeof result) {
        ADD_FAILURE() << "a result record of " << count << " bytes";
        return {};
    }
    std::memcpy(&result, record, sizeof result);
    return result;
}

} // namespace testsupport
