// Mutexes, conditions and once-objects, in the Mac's room for them. These calls answer the Mac's error numbers and
// leave errno alone.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/FileLayouts.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/ThreadLayouts.h"

#include <pthread.h>

#include <cstring>

namespace machost::libsystem {
namespace {

// The host's mutex lies in the room. One of zeroes is made and plain, so a static mutex of the Mac is in order as it
// stands; only the recursive and checking ones have to be made when they are first met.
static_assert(sizeof(pthread_mutex_t) <= sizeof(mac::Mutex::room));

pthread_mutex_t makingLock = PTHREAD_MUTEX_INITIALIZER;

pthread_mutex_t* roomOf(mac::Mutex* mutex) { return reinterpret_cast<pthread_mutex_t*>(mutex->room); }

std::int64_t signatureOf(const std::int64_t& signature) {
    return __atomic_load_n(&signature, __ATOMIC_ACQUIRE);
}
void setSignature(std::int64_t& signature, std::int64_t value) {
    __atomic_store_n(&signature, value, __ATOMIC_RELEASE);
}

int hostType(int mac) {
    if (mac == mac::mutexRecursive) return PTHREAD_MUTEX_RECURSIVE;
    return mac == mac::mutexErrorCheck ? PTHREAD_MUTEX_ERRORCHECK : PTHREAD_MUTEX_NORMAL;
}

void makeMutex(mac::Mutex* mutex, int macType) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, hostType(macType));
    pthread_mutex_init(roomOf(mutex), &attributes);
    pthread_mutexattr_destroy(&attributes);
    setSignature(mutex->signature, mac::mutexMade);
}

// The host's mutex; null for what is none.
pthread_mutex_t* hostMutex(mac::Mutex* mutex) {
    const std::int64_t signature = signatureOf(mutex->signature);
    if (signature == mac::mutexMade || signature == mac::mutexStatic) return roomOf(mutex);
    if (signature != mac::mutexStaticRecursive && signature != mac::mutexStaticErrorCheck) return nullptr;
    pthread_mutex_lock(&makingLock);
    if (signatureOf(mutex->signature) != mac::mutexMade)
        makeMutex(mutex, signature == mac::mutexStaticRecursive ? mac::mutexRecursive : mac::mutexErrorCheck);
    pthread_mutex_unlock(&makingLock);
    return roomOf(mutex);
}

int& typeOf(mac::MutexAttributes* attributes) { return *reinterpret_cast<int*>(attributes->room); }

int playedAttributesInit(mac::MutexAttributes* attributes) {
    *attributes = {mac::mutexAttributesMade, {}};
    return 0;
}

int playedAttributesDestroy(mac::MutexAttributes* attributes) {
    if (attributes->signature != mac::mutexAttributesMade) return macError(EINVAL);
    attributes->signature = 0;
    return 0;
}

int playedSetType(mac::MutexAttributes* attributes, int type) {
    const bool known = type >= mac::mutexNormal && type <= mac::mutexRecursive;
    if (!known || attributes->signature != mac::mutexAttributesMade) return macError(EINVAL);
    typeOf(attributes) = type;
    return 0;
}

int playedMutexInit(mac::Mutex* mutex, mac::MutexAttributes* attributes) {
    if (attributes && attributes->signature != mac::mutexAttributesMade) return macError(EINVAL);
    std::memset(mutex->room, 0, sizeof mutex->room);
    makeMutex(mutex, attributes ? typeOf(attributes) : mac::mutexNormal);
    return 0;
}

int playedMutexDestroy(mac::Mutex* mutex) {
    pthread_mutex_t* host = hostMutex(mutex);
    if (!host) return macError(EINVAL);
    const int error = pthread_mutex_destroy(host);
    if (error == 0) setSignature(mutex->signature, 0);
    return macError(error);
}

template <auto call>
int onMutex(mac::Mutex* mutex) {
    pthread_mutex_t* host = hostMutex(mutex);
    return host ? macError(call(host)) : macError(EINVAL);
}

// A host condition is larger than the room, so the room points at it. The object of a static condition is made when
// it is first met, and stays.
pthread_cond_t* hostCondition(mac::Condition* condition) {
    auto** place = reinterpret_cast<pthread_cond_t**>(condition->room);
    const std::int64_t signature = signatureOf(condition->signature);
    if (signature == mac::conditionMade) return *place;
    if (signature != mac::conditionStatic) return nullptr;
    pthread_mutex_lock(&makingLock);
    if (signatureOf(condition->signature) == mac::conditionStatic) {
        *place = new pthread_cond_t PTHREAD_COND_INITIALIZER;
        setSignature(condition->signature, mac::conditionMade);
    }
    pthread_mutex_unlock(&makingLock);
    return *place;
}

int playedConditionDestroy(mac::Condition* condition) {
    pthread_cond_t* host = hostCondition(condition);
    if (!host) return macError(EINVAL);
    pthread_cond_destroy(host);
    delete host;
    setSignature(condition->signature, 0);
    return 0;
}

template <auto call>
int onCondition(mac::Condition* condition) {
    pthread_cond_t* host = hostCondition(condition);
    return host ? macError(call(host)) : macError(EINVAL);
}

int playedConditionWait(mac::Condition* condition, mac::Mutex* mutex) {
    pthread_cond_t* host = hostCondition(condition);
    pthread_mutex_t* lock = hostMutex(mutex);
    return host && lock ? macError(pthread_cond_wait(host, lock)) : macError(EINVAL);
}

int playedConditionTimedWait(mac::Condition* condition, mac::Mutex* mutex, const mac::Time* limit) {
    pthread_cond_t* host = hostCondition(condition);
    pthread_mutex_t* lock = hostMutex(mutex);
    if (!host || !lock) return macError(EINVAL);
    const timespec until{limit->seconds, limit->nanoseconds};
    return macError(pthread_cond_timedwait(host, lock, &until));
}

// Others that come while the function runs wait for its end.
int playedOnce(mac::Once* once, void (*run)()) {
    static_assert(sizeof(pthread_once_t) <= sizeof(mac::Once::room) && PTHREAD_ONCE_INIT == 0);
    const std::int64_t signature = signatureOf(once->signature);
    if (signature != mac::onceStatic && signature != mac::onceMade) return macError(EINVAL);
    pthread_once(reinterpret_cast<pthread_once_t*>(once->room), run);
    setSignature(once->signature, mac::onceMade);
    return 0;
}

} // namespace

const ImportTable& lockImports() {
    constexpr const char* mutex = "pthread_mutex.c of libpthread, without its order of waiters";
    constexpr const char* condition = "pthread_cond.c of libpthread";
    static const auto& table = *new ImportTable{
        function("_pthread_mutexattr_init", playedAttributesInit, mutex),
        function("_pthread_mutexattr_destroy", playedAttributesDestroy, mutex),
        function("_pthread_mutexattr_settype", playedSetType, mutex),
        function("_pthread_mutex_init", playedMutexInit, mutex),
        function("_pthread_mutex_destroy", playedMutexDestroy, mutex),
        function("_pthread_mutex_lock", onMutex<&pthread_mutex_lock>, mutex),
        function("_pthread_mutex_trylock", onMutex<&pthread_mutex_trylock>, mutex),
        function("_pthread_mutex_unlock", onMutex<&pthread_mutex_unlock>, mutex),
        function("_pthread_cond_destroy", playedConditionDestroy, condition),
        function("_pthread_cond_signal", onCondition<&pthread_cond_signal>, condition),
        function("_pthread_cond_broadcast", onCondition<&pthread_cond_broadcast>, condition),
        function("_pthread_cond_wait", playedConditionWait, condition),
        function("_pthread_cond_timedwait", playedConditionTimedWait, condition),
        function("_pthread_once", playedOnce, "pthread_once of libpthread's pthread.c"),
    };
    return table;
}

} // namespace machost::libsystem
