#include "platform/Clock.h"

#include <sys/time.h>
#include <unistd.h>

namespace platform {
namespace {

class SystemClock final : public Clock {
public:
    std::int64_t microseconds() override {
        timeval now{};
        gettimeofday(&now, nullptr);
        return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
    }

    std::time_t seconds() override { return ::time(nullptr); }

    void sleepMicroseconds(unsigned microseconds) override { usleep(microseconds); }

    // NOLINTNEXTLINE(concurrency-mt-unsafe): no system here takes the alarm for it
    void sleepSeconds(unsigned seconds) override { ::sleep(seconds); }

    std::int64_t eventWaitLimit(int seconds) override { return static_cast<std::int64_t>(seconds) * 1000000; }
};

SystemClock systemClock;

} // namespace

Service<Clock> clockService{&systemClock};

} // namespace platform
