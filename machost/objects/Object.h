#pragma once

// The objects that the frameworks hand out: of Core Foundation and of Objective-C, which are the same on the Mac. An
// object begins with its class; its count stands in front of it. Counts are real: a release too many ends the process,
// and what is left at the end of the program is told. Any thread.

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <new>
#include <utility>

namespace machost {

// A class as the compiler lays it out, and behind that what only the played ones have.
struct Class {
    const Class* isa = nullptr;
    const Class* superclass = nullptr;
    const void* cache[2] = {};
    const void* data = nullptr;

    const char* name = nullptr;
    void (*destroy)(void* object) = nullptr; // takes down what lies behind the class; null where nothing does
};
static_assert(offsetof(Class, superclass) == 8 && offsetof(Class, data) == 32 && offsetof(Class, name) == 40);

using ObjectRef = void*;

// Room for an object with a count of 1, cleared. Ends the process when there is none.
ObjectRef allocateObject(const Class& kind, std::size_t size);

// Null is allowed. Objects that the program itself holds as constants have no count.
ObjectRef retainObject(ObjectRef object);
void releaseObject(ObjectRef object);

// Has the object count as one that this thread made. Called where another thread goes on with it.
void giveToThisThread(ObjectRef object);

const Class* classOf(const void* object);

// NSObject, of which all classes that take messages are kinds, and what every such class is an object of. Classes have
// no count.
extern const Class rootClass, classOfClasses;

bool isClass(const void* object);

// Has objects of this class stand in the program, without a count.
void declareConstantClass(const Class& kind);

// What a leak at the end of the program makes its status, in a played world; elsewhere it is only told.
constexpr int leakStatus = 71;

// Whether what a thread of this process holds counts as left: another that still runs may be using it.
bool isOwnThreadOrGone(pid_t thread);

// Tells on standard error which objects are still there, but for those that a running thread made: it may be using
// them. The number of those told.
int reportLeaks();

// The lock of all that is counted. Held around a fork, so that the child finds it free.
std::unique_lock<std::mutex> lockObjects();

// An object of a played class with a C++ value behind the class.
template <class Value>
struct Instance {
    const Class* isa;
    Value value;
};

template <class Value>
Value& valueOf(const void* object) {
    return static_cast<Instance<Value>*>(const_cast<void*>(object))->value;
}

template <class Value>
void destroyValue(void* object) {
    valueOf<Value>(object).~Value();
}

// The caller owns the result.
template <class Value, class... Arguments>
ObjectRef createObject(const Class& kind, Arguments&&... arguments) {
    ObjectRef object = allocateObject(kind, sizeof(Instance<Value>));
    new (&static_cast<Instance<Value>*>(object)->value) Value{std::forward<Arguments>(arguments)...};
    return object;
}

// One reference, held for a scope or by a value.
class Held {
public:
    Held() = default;
    static Held adopt(ObjectRef object) { return Held(object); }
    static Held retain(const void* object) { return Held(retainObject(const_cast<void*>(object))); }
    Held(Held&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Held& operator=(Held&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() { releaseObject(object_); }

    ObjectRef get() const { return object_; }

private:
    explicit Held(ObjectRef object) : object_(object) {}

    ObjectRef object_ = nullptr;
};

} // namespace machost
