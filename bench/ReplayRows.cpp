#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "packet/SysctlResult.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

constexpr long captures = 8;

// Plays the recorded mix that often, one capture behind the other.
double replaySeconds(long times) {
    std::vector<std::string> words = {OSTLER_BINARY_DIR "/lab/fernhill-lab", "replay"};
    words.insert(words.end(), static_cast<std::size_t>(times), OSTLER_CAPTURES "/many.pcap");
    words.insert(words.end(), {"--policy", OSTLER_POLICIES "/demo.policy"});
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    const double begin = secondsNow();
    const pid_t child = fork();
    if (child == 0) {
        useAllProcessors();
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) throw std::runtime_error("the replay fails");
    return secondsNow() - begin;
}

} // namespace

// The time of a start and an end of the lab, which one capture shows too, is left out.
void replayRows(const Effort& effort) {
    const Records mix = recordedMix(false);
    const auto packets = static_cast<double>(mix.size() + recordedMix(true).size());
    const Side replay = [packets] {
        const double one = replaySeconds(1);
        const double wall = (replaySeconds(1 + captures) - one) / (packets * captures);
        return Cost{wall, 0};
    };
    Answerer listener([&mix](int socket) {
        becomeDaemon();
        allowRequests(mix);
        serveListener(socket, false);
    });
    const long count = effort.count(20000);
    const Side loop = [&] { return Cost{listener.answer(mix, count, resultPass).wall, 0}; };
    row({"replay of a capture by the lab, a packet", "the verdict loop over the same packets"},
        inTurns(replay, loop, effort.rounds()), atLeast(0.5));
}

} // namespace bench
