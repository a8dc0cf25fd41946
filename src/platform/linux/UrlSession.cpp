#include "platform/UrlSession.h"

#include "platform/Clock.h"
#include "platform/linux/UrlTransfer.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace platform {
namespace {

// Counts the tasks that have ended. Never destroyed: tasks may still run when the process exits.
struct EndedTasks {
    std::mutex mutex;
    std::condition_variable more;
    unsigned count = 0; // guarded by mutex

    static EndedTasks& shared() {
        static auto* tasks = new EndedTasks;
        return *tasks;
    }
};

// Runs one task on a thread of its own. The completion comes last, when the thread has given back all that
// the transfer took: the process may end as soon as somebody was told. A file that the task fetched is deleted
// behind it. Where there can be no thread the task ends at once, without a response.
template <class Task>
void startTask(Task task, const UrlSession::Completion& completion) {
    try {
        std::thread([task = std::move(task), completion] {
            const UrlTaskResult result = task();
            OPENSSL_thread_stop();
            completion(result);
            if (!result.location.empty()) unlink(result.location.c_str());
            EndedTasks& ended = EndedTasks::shared();
            std::lock_guard<std::mutex> lock(ended.mutex);
            ++ended.count;
            ended.more.notify_all();
        }).detach();
    } catch (const std::system_error& error) {
        completion({{}, 0, error.what()});
    }
}

class CurlSession final : public UrlSession {
public:
    void downloadTask(const char* url, Completion completion) override {
        startTask([address = std::string(url)] { return UrlTransfer(address.c_str()).download(); },
                  completion);
    }

    void uploadTask(const char* url, const char* method, const std::string& data,
                    Completion completion) override {
        startTask([address = std::string(url), verb = std::string(method),
                   data] { return UrlTransfer(address.c_str()).upload(verb.c_str(), data); },
                  completion);
    }

    void runMainLoop(int seconds) override {
        // An end that came since the thread's last run, just before this one, counts too.
        static thread_local unsigned seen = 0;
        const std::chrono::microseconds limit(clock().eventWaitLimit(seconds));
        EndedTasks& ended = EndedTasks::shared();
        std::unique_lock<std::mutex> lock(ended.mutex);
        ended.more.wait_for(lock, limit, [&ended] { return ended.count != seen; });
        seen = ended.count;
    }
};

CurlSession curlSession;

} // namespace

Service<UrlSession> urlSessionService{&curlSession};

} // namespace platform
