#include "platform/ThreadNumber.h"

#include <pthread.h>

namespace platform {

std::uint64_t threadNumber() {
    std::uint64_t number = 0;
    pthread_threadid_np(pthread_self(), &number);
    return number;
}

} // namespace platform
