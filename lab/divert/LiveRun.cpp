#include "lab/divert/LiveRun.h"

#include "lab/divert/ClientCommand.h"
#include "lab/divert/LabNetwork.h"
#include "lab/divert/ProcessFigures.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <thread>

namespace lab {
namespace {

// What is still on its way when the command has ended: the last packets of its connections.
constexpr std::chrono::milliseconds lastPackets(100);

// How long a restarted agent is away.
constexpr std::chrono::milliseconds agentAway(500);

} // namespace

LiveRun::File LiveRun::openFile(const std::string& path) {
    if (path.empty()) return {nullptr, std::fclose};
    if (path == "-") return {stdout, std::fflush};
    File file(std::fopen(path.c_str(), "we"), std::fclose);
    if (!file) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    setvbuf(file.get(), nullptr, _IOLBF, 0);
    return file;
}

LiveRun::LiveRun(const DivertOptions& options, const PolicyFacts& facts, Stage& stage)
    : options_(options), stage_(stage), tableFile_(openFile(options.table)), json_(openFile(options.json)),
      watch_(openFile(options.watch)), csv_(options.csv, connectionColumns),
      table_(tableFile_ ? tableFile_.get() : stderr),
      diverter_(stage.extension, stage.agent, table_, csv_, json_.get(), options.way == Way::daemon),
      recorder_(std::make_unique<Recorder>(options.record)) {
    divertPackets(!options.record.empty());
    table_.beginLive(facts);
    diverter_.start();
}

int LiveRun::play() {
    ClientCommand command(options_.command, options_.hasTerminal);
    while (!command.await(glanceMilliseconds)) {
        const Moment now = std::chrono::steady_clock::now();
        diverter_.report();
        if (watch_) watch(now);
        if (options_.restartSeconds > 0) restartAgent(now);
    }
    const bool alive = stage_.daemon.running();
    std::this_thread::sleep_for(lastPackets);
    finish();
    if (!alive)
        fmt::print(stderr, "fernhill-lab: the daemon has ended ({}); it wrote:\n{}\n", stage_.daemon.ending(),
                   stage_.root.outputTail());
    const bool failed = !alive || diverter_.totals().unanswered > 0;
    return failed && command.status() == 0 ? 1 : command.status();
}

void LiveRun::finish() {
    recorder_.reset();
    diverter_.stop();
    diverter_.finish();
    csv_.finish();
    table_.liveSummary(diverter_.totals(), options_.root.empty() ? "" : stage_.root.path());
}

void LiveRun::watch(Moment now) {
    if (now < watched_) return;
    watched_ += std::chrono::seconds(1);
    const ProcessFigures figures = figuresOf(stage_.daemon.pid());
    const PolicyAgent::Counters counters = stage_.agent.counters();
    nlohmann::ordered_json row;
    row["second"] = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
    row["threads"] = figures.threads;
    row["descriptors"] = figures.descriptors;
    row["residentKilobytes"] = figures.residentKilobytes;
    row["questions"] = counters.questions;
    row["answers"] = counters.answers + counters.retriesSent;
    row["logons"] = counters.logons;
    row["restarts"] = restarts_;
    row["held"] = diverter_.heldConnections();
    fmt::print(watch_.get(), "{}\n", row.dump());
}

void LiveRun::restartAgent(Moment now) {
    if (now < restarted_ + std::chrono::seconds(options_.restartSeconds)) return;
    restarted_ = now;
    ++restarts_;
    stage_.agent.stop();
    std::this_thread::sleep_for(agentAway);
    stage_.agent.listen();
    stage_.agent.start();
}

} // namespace lab
