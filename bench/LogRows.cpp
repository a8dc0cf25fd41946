#include "bench/DaemonState.h"
#include "bench/Groups.h"

#include "gp/GPLog.h"
#include "platform/HostPaths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace bench {
namespace {

constexpr char text[] =
    "[1] OstCommFilterQueryThread redirectURL: http://localhost:6543/block_screen.html/?id=error";

} // namespace

// The bare loop writes lines of the same length by the same calls: open, look whose file it is, write, close, and look
// whether the file is full.
void logRows(const Effort& effort) {
    becomeDaemon();
    setMaxLogSize(1 << 20); // kilobytes: no rotation
    logs(text);
    const std::string bare = std::string(platform::HostPaths::logDirectory()) + "/bare.log";
    const std::string line = std::string("[12345 Sun Nov 22 06:00:00 2026]: ") + text + "\n";
    const long count = effort.count(2000);
    const Side own = [count] {
        return costOf(count, [count] {
            for (long i = 0; i < count; ++i)
                logs(text);
        });
    };
    const Side reference = [count, &bare, &line] {
        return costOf(count, [count, &bare, &line] {
            for (long i = 0; i < count; ++i) {
                struct stat entry;
                const int file = open(
                    bare.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
                if (file < 0 || fstat(file, &entry) != 0 ||
                    write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
                    close(file) != 0 || lstat(bare.c_str(), &entry) != 0)
                    throw std::runtime_error("the bare log cannot be written");
            }
        });
    };
    row({"a log line", "the same system calls in a bare loop"}, inTurns(own, reference, effort.rounds()),
        atMost(1.15));
}

} // namespace bench
