#include "lab/CompareCommand.h"

#include "lab/CsvFile.h"
#include "lab/PrivateNetwork.h"
#include "lab/Replay.h"
#include "lab/Stage.h"
#include "lab/Terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <tuple>

namespace lab {
namespace {

using nlohmann::ordered_json;

// What of the daemon's log a replay needs.
constexpr int verdictLogLevel = 64;
constexpr int agentLogLevel = 1;

constexpr char noConnection[] = "no connection";

std::string nameOf(const std::string& path) { return std::filesystem::path(path).filename().string(); }

Outcome outcomeOf(const Connection& connection) {
    std::string verdict = verdictText(connection);
    if (connection.redirected && !connection.queries.empty())
        verdict += " to " + connection.queries.back().decision.redirect;
    return {verdict, answerText(connection), connection.heldTime};
}

// Another answer alone, such as a second asking, changes nothing for who waits.
bool isSame(const Outcome& one, const Outcome& other) {
    return one.verdict == other.verdict && one.held == other.held;
}

using Key = std::tuple<std::int64_t, std::string, std::string>;

std::map<Key, const Connection*> byKey(const std::vector<ConnectionRow>& rows) {
    std::map<Key, const Connection*> connections;
    for (const ConnectionRow& row : rows)
        connections[{row.at, row.connection.local.text(), row.connection.remote.text()}] = &row.connection;
    return connections;
}

void addUrls(std::map<std::string, std::string>& answers, const std::vector<ConnectionRow>& rows) {
    for (const ConnectionRow& row : rows)
        for (const Query& query : row.connection.queries)
            answers[query.url] = query.decision.action == Action::block ? "block " + query.decision.redirect
                                                                        : answerTextOf(query);
}

// One capture under one policy, in a daemon of its own.
std::vector<ConnectionRow> played(const std::string& capture, const CaptureFacts& facts,
                                  const std::string& policyFile, bool blockOnFailure) {
    Policy policy = Policy::load(policyFile);
    const int logLevel = verdictLogLevel | (policy.pushes().empty() ? 0 : agentLogLevel);
    Stage stage("", std::move(policy), facts.firstTime);
    stage.root.configure(blockOnFailure, logLevel);
    if (!stage.raise()) {
        stage.daemon.stop();
        throw InputError("the daemon did not connect its control sockets; it wrote:\n" +
                         stage.root.outputTail());
    }
    JsonReport json("");
    TableReport table(nullptr, 0, true);
    table.showProgress();
    Replay engine(stage.extension, stage.agent, stage.daemon, stage.clock, json, table, nullptr);
    const bool alive = engine.play(capture, facts);
    table.end();
    stage.daemon.stop();
    if (!alive) throw InputError(fmt::format("{}: {}", capture, engine.fault()));
    requireAnswers(capture, policyFile, engine.totals());
    return table.rows();
}

ordered_json outcomeJson(const Outcome& outcome) {
    return {{"verdict", latin1(outcome.verdict)},
            {"answer", latin1(outcome.answer)},
            {"held", static_cast<double>(outcome.held) / 1e6}};
}

void printJson(const Comparison& comparison, const CompareOptions& options) {
    ordered_json all = {{"policies", options.policies}, {"connections", comparison.connections}};
    all["changes"] = ordered_json::array();
    for (const auto& [change, count] : comparison.changes)
        all["changes"].push_back(
            {{"before", latin1(change.first)}, {"after", latin1(change.second)}, {"connections", count}});
    all["urls"] = ordered_json::array();
    for (const auto& [url, answers] : comparison.urls)
        all["urls"].push_back(
            {{"url", latin1(url)}, {"before", latin1(answers.first)}, {"after", latin1(answers.second)}});
    all["differences"] = ordered_json::array();
    for (const Difference& difference : comparison.differences)
        all["differences"].push_back({{"capture", difference.capture},
                                      {"at", static_cast<double>(difference.at) / 1e6},
                                      {"local", difference.local},
                                      {"remote", difference.remote},
                                      {"url", latin1(difference.url)},
                                      {"before", outcomeJson(difference.before)},
                                      {"after", outcomeJson(difference.after)}});
    fmt::print("{}\n", all.dump(1, ' ', true));
}

void writeCsvFile(const std::string& path, const Comparison& comparison) {
    CsvFile file(path, "capture,at,local,remote,url,verdict before,verdict after,answer before,answer after,"
                       "held before,held after");
    for (const Difference& difference : comparison.differences)
        file.row(fmt::format("{},{:.6f},{},{},{},{},{},{},{},{:.6f},{:.6f}", csvField(difference.capture),
                             static_cast<double>(difference.at) / 1e6, difference.local, difference.remote,
                             csvField(difference.url), csvField(difference.before.verdict),
                             csvField(difference.after.verdict), csvField(difference.before.answer),
                             csvField(difference.after.answer),
                             static_cast<double>(difference.before.held) / 1e6,
                             static_cast<double>(difference.after.held) / 1e6));
    file.finish();
}

// Prints rows of a table, and how many are left out.
void printMost(const TextTable& table, std::size_t all, std::size_t most, const char* what) {
    table.print(stdout);
    if (all > most) fmt::print("... and {} more {}.\n", all - most, what);
}

void printUrls(const Comparison& comparison, std::size_t most) {
    if (comparison.urls.empty()) return;
    TextTable table({"URL", "before", "after"});
    std::size_t count = 0;
    for (const auto& [url, answers] : comparison.urls)
        if (count++ < most) table.add({{url}, {answers.first}, {answers.second}});
    fmt::print("\nURLs that the agent answers differently: {}\n", comparison.urls.size());
    printMost(table, comparison.urls.size(), most, "URLs");
}

std::string shownOutcome(const Outcome& outcome) {
    if (!outcome.held) return outcome.verdict;
    return fmt::format("{}, held {:.3f} s", outcome.verdict, static_cast<double>(outcome.held) / 1e6);
}

void printText(const Comparison& comparison, const CompareOptions& options) {
    fmt::print("Before: {}. After: {}. Connections in {} captures: {}; with another outcome: {}.\n",
               nameOf(options.policies[0]), nameOf(options.policies[1]), options.captures.size(),
               comparison.connections, comparison.differences.size());
    if (comparison.differences.empty()) return;
    if (!comparison.changes.empty()) {
        TextTable changes({"connections", "verdict before", "verdict after"});
        for (const auto& [change, count] : comparison.changes)
            changes.add({{std::to_string(count)}, {change.first}, {change.second}});
        fmt::print("\n");
        changes.print(stdout);
    }
    printUrls(comparison, options.rows);
    TextTable table({"capture", "at (s)", "connection to", "URL asked", "before", "after"});
    for (std::size_t i = 0; i < std::min(options.rows, comparison.differences.size()); ++i) {
        const Difference& difference = comparison.differences[i];
        table.add({{difference.capture},
                   {fmt::format("{:.3f}", static_cast<double>(difference.at) / 1e6)},
                   {difference.remote},
                   {difference.url.empty() ? "-" : difference.url},
                   {shownOutcome(difference.before)},
                   {shownOutcome(difference.after), Colour::notice}});
    }
    fmt::print("\n");
    printMost(table, comparison.differences.size(), options.rows, "connections");
}

} // namespace

void requireAnswers(const std::string& capture, const std::string& policy, const Totals& totals) {
    if (totals.unanswered == 0) return;
    throw InputError(
        fmt::format("{}: under {} the daemon left {} packets without an answer, so nothing can be "
                    "compared; replay the capture with that policy and --json FILE, where their "
                    "results are null",
                    capture, policy, totals.unanswered));
}

void compareRows(Comparison& comparison, const std::string& capture, const std::vector<ConnectionRow>& before,
                 const std::vector<ConnectionRow>& after) {
    const auto one = byKey(before);
    const auto other = byKey(after);
    comparison.connections += static_cast<long>(before.size());
    std::map<Key, std::pair<const Connection*, const Connection*>> pairs;
    for (const auto& [key, connection] : one)
        pairs[key].first = connection;
    for (const auto& [key, connection] : other)
        pairs[key].second = connection;
    for (const auto& [key, pair] : pairs) {
        const Outcome none{noConnection, "-", 0};
        const Outcome was = pair.first ? outcomeOf(*pair.first) : none;
        const Outcome is = pair.second ? outcomeOf(*pair.second) : none;
        if (isSame(was, is)) continue;
        // One of both is there, or they would be the same.
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
        const Connection& known = pair.second ? *pair.second : *pair.first;
        const std::string url = known.queries.empty() ? "" : known.queries.back().url;
        const auto& [at, local, remote] = key;
        comparison.differences.push_back({capture, at, local, remote, url, was, is});
        if (was.verdict != is.verdict) ++comparison.changes[{was.verdict, is.verdict}];
    }
    std::map<std::string, std::string> answersBefore, answersAfter;
    addUrls(answersBefore, before);
    addUrls(answersAfter, after);
    for (const auto& [url, answer] : answersBefore) {
        const auto now = answersAfter.find(url);
        if (now != answersAfter.end() && now->second != answer) comparison.urls[url] = {answer, now->second};
    }
}

int compare(const CompareOptions& options) {
    if (options.policies.size() != 2)
        throw InputError("--policy: two of them, the one before and the one after");
    checkOneOutput(options.json, options.csv);
    for (const std::string& policy : options.policies)
        Policy::load(policy);
    std::vector<CaptureFacts> facts;
    facts.reserve(options.captures.size());
    for (const std::string& capture : options.captures)
        facts.push_back(survey(capture));
    enterPrivateNetwork();
    Comparison comparison;
    for (std::size_t i = 0; i < options.captures.size(); ++i) {
        const std::string& capture = options.captures[i];
        const auto before = played(capture, facts[i], options.policies[0], options.blockOnFailure);
        const auto after = played(capture, facts[i], options.policies[1], options.blockOnFailure);
        compareRows(comparison, nameOf(capture), before, after);
    }
    if (!options.csv.empty()) writeCsvFile(options.csv, comparison);
    if (options.json)
        printJson(comparison, options);
    else if (options.csv != "-")
        printText(comparison, options);
    return comparison.differences.empty() ? 0 : 1;
}

} // namespace lab
