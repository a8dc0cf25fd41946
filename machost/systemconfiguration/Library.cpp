// The store of the system's state, as far as the console's user and the network's addresses go.

#include "machost/systemconfiguration/Library.h"

#include "machost/corefoundation/Collections.h"
#include "machost/corefoundation/RunLoops.h"
#include "machost/corefoundation/Strings.h"
#include "machost/world/Changes.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace machost::systemconfiguration {
namespace {

namespace cf = corefoundation;

// SCDynamicStoreContext, SCDynamicStoreCallBack
struct Context {
    std::int64_t version;
    void* information;
    const void* (*retain)(const void*);
    void (*release)(const void*);
    const void* (*describe)(const void*);
};
using Callback = void (*)(const void* store, const void* changedKeys, void* information);

constexpr int statusOk = 0, statusFailed = 1001, statusInvalidArgument = 1002;
constexpr std::string_view consoleKey = "State:/Users/ConsoleUser";
constexpr std::string_view networkPrefix = "State:/Network/Service/";

thread_local int lastStatus = statusOk;

// A session with the store. Its watch runs on a thread of its own from the moment keys are set; what it sees is kept
// until a run loop has the source.
class Store {
public:
    Store(std::string name, Callback callback, const Context& context)
        : name_(std::move(name)), callback_(callback), context_(context) {
        if (context_.retain) context_.retain(context_.information);
    }

    ~Store() {
        endWatch();
        if (context_.release) context_.release(context_.information);
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // The status.
    int watch(bool console, bool network, Held keys) {
        endWatch();
        keys_ = std::move(keys);
        int error = 0;
        if (console)
            watch_ = world::watchConsole(name_, error);
        else if (network)
            watch_ = world::watchNetwork(name_, error);
        else
            return statusOk;
        if (!watch_) return error != 0 ? error : statusFailed;
        watcher_ = std::thread([this] {
            while (watch_->next())
                noteChange();
        });
        return statusOk;
    }

    ObjectRef makeSource(const void* self) {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!source_.get()) source_ = Held::adopt(cf::makeSource([this, self] { deliver(self); }));
        if (changed_) cf::signalSource(source_.get());
        return retainObject(source_.get());
    }

private:
    void endWatch() {
        if (!watch_) return;
        watch_->end();
        watcher_.join();
        watch_.reset();
    }

    void noteChange() {
        const std::lock_guard<std::mutex> guard(lock_);
        changed_ = true;
        if (source_.get()) cf::signalSource(source_.get());
    }

    void deliver(const void* self) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (!changed_) return;
            changed_ = false;
        }
        callback_(self, keys_.get(), context_.information);
    }

    const std::string name_;
    const Callback callback_;
    const Context context_;
    Held keys_;
    std::unique_ptr<world::Watch> watch_;
    std::thread watcher_;
    std::mutex lock_; // guards what follows
    bool changed_ = false;
    Held source_;
};

using StorePointer = std::unique_ptr<Store>;
const Class storeClass{nullptr, nullptr, {}, nullptr, "SCDynamicStore", destroyValue<StorePointer>};

ObjectRef playedCreate(const void*, const void* name, Callback callback, const Context* context) {
    lastStatus = statusOk;
    if (!cf::isString(name)) {
        lastStatus = statusInvalidArgument;
        return nullptr;
    }
    return createObject<StorePointer>(
        storeClass, std::make_unique<Store>(cf::textOf(name), callback, context ? *context : Context{}));
}

bool holds(const void* array, std::string_view prefix) {
    if (!array) return false;
    const auto& elements = cf::elementsOf(array);
    return std::any_of(elements.begin(), elements.end(), [&](const Held& element) {
        return cf::isString(element.get()) &&
               cf::textOf(element.get()).compare(0, prefix.size(), prefix) == 0;
    });
}

std::uint8_t playedSetKeys(const void* store, const void* keys, const void* patterns) {
    lastStatus = valueOf<StorePointer>(store)->watch(holds(keys, consoleKey), holds(patterns, networkPrefix),
                                                     Held::retain(keys ? keys : patterns));
    return lastStatus == statusOk;
}

ObjectRef playedCreateSource(const void*, const void* store, std::int64_t) {
    lastStatus = statusOk;
    return valueOf<StorePointer>(store)->makeSource(store);
}

// The numbers of an account and of its group; none for a name without an account.
std::optional<std::pair<uid_t, gid_t>> numbersOf(const std::string& name) {
    passwd account{};
    passwd* found = nullptr;
    std::vector<char> texts(1024);
    while (getpwnam_r(name.c_str(), &account, texts.data(), texts.size(), &found) == ERANGE)
        texts.resize(2 * texts.size());
    if (!found) return std::nullopt;
    return std::pair(found->pw_uid, found->pw_gid);
}

ObjectRef playedConsoleUser(const void*, std::uint32_t* user, std::uint32_t* group) {
    const auto name = world::consoleUser();
    lastStatus = name ? statusOk : 1004; // kSCStatusNoKey
    if (!name) return nullptr;
    const auto account = user || group ? numbersOf(*name) : std::nullopt;
    if (user) *user = account ? account->first : 0;
    if (group) *group = account ? account->second : 0;
    return cf::makeString(*name);
}

ObjectRef playedConsoleKey(const void*) { return cf::makeString(std::string(consoleKey)); }

ObjectRef playedEntityKey(const void*, const void* domain, const void* service, const void* entity) {
    return cf::makeString(cf::textOf(domain) + "/Network/Service/" + cf::textOf(service) +
                          (entity ? "/" + cf::textOf(entity) : ""));
}

int playedError() { return lastStatus; }

constexpr cf::ConstantString constant(std::string_view text) {
    return {&cf::constantStringClass, cf::constantBytes, text.data(), static_cast<std::int64_t>(text.size())};
}
const cf::ConstantString state = constant("State:"), anyService = constant("[^/]+"), ipv4 = constant("IPv4"),
                         ipv6 = constant("IPv6");
const cf::ConstantString* const stateKey = &state;
const cf::ConstantString* const anyServiceKey = &anyService;
const cf::ConstantString* const ipv4Key = &ipv4;
const cf::ConstantString* const ipv6Key = &ipv6;

const ImportTable& storeImports() {
    constexpr const char* open = "SCDOpen.c of configd";
    constexpr const char* notify = "SCDNotifierSetKeys.c and SCDNotifierInformViaCallback.c of configd";
    constexpr const char* keys = "SCSchemaDefinitions.c of configd";
    static const auto& table = *new ImportTable{
        function("_SCDynamicStoreCreate", playedCreate, open),
        function("_SCDynamicStoreSetNotificationKeys", playedSetKeys, notify),
        function("_SCDynamicStoreCreateRunLoopSource", playedCreateSource, notify),
        function("_SCDynamicStoreCopyConsoleUser", playedConsoleUser, "SCDConsoleUser.c of configd"),
        function("_SCDynamicStoreKeyCreateConsoleUser", playedConsoleKey, "SCDConsoleUser.c of configd"),
        function("_SCDynamicStoreKeyCreateNetworkServiceEntity", playedEntityKey, "SCDKeys.c of configd"),
        function("_SCError", playedError, "SCD.c of configd"),
        variable("_kSCDynamicStoreDomainState", &stateKey, keys),
        variable("_kSCCompAnyRegex", &anyServiceKey, keys),
        variable("_kSCEntNetIPv4", &ipv4Key, keys),
        variable("_kSCEntNetIPv6", &ipv6Key, keys),
    };
    return table;
}

} // namespace

Library library() {
    return {"/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/SystemConfiguration",
            {&storeImports()}};
}

} // namespace machost::systemconfiguration
