#include "lab/divert/DivertCommand.h"

#include "lab/CheckedProgram.h"
#include "lab/CsvFile.h"
#include "lab/Stage.h"
#include "lab/divert/ClientCommand.h"
#include "lab/divert/LabNetwork.h"
#include "lab/divert/LabServers.h"
#include "lab/divert/LiveRun.h"
#include "lab/divert/OwnSystem.h"
#include "lab/divert/Recorder.h"
#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <optional>

namespace lab {
namespace {

// Without the daemon in the way.
int runAlone(const DivertOptions& options) {
    const Recorder recorder(options.record);
    if (!options.record.empty()) recordPackets();
    ClientCommand command(options.command, options.hasTerminal);
    while (!command.await(LiveRun::glanceMilliseconds)) {
    }
    return command.status();
}

int runInside(const DivertOptions& options, Policy policy) {
    const PolicyFacts facts{options.policy, policy.ruleCount(), options.blockOnFailure};
    makeNetworks();
    startServers(policy.hosts());
    if (options.way == Way::nothing) return runAlone(options);

    Stage stage(options.root.empty() ? ownFolder + std::string("/root") : options.root, std::move(policy),
                std::nullopt, options.program);
    stage.root.configure(options.blockOnFailure, options.logLevel);
    if (!stage.raise(!options.withoutAgent)) {
        stage.daemon.stop();
        fmt::print(stderr, "fernhill-lab: the daemon did not connect its control sockets; it wrote:\n{}\n",
                   stage.root.outputTail());
        return 1;
    }
    LiveRun run(options, facts, stage);
    const int status = run.play();
    stage.daemon.stop();
    return status;
}

// What is asked for and cannot be had. Throws InputError.
void checkOptions(const DivertOptions& options) {
    checkOneOutput(options.json == "-", options.csv);
    if (options.withoutAgent && options.restartSeconds > 0)
        throw InputError("--no-agent and --restart-agent exclude each other");
    const bool wantsRun =
        !options.json.empty() || !options.csv.empty() || !options.watch.empty() || options.restartSeconds > 0;
    if (options.way == Way::nothing && wantsRun)
        throw InputError("--through nothing has no connections to write and no agent");
    for (const std::string& path : {options.root, options.program, options.table, options.json, options.csv,
                                    options.record, options.watch}) {
        if (!path.empty() && path != "-" && liesInRun(path))
            throw InputError(fmt::format("{}: a live run has a /run of its own, which ends with it", path));
    }
}

} // namespace

int divert(const DivertOptions& options) {
    checkOptions(options);
    DivertOptions whole = options;
    whole.hasTerminal = holdsTerminal();
    whole.program = checkedProgram(options.program);
    Policy policy = Policy::load(options.policy);
    try {
        return runInOwnSystem([&] { return runInside(whole, std::move(policy)); });
    } catch (const UnavailableError& error) {
        throw InputError(error.what());
    }
}

} // namespace lab
