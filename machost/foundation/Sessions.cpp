// NSURLSession: tasks of transfers, each on a thread of its own.

#include "machost/Block.h"
#include "machost/Settings.h"
#include "machost/corefoundation/Values.h"
#include "machost/foundation/Errors.h"
#include "machost/foundation/Information.h"
#include "machost/foundation/Library.h"
#include "machost/foundation/Requests.h"
#include "machost/libsystem/Paths.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"
#include "machost/world/Downloads.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace machost::foundation {
namespace {

namespace cf = corefoundation;
namespace fs = std::filesystem;
using objc::Selector;
using world::Transfer;
using world::Transferred;

extern const Class configurationClass, sessionClass, sharedSessionClass, taskClass, uploadTaskClass,
    downloadTaskClass;

// A session keeps itself until it was invalidated and its last task has ended; the shared one for ever.
class Session {
public:
    explicit Session(bool isShared) : isShared_(isShared) {}

    void taskMade() {
        const std::lock_guard<std::mutex> guard(lock_);
        ++tasks_;
    }

    // Whether the session is to let go of itself.
    bool taskEnded() {
        const std::lock_guard<std::mutex> guard(lock_);
        --tasks_;
        return hasEnded();
    }
    bool invalidate() {
        const std::lock_guard<std::mutex> guard(lock_);
        if (isShared_ || invalidated_) return false;
        invalidated_ = true;
        return hasEnded();
    }

private:
    bool hasEnded() const { return invalidated_ && tasks_ == 0; }

    const bool isShared_;
    std::mutex lock_; // guards what follows
    int tasks_ = 0;
    bool invalidated_ = false;
};

using SessionPointer = std::unique_ptr<Session>;

Session& sessionOf(const void* object) { return *valueOf<SessionPointer>(object); }

// Owns its copy of the handler.
struct Task {
    Task(const void* ofSession, Transfer asked, const Block* block)
        : session(Held::retain(ofSession)), transfer(std::move(asked)), handler(copyBlock(block)) {}
    ~Task() { releaseBlock(handler); }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    Held session;
    const Transfer transfer;
    Block* const handler;
    std::atomic<bool> hasStarted{false};
};
using TaskPointer = std::unique_ptr<Task>;

Task& taskOf(const void* object) { return *valueOf<TaskPointer>(object); }

// The fetched file where the program finds it, by the program's path; taken away with the object.
class PlacedFile {
public:
    explicit PlacedFile(const std::string& fetched) : path_(fetched) {
        if (fetched.empty() || libsystem::hostPath(fetched.c_str()) == fetched) return;
        path_ = "/tmp/" + fs::path(fetched).filename().string() + ".tmp";
        copy_ = settings().root + path_;
        std::error_code error;
        fs::create_directories(settings().root + "/tmp", error);
        fs::copy_file(fetched, copy_, error);
        if (error) path_.clear();
    }
    ~PlacedFile() {
        if (!copy_.empty()) unlink(copy_.c_str());
    }
    PlacedFile(const PlacedFile&) = delete;
    PlacedFile& operator=(const PlacedFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::string copy_;
};

ObjectRef errorOf(const Transferred& result) {
    if (result.error == 0) return nullptr;
    return makeError({urlDomain, result.error, result.problem, {}});
}

void tellDownload(const Task& task, const Transferred& result) {
    const objc::Pool pool;
    const PlacedFile file(result.file);
    ObjectRef location = file.path().empty() ? nullptr : objc::autorelease(cf::makeFileUrl(file.path()));
    callBlock(task.handler, location, makeResponse(result.status), errorOf(result));
}

// What came back is not played; nobody of ours looks at it.
void tellUpload(const Task& task, const Transferred& result) {
    const objc::Pool pool;
    ObjectRef data = result.error ? nullptr : objc::createAutoreleased<std::string>(cf::dataClass);
    callBlock(task.handler, data, makeResponse(result.status), errorOf(result));
}

// What the session refuses before anything is asked; nothing wrong for a URL that it takes.
Transferred refusal(const std::string& url) {
    const auto parts = cf::parseUrl(url);
    const std::string scheme = parts ? parts->scheme : "";
    if (scheme != "http" && scheme != "https") return {0, {}, -1002, "unsupported URL"};
    if (scheme == "http" && !allowsPlainHttp())
        return {0,
                {},
                -1022,
                "The resource could not be loaded because the App Transport Security policy requires the use "
                "of a "
                "secure connection."};
    return {};
}

void run(ObjectRef object) {
    const Task& task = taskOf(object);
    const auto tell = [&](const Transferred& result) {
        if (classOf(object) == &downloadTaskClass)
            tellDownload(task, result);
        else
            tellUpload(task, result);
    };
    const Transferred refused = refusal(task.transfer.url);
    if (refused.error != 0)
        tell(refused);
    else
        world::transfer(task.transfer, tell);
    const Held session = Held::retain(task.session.get());
    releaseObject(object);
    if (sessionOf(session.get()).taskEnded()) releaseObject(session.get());
}

ObjectRef makeTask(const Class& kind, ObjectRef session, Transfer transfer, const Block* handler) {
    sessionOf(session).taskMade();
    return objc::createAutoreleased<TaskPointer>(
        kind, std::make_unique<Task>(session, std::move(transfer), handler));
}

ObjectRef defaultConfiguration(ObjectRef, Selector) {
    return objc::createAutoreleased<int>(configurationClass);
}

// Nobody owns it.
ObjectRef sharedSession(ObjectRef, Selector) {
    declareConstantClass(sharedSessionClass);
    static auto& shared = *new Instance<SessionPointer>{&sharedSessionClass, std::make_unique<Session>(true)};
    return &shared;
}

ObjectRef sessionWithConfiguration(ObjectRef, Selector, const void*) {
    ObjectRef session = createObject<SessionPointer>(sessionClass, std::make_unique<Session>(false));
    return objc::autorelease(retainObject(session));
}

ObjectRef downloadTask(ObjectRef self, Selector, const void* url, const Block* handler) {
    return makeTask(downloadTaskClass, self, {"GET", url ? cf::urlOf(url).text : "", {}}, handler);
}

ObjectRef uploadTask(ObjectRef self, Selector, const void* request, const void* data, const Block* handler) {
    const auto& asked = valueOf<Request>(request);
    const std::string url = asked.url.get() ? cf::urlOf(asked.url.get()).text : "";
    return makeTask(uploadTaskClass, self, {asked.method, url, data ? cf::bytesOf(data) : ""}, handler);
}

void finishAndInvalidate(ObjectRef self, Selector) {
    if (sessionOf(self).invalidate()) releaseObject(self);
}

// A task that runs keeps itself, and is no leak if the program ends meanwhile.
void resume(ObjectRef self, Selector) {
    if (taskOf(self).hasStarted.exchange(true)) return;
    retainObject(self);
    std::thread([self] {
        giveToThisThread(self);
        giveToThisThread(taskOf(self).session.get());
        run(self);
    }).detach();
}

const Class configurationClass{&classOfClasses, &rootClass, {}, nullptr, "NSURLSessionConfiguration",
                               nullptr};
const Class sessionClass{&classOfClasses, &rootClass,     {},
                         nullptr,         "NSURLSession", destroyValue<SessionPointer>};
const Class sharedSessionClass{&classOfClasses, &sessionClass, {}, nullptr, "shared NSURLSession", nullptr};
const Class taskClass{&classOfClasses, &rootClass, {}, nullptr, "NSURLSessionTask", nullptr};
const Class uploadTaskClass{&classOfClasses,          &taskClass, {}, nullptr, "NSURLSessionUploadTask",
                            destroyValue<TaskPointer>};
const Class downloadTaskClass{&classOfClasses,          &taskClass, {}, nullptr, "NSURLSessionDownloadTask",
                              destroyValue<TaskPointer>};

} // namespace

const ImportTable& sessionImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSURLSession", &sessionClass, "NSURLSession.h"),
        variable("_OBJC_CLASS_$_NSURLSessionConfiguration", &configurationClass, "NSURLSession.h"),
    };
    return table;
}

std::vector<const objc::PlayedClass*> playedSessionClasses() {
    constexpr const char* source = "NSURLSession.h and NSURLError.h";
    static const auto& configuration = *new objc::PlayedClass{
        &configurationClass, source, {objc::method("defaultSessionConfiguration", defaultConfiguration)}, {}};
    static const auto& session =
        *new objc::PlayedClass{&sessionClass,
                               source,
                               {objc::method("sharedSession", sharedSession),
                                objc::method("sessionWithConfiguration:", sessionWithConfiguration)},
                               {objc::method("downloadTaskWithURL:completionHandler:", downloadTask),
                                objc::method("uploadTaskWithRequest:fromData:completionHandler:", uploadTask),
                                objc::method("finishTasksAndInvalidate", finishAndInvalidate)}};
    static const auto& task =
        *new objc::PlayedClass{&taskClass, source, {}, {objc::method("resume", resume)}};
    static const auto& upload = *new objc::PlayedClass{&uploadTaskClass, source, {}, {}};
    static const auto& download = *new objc::PlayedClass{&downloadTaskClass, source, {}, {}};
    return {&configuration, &session, &task, &upload, &download};
}

} // namespace machost::foundation
