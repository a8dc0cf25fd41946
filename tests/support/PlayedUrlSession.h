#pragma once

// Plays the URL session and the file manager: tasks wait until the test ends them, and file operations are
// written down and answered as the test wants.

#include "platform/FileManager.h"
#include "platform/UrlSession.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class PlayedUrlSession final : public platform::UrlSession {
public:
    struct Task {
        std::string url;
        std::string method; // empty for a download
        std::string data;
        Completion completion;
    };

    // Makes this the service for the rest of the process. Never destroyed, since threads may use it to the end.
    static PlayedUrlSession& install();

    // Blocks until so many tasks were started in all and answers the last of them; the test fails when they
    // do not come.
    Task await(int count);

    // How many tasks were started in all.
    int started();

    // Ends the task with that number, counted from 1, on a thread of its own.
    void end(int number, const platform::UrlTaskResult& result);

    // From now on every task ends at once like this.
    void endAll(const platform::UrlTaskResult& result);

    // The lengths that the main loop was asked to run for.
    std::vector<int> loopRuns();

    void downloadTask(const char* url, Completion completion) override;
    void uploadTask(const char* url, const char* method, const std::string& data,
                    Completion completion) override;
    void runMainLoop(int seconds) override;

private:
    void start(Task task);

    std::mutex mutex_; // guards everything below
    std::condition_variable changed_;
    std::deque<Task> tasks_;
    int endedTasks_ = 0;
    std::vector<int> loopRuns_;
    bool endsAll_ = false;
    platform::UrlTaskResult resultOfAll_;
};

class PlayedFileManager final : public platform::FileManager {
public:
    // Makes this the service for the rest of the process.
    void install() { platform::fileManagerService.install(*this); }

    // What each operation answers.
    platform::FileResult removal{true, 0, {}};
    platform::FileResult move{true, 0, {}};

    // The operations so far, such as "remove PATH" and "move FROM TO".
    std::vector<std::string> operations() const;

    platform::FileResult removeItem(const char* path) override;
    platform::FileResult moveItem(const char* from, const char* to) override;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> operations_; // guarded by mutex_
};

} // namespace testsupport
