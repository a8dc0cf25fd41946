#include "bench/Groups.h"
#include "bench/QuickAgent.h"
#include "bench/Traffic.h"
#include "bench/WholeProgram.h"

namespace bench {
namespace {

struct Mix {
    Records out = recordedMix(false);
    Records in = recordedMix(true);

    void present(const RunningProgram& program, long count) const {
        program.answer(false, out, count / 2);
        program.answer(true, in, count / 2);
    }
};

} // namespace

void programRows(const Effort& effort) {
    const Mix mix;
    enterOwnMachine();
    row({"fernhill -v", "a bare process with the same libraries"},
        inTurns([] { return runToEnd("/fernhill", "-v"); }, [] { return runToEnd("/bare", "-v"); },
                effort.rounds(101)),
        atMost(1.2));

    const QuickAgent agent(false);
    const ControlSockets sockets;
    const std::string record = dataRecords(600).front();
    const auto start = [&](const char* program) {
        return [&, program] { return RunningProgram(sockets, program, record).untilFirstVerdict(); };
    };
    row({"from exec to the first verdict",
         "a bare process with the same libraries, sockets, threads and child"},
        inTurns(start("/fernhill"), start("/bare"), effort.rounds(31)), atMost(1.3));

    const long half = effort.count(500000);
    const RunningProgram bare(sockets, "/bare", record);
    mix.present(bare, 2 * half);
    const RunningProgram daemon(sockets, "/fernhill", record);
    mix.present(daemon, half);
    const double early = daemon.residentBytes();
    mix.present(daemon, half);
    const double late = daemon.residentBytes();
    const std::string million = effort.quick ? "some" : "a million";
    row({"resident memory after " + million + " packet records", "the same bare process"}, "B", late,
        bare.residentBytes(), atMost(1.3));
    row({"resident memory after " + million + " packet records", "after half of them"}, "B", late, early,
        atMost(1.01));
}

} // namespace bench
