#include "support/PlayedUrlSession.h"

#include "support/Patience.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <utility>

namespace testsupport {

PlayedUrlSession& PlayedUrlSession::install() {
    static auto* session = new PlayedUrlSession;
    platform::urlSessionService.install(*session);
    return *session;
}

PlayedUrlSession::Task PlayedUrlSession::await(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto wanted = static_cast<std::size_t>(count);
    if (!changed_.wait_for(lock, patience, [&] { return tasks_.size() >= wanted; })) {
        ADD_FAILURE() << "tasks started: " << tasks_.size() << " instead of " << count;
        return {};
    }
    EXPECT_EQ(tasks_.size(), wanted);
    return tasks_.back();
}

int PlayedUrlSession::started() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(tasks_.size());
}

void PlayedUrlSession::end(int number, const platform::UrlTaskResult& result) {
    Completion completion;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        completion = tasks_.at(static_cast<std::size_t>(number - 1)).completion;
    }
    std::thread(completion, result).join();
    std::lock_guard<std::mutex> lock(mutex_);
    ++endedTasks_;
    changed_.notify_all();
}

void PlayedUrlSession::endAll(const platform::UrlTaskResult& result) {
    std::lock_guard<std::mutex> lock(mutex_);
    endsAll_ = true;
    resultOfAll_ = result;
}

std::vector<int> PlayedUrlSession::loopRuns() {
    std::lock_guard<std::mutex> lock(mutex_);
    return loopRuns_;
}

void PlayedUrlSession::downloadTask(const char* url, Completion completion) {
    start({url, "", "", std::move(completion)});
}

void PlayedUrlSession::uploadTask(const char* url, const char* method, const std::string& data,
                                  Completion completion) {
    start({url, method, data, std::move(completion)});
}

void PlayedUrlSession::start(Task task) {
    int number = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
        changed_.notify_all();
        if (!endsAll_) return;
        number = static_cast<int>(tasks_.size());
    }
    end(number, resultOfAll_);
}

// Ends early with the end of a task, like the real one; a run in which nothing happens is short.
void PlayedUrlSession::runMainLoop(int seconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    loopRuns_.push_back(seconds);
    changed_.notify_all();
    changed_.wait_for(lock, std::chrono::milliseconds(5),
                      [&, before = endedTasks_] { return endedTasks_ != before; });
}

std::vector<std::string> PlayedFileManager::operations() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return operations_;
}

platform::FileResult PlayedFileManager::removeItem(const char* path) {
    std::lock_guard<std::mutex> lock(mutex_);
    operations_.push_back(std::string("remove ") + path);
    return removal;
}

platform::FileResult PlayedFileManager::moveItem(const char* from, const char* to) {
    std::lock_guard<std::mutex> lock(mutex_);
    operations_.push_back(std::string("move ") + from + " " + to);
    return move;
}

} // namespace testsupport
