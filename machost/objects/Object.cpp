#include "machost/objects/Object.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace machost {
namespace {

// What stands in front of an object. The memory of one that has gone is never used again, so that a count which was
// given back too often is found.
struct Head {
    std::atomic<std::int64_t> count;
    std::atomic<pid_t> maker;
};
constexpr std::size_t headSize = 16;
static_assert(sizeof(Head) <= headSize);

Head& headOf(const void* object) {
    return *reinterpret_cast<Head*>(reinterpret_cast<std::uintptr_t>(object) - headSize);
}

struct Registry {
    std::mutex lock;
    std::set<const void*> live;
    std::vector<const void*> gone; // what keeps their memory from counting as lost
    std::set<const Class*> constants;
};

Registry& registry() {
    static auto& one = *new Registry;
    return one;
}

bool isConstant(const void* object) {
    if (isClass(object)) return true;
    const std::lock_guard<std::mutex> guard(registry().lock);
    return registry().constants.count(classOf(object)) != 0;
}

[[noreturn]] void endOverCount(const void* object, const char* what) {
    const char* name = classOf(object)->name;
    std::fprintf(stderr, "machost: %s a %s that has gone\n", what, name ? name : "program's object");
    std::abort();
}

} // namespace

ObjectRef allocateObject(const Class& kind, std::size_t size) {
    auto* room = static_cast<char*>(std::calloc(1, headSize + size));
    if (!room) std::abort();
    new (room) Head{{1}, {gettid()}};
    void* object = room + headSize;
    *static_cast<const Class**>(object) = &kind;
    const std::lock_guard<std::mutex> guard(registry().lock);
    registry().live.insert(object);
    return object;
}

ObjectRef retainObject(ObjectRef object) {
    if (!object || isConstant(object)) return object;
    if (headOf(object).count.fetch_add(1) <= 0) endOverCount(object, "retain of");
    return object;
}

void releaseObject(ObjectRef object) {
    if (!object || isConstant(object)) return;
    const std::int64_t left = headOf(object).count.fetch_sub(1) - 1;
    if (left < 0) endOverCount(object, "release of");
    if (left > 0) return;
    if (const auto destroy = classOf(object)->destroy) destroy(object);
    const std::lock_guard<std::mutex> guard(registry().lock);
    registry().live.erase(object);
    registry().gone.push_back(object);
}

void giveToThisThread(ObjectRef object) {
    if (!isConstant(object)) headOf(object).maker = gettid();
}

const Class* classOf(const void* object) { return *static_cast<const Class* const*>(object); }

const Class rootClass{&classOfClasses, nullptr, {}, nullptr, "NSObject", nullptr};
const Class classOfClasses{&classOfClasses, &rootClass, {}, nullptr, "class", nullptr};

bool isClass(const void* object) { return classOf(object) == &classOfClasses; }

void declareConstantClass(const Class& kind) {
    const std::lock_guard<std::mutex> guard(registry().lock);
    registry().constants.insert(&kind);
}

std::unique_lock<std::mutex> lockObjects() { return std::unique_lock(registry().lock); }

bool isOwnThreadOrGone(pid_t thread) {
    return thread == gettid() || syscall(SYS_tgkill, getpid(), thread, 0) != 0;
}

int reportLeaks() {
    std::map<std::string, int> left;
    int count = 0;
    const std::lock_guard<std::mutex> guard(registry().lock);
    for (const void* object : registry().live) {
        if (!isOwnThreadOrGone(headOf(object).maker)) continue;
        const char* name = classOf(object)->name;
        ++left[name ? name : "program's object"];
        ++count;
    }
    for (const auto& [name, number] : left)
        std::fprintf(stderr, "machost: %d %s never released\n", number, name.c_str());
    return count;
}

} // namespace machost
