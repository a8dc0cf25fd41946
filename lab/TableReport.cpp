#include "lab/TableReport.h"

#include "lab/Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace lab {
namespace {

constexpr std::size_t connectionWidth = 21;
constexpr std::size_t shortestUrl = 12;
constexpr std::size_t answerWidth = 19;
// All but the URL: the other columns, what is between them, and the longest verdict but for one.
constexpr std::size_t besideUrl = 82;

constexpr char explanation[] = R"text(
A row comes as its connection ends.
  URL asked        what the daemon read in a GET request (http) or in a TLS hello (https) and asked the agent about;
                   "-": it held neither. "(+2)": two questions of this connection came before this one.
  agent's answer   what the policy makes the agent say. "retry x2": first it said twice that it wants to be asked again.
  held (s)         A packet with a question is held. As a sender would, the lab presents a held packet again after
                   1, 2, 4 ... seconds, so a question costs at least a second here; its later packets wait behind it.
  verdict          passed: all of its packets went on.
                   redirected: the agent blocks it. The browser gets the agent's block page, the connection ends,
                   and what the capture still holds of it is not presented.
                   held to the end: no verdict came in all of 9 presentations (255 s), for want of an answer, or
                   because the redirect has more bytes than the request that it would replace.
)text";

Colour colourOf(const Connection& connection) {
    if (connection.redirected) return Colour::bad;
    if (connection.gaveUp || connection.dropped) return Colour::notice;
    return connection.queries.empty() ? Colour::faint : Colour::good;
}

std::string urlText(const Connection& connection, std::size_t urlWidth) {
    if (connection.queries.empty()) return "-";
    const std::string last = printable(connection.queries.back().url);
    if (connection.queries.size() == 1) return shortened(last, urlWidth);
    const std::string more = fmt::format(" (+{})", connection.queries.size() - 1);
    return shortened(last, urlWidth - more.size()) + more;
}

} // namespace

std::string answerTextOf(const Query& query) {
    if (!query.answered) return "none";
    std::string text = actionName(query.decision.action);
    if (query.decision.action == Action::slow)
        text += fmt::format(" {} ms, allow", query.decision.milliseconds);
    if (query.retries) text = fmt::format("retry x{}, {}", query.retries, text);
    return text;
}

std::string answerText(const Connection& connection) {
    if (connection.queries.empty()) return "-";
    return answerTextOf(connection.queries.back());
}

std::string verdictText(const Connection& connection) {
    if (connection.redirected && connection.gaveUp) return "held, redirected";
    if (connection.redirected) return "redirected";
    if (connection.gaveUp) return "held to the end";
    if (connection.dropped) return fmt::format("passed, {} dropped", connection.dropped);
    return "passed";
}

TableReport::TableReport(std::FILE* out, std::size_t mostRows, bool keepsRows)
    : out_(out), mostRows_(mostRows), keepsRows_(keepsRows || mostRows), silent_(!out),
      colours_(out && showsColours(out)), lineWidth_(out ? widthOf(out) : besideUrl),
      urlWidth_(lineWidth_ > besideUrl + shortestUrl ? lineWidth_ - besideUrl : shortestUrl) {}

void TableReport::begin(const std::string& capture, const CaptureFacts& facts, const PolicyFacts& policy) {
    if (!out_) return;
    fmt::print(out_, "{}Replaying {} ({} packets) through the daemon", explained_ ? "\n" : "",
               std::filesystem::path(capture).filename().string(), facts.records);
    const char* word = " of the computer ";
    for (const std::string& address : facts.computers) {
        if (address.empty()) continue;
        fmt::print(out_, "{}{}", word, Endpoint{address, 0}.text());
        word = " and ";
    }
    fmt::print(out_, ".\nThe agent answers by {} ({} rules); block on failure is {}.\n",
               std::filesystem::path(policy.path).filename().string(), policy.rules,
               policy.blockOnFailure ? "on" : "off");
    if (!explained_) std::fputs(explanation, out_);
    explained_ = true;
    printColumns();
}

void TableReport::beginLive(const PolicyFacts& policy) {
    if (!out_) return;
    fmt::print(out_, "The agent answers by {} ({} rules); block on failure is {}.\n",
               std::filesystem::path(policy.path).filename().string(), policy.rules,
               policy.blockOnFailure ? "on" : "off");
    printColumns();
    std::fflush(out_);
}

void TableReport::printColumns() {
    fmt::print(out_, "\n{:>8}  {:<{}}  {:<{}}  {:<{}}  {:>8}  {}\n", "at (s)", "connection to",
               connectionWidth, "URL asked", urlWidth_, "agent's answer", answerWidth, "held (s)", "verdict");
    fmt::print(out_, "{:->{}}\n", "", lineWidth_);
}

void TableReport::row(const Connection& connection, std::int64_t start) {
    const std::int64_t at = connection.first - start;
    if (keepsRows_) rows_.push_back({connection, at});
    if (out_ && mostRows_ == 0) printRow(connection, at);
}

void TableReport::end() {
    bar_.clear();
    const auto first = rows_.begin() + static_cast<std::ptrdiff_t>(captureRows_);
    if (out_ && mostRows_) {
        for (const ConnectionRow& row : chosenRows({first, rows_.end()}, mostRows_))
            printRow(row.connection, row.at);
        const std::size_t left = rows_.size() - captureRows_;
        if (left > mostRows_)
            fmt::print(out_, "{:>8}  {} connections in all; these show each kind of verdict and answer.\n",
                       "...", left);
    }
    captureRows_ = rows_.size();
}

std::vector<ConnectionRow> TableReport::rows() const {
    std::vector<ConnectionRow> sorted = rows_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const ConnectionRow& one, const ConnectionRow& other) { return one.at < other.at; });
    return sorted;
}

void TableReport::printRow(const Connection& connection, std::int64_t start) {
    bar_.clear();
    const double at = static_cast<double>(start) / 1e6;
    const double held = static_cast<double>(connection.heldTime) / 1e6;
    fmt::print(out_, "{:>8.3f}  {:<{}}  {:<{}}  {:<{}}  {:>8}  {}\n", at,
               shortened(connection.remote.text(), connectionWidth), connectionWidth,
               urlText(connection, urlWidth_), urlWidth_, answerText(connection), answerWidth,
               connection.heldTime ? fmt::format("{:.3f}", held) : "-",
               coloured(verdictText(connection), colourOf(connection), colours_));
    std::fflush(out_);
}

void TableReport::progress(long position, long records) {
    if (!silent_) bar_.show(position, records);
}

void TableReport::printAnswers(const Totals& totals) {
    fmt::print(out_, "The agent was asked {} times", totals.asked);
    const char* between = ": ";
    for (const auto& [action, count] : totals.answers) {
        fmt::print(out_, "{}{} {}", between, count, actionName(action));
        between = ", ";
    }
    fmt::print(out_, ".\n");
    for (const auto& [url, count] : totals.redirects)
        fmt::print(out_, "Redirected to {}: {} connections.\n", printable(url), count);
}

void TableReport::liveSummary(const Totals& totals, const std::string& root) {
    if (!out_) return;
    fmt::print(
        out_,
        "\n{} connections. The daemon was shown {} packets and left {} without an answer: {} passed, {} "
        "dropped, {} redirected, {} held.\n",
        totals.connections, totals.presented, totals.unanswered, totals.passed, totals.dropped,
        totals.redirected, totals.heldToTheEnd);
    printAnswers(totals);
    if (totals.untold)
        fmt::print(
            out_,
            "It was asked {} times more than it keeps until connections end (16 MB): those questions were "
            "answered,\nand no row has them. See in the daemon's log why it asks so often (--root DIR "
            "--log 65).\n",
            totals.untold);
    if (!root.empty()) fmt::print(out_, "The daemon's files, its log and its output are in {}.\n", root);
    std::fflush(out_);
}

void TableReport::summary(const Totals& totals, double realSeconds, const std::string& root) {
    if (!out_) return;
    bar_.clear();
    fmt::print(out_,
               "\n{} IP packets of {} captured, {} connections. The daemon was shown {} packet records, held "
               "packets again\nand again, and left {} without an answer.\n",
               totals.packets, totals.records, totals.connections, totals.presented, totals.unanswered);
    fmt::print(out_,
               "What became of the packets: {} passed, {} dropped, {} redirected, {} held to the end, {} not "
               "presented.\n",
               totals.passed, totals.dropped, totals.redirected, totals.heldToTheEnd, totals.notPresented);
    printAnswers(totals);
    if (totals.unsettled)
        fmt::print(out_, "{} times a question or an answer did not get through in time.\n", totals.unsettled);
    fmt::print(out_, "{:.1f} s of the daemon's time were played in {:.1f} s.\n",
               static_cast<double>(totals.playedMicroseconds) / 1e6, realSeconds);
    if (!root.empty()) fmt::print(out_, "The daemon's files, its log and its output are in {}.\n", root);
}

} // namespace lab
