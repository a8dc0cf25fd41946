#include "agent/AgentLink.h"

#include "gp/GPDate.h"
#include "gp/GPSockets.h"

#include <cerrno>

namespace {

constexpr int settlingSeconds = 300;

} // namespace

AgentLink& agentLink = *new AgentLink;

std::uint32_t AgentLink::nextSequence() {
    const std::uint32_t number = sequenceNum_.load(std::memory_order_relaxed);
    sequenceNum_.store(number + 1, std::memory_order_relaxed);
    return number;
}

bool AgentLink::sendBytes(const char* frame, std::size_t length, int& error) {
    if (length == 0) {
        error = EMSGSIZE;
        return false;
    }
    GPMutexLock lock(&commandMutex);
    // Closed since the caller looked, or just being replaced by a socket that somebody else still opens.
    if (!isOpened()) {
        error = ENOTCONN;
        return false;
    }
    errno = 0;
    const bool sent = socket()->send(frame, static_cast<int>(length));
    error = errno;
    return sent;
}

void AgentLink::replaceSocket(GPSockets* replacement) {
    GPMutexLock lock(&commandMutex);
    markClosed();
    socket_ = replacement;
}

void AgentLink::closeSocket() {
    GPMutexLock lock(&commandMutex);
    socket()->closeConnection();
}

void AgentLink::reopenSocket() {
    GPMutexLock lock(&commandMutex);
    socket()->openConnection();
}

void AgentLink::beginReading() {
    responseThreadRunning_ = 1;
    GPDate* start = GPDate::now();
    start->timeInFuture(settlingSeconds);
    GPMutexLock lock(&startedMutex);
    if (responseThreadStarted_) responseThreadStarted_->release();
    responseThreadStarted_ = start;
}

GPDate* AgentLink::responseThreadStarted() {
    GPMutexLock lock(&startedMutex);
    return responseThreadStarted_ ? new GPDate(static_cast<long>(responseThreadStarted_->toRawTime()))
                                  : nullptr;
}
