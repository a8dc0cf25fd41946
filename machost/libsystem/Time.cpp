// Clocks, waits and calendar time.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/FileLayouts.h"
#include "machost/libsystem/Library.h"
#include "machost/world/Clock.h"

#include <cmath>
#include <ctime>

namespace machost::libsystem {
namespace {

// <sys/_types/_timeval.h>: the microseconds have 32 bits.
struct TimeValue {
    std::int64_t seconds;
    std::int32_t microseconds;
};
static_assert(sizeof(TimeValue) == 16 && offsetof(TimeValue, microseconds) == 8);

// struct tm is alike on both systems.
static_assert(sizeof(tm) == 56 && offsetof(tm, tm_gmtoff) == 40 && offsetof(tm, tm_zone) == 48);

int playedGettimeofday(TimeValue* now, void*) {
    if (!now) return 0;
    const std::int64_t microseconds = world::now();
    now->seconds = microseconds / 1000000;
    now->microseconds = static_cast<std::int32_t>(microseconds % 1000000);
    return 0;
}

std::int64_t playedTime(std::int64_t* result) {
    const std::int64_t seconds = world::now() / 1000000;
    if (result) *result = seconds;
    return seconds;
}

int playedUsleep(std::uint32_t microseconds) {
    world::sleep(microseconds);
    return 0;
}

unsigned playedSleep(unsigned seconds) {
    world::sleep(std::int64_t{seconds} * 1000000);
    return 0;
}

int playedNanosleep(const mac::Time* length, mac::Time* left) {
    if (length->seconds < 0 || length->nanoseconds < 0 || length->nanoseconds >= 1000000000)
        return failWith(EINVAL);
    world::sleep(length->seconds * 1000000 + length->nanoseconds / 1000);
    if (left) *left = {};
    return 0;
}

char* playedAsctime(const tm* time, char* room) {
    const ErrorScope scope;
    return asctime_r(time, room); // NOLINT(bugprone-unsafe-functions): the room that the program gave it
}

double playedDifftime(std::int64_t end, std::int64_t start) { return std::difftime(end, start); }

} // namespace

const ImportTable& timeImports() {
    constexpr const char* zone = "localtime.c of Libc, over this system's time zones";
    static const auto& table = *new ImportTable{
        function("_gettimeofday", playedGettimeofday, "gettimeofday(2) of xnu"),
        function("_time", playedTime, "time.c of Libc"),
        function("_usleep", playedUsleep, "usleep.c of Libc"),
        function("_sleep", playedSleep, "sleep.c of Libc"),
        function("_nanosleep", playedNanosleep, "nanosleep.c of Libc"),
        function("_difftime", playedDifftime, "difftime.c of Libc"),
        function("_localtime_r", translated<&localtime_r>, zone),
        function("_gmtime_r", translated<&gmtime_r>, zone),
        function("_mktime", translated<&std::mktime>, zone),
        function("_ctime_r", translated<&ctime_r>, zone),
        function("_asctime_r", playedAsctime, "asctime.c of Libc"),
        function("_strftime", &std::strftime, "strftime.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
