#include "lab/ReplayCommand.h"

#include "lab/CheckedProgram.h"
#include "lab/ConnectionRows.h"
#include "lab/CsvFile.h"
#include "lab/HtmlReport.h"
#include "lab/OneProcessor.h"
#include "lab/PrivateNetwork.h"
#include "lab/Replay.h"
#include "lab/Stage.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace lab {
namespace {

// What of the daemon's log the lab reads: the line at which a query is resolved, and, where the policy
// pushes, the line at which a configuration frame has been taken in.
constexpr int verdictLogLevel = 64;
constexpr int agentLogLevel = 1;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openAsked(const std::string& path) {
    if (path.empty()) return {nullptr, std::fclose};
    File file(std::fopen(path.c_str(), "w"), std::fclose);
    if (!file) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    return file;
}

void finishAsked(const File& file, const std::string& path) {
    if (file && (std::fflush(file.get()) != 0 || std::ferror(file.get())))
        throw InputError(fmt::format("{}: it cannot be written", path));
}

// Whether rows for programs go to standard output, so that the table does not.
bool takesStandardOutput(const ReplayOptions& options) { return options.json == "-" || options.csv == "-"; }

void writeReports(const ReplayOptions& options, const TableReport& table, const Totals& totals) {
    if (!options.csv.empty()) writeCsv(options.csv, table.rows());
    if (options.report.empty()) return;
    writeHtmlReport(options.report, std::filesystem::path(options.captures.front()).filename().string(),
                    table.rows(), totals);
    if (!takesStandardOutput(options)) fmt::print("The whole of it, for a browser: {}\n", options.report);
}

// Where the daemon's clock begins.
std::int64_t firstTime(const std::vector<CaptureFacts>& facts) {
    for (const CaptureFacts& capture : facts) {
        if (capture.firstTime) return capture.firstTime;
    }
    return 0;
}

} // namespace

int replay(const ReplayOptions& options) {
    checkOneOutput(options.json == "-", options.csv);
    Policy policy = Policy::load(options.policy);
    const PolicyFacts rules{options.policy, policy.ruleCount(), options.blockOnFailure};
    std::vector<CaptureFacts> facts;
    facts.reserve(options.captures.size());
    for (const std::string& capture : options.captures)
        facts.push_back(survey(capture));
    JsonReport json(options.json);
    const File asked = openAsked(options.asked);
    TableReport table(takesStandardOutput(options) ? nullptr : stdout, options.rows,
                      !options.report.empty() || !options.csv.empty());

    enterPrivateNetwork();
    shareOneProcessor();
    const int logLevel = verdictLogLevel | (policy.pushes().empty() ? 0 : agentLogLevel);
    Stage stage(options.root, std::move(policy), firstTime(facts), checkedProgram(options.program));
    stage.root.configure(options.blockOnFailure, logLevel);
    if (!stage.raise()) {
        stage.daemon.stop();
        fmt::print(stderr, "fernhill-lab: the daemon did not connect its control sockets; it wrote:\n{}\n",
                   stage.root.outputTail());
        return 1;
    }

    Replay engine(stage.extension, stage.agent, stage.daemon, stage.clock, json, table, asked.get());
    const auto began = std::chrono::steady_clock::now();
    bool alive = true;
    for (std::size_t i = 0; i < options.captures.size(); ++i) {
        table.begin(options.captures[i], facts[i], rules);
        alive = engine.play(options.captures[i], facts[i]);
        table.end();
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    json.finish();
    finishAsked(asked, options.asked);
    table.summary(engine.totals(), took.count(), options.root.empty() ? "" : stage.root.path());
    writeReports(options, table, engine.totals());
    stage.daemon.stop();
    if (!alive)
        fmt::print(stderr, "fernhill-lab: {}; it wrote:\n{}\n", engine.fault(), stage.root.outputTail());
    return engine.totals().unanswered == 0 && alive ? 0 : 1;
}

} // namespace lab
