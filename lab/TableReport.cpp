#include "lab/TableReport.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace lab {
namespace {

constexpr std::size_t urlWidth = 44;
constexpr int barWidth = 40;

std::string shortened(const std::string& text, std::size_t width) {
    if (text.size() <= width) return text;
    return text.substr(0, width - 3) + "...";
}

// Bytes that a terminal should not see as they are.
std::string printable(std::string text) {
    for (char& byte : text) {
        if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f) byte = '?';
    }
    return text;
}

std::string urlText(const Connection& connection) {
    if (connection.queries.empty()) return "-";
    const std::string first = printable(connection.queries.front().url);
    if (connection.queries.size() == 1) return shortened(first, urlWidth);
    const std::string more = fmt::format(" (+{})", connection.queries.size() - 1);
    return shortened(first, urlWidth - more.size()) + more;
}

std::string oneAnswer(const Query& query) {
    std::string text = actionName(query.decision.action);
    if (query.decision.action == Action::slow)
        text += fmt::format(" {} ms, allow", query.decision.milliseconds);
    if (query.retries) text = fmt::format("retry x{}, {}", query.retries, text);
    return text;
}

} // namespace

std::string answerText(const Connection& connection) {
    if (connection.queries.empty()) return "-";
    return oneAnswer(connection.queries.back());
}

std::string verdictText(const Connection& connection) {
    if (connection.redirected) return "redirected to " + printable(connection.redirectUrl);
    if (connection.gaveUp) return "held to the end";
    if (connection.dropped) return fmt::format("passed, {} dropped", connection.dropped);
    return "passed";
}

TableReport::TableReport(std::FILE* out) : out_(out), terminal_(isatty(STDERR_FILENO) == 1) {}

void TableReport::begin(const std::string& capture, const CaptureFacts& facts, const std::string& policy,
                        std::size_t rules, bool blockOnFailure) {
    if (!out_) return;
    fmt::print(out_, "Replaying {} ({} packets) through the daemon.\n",
               std::filesystem::path(capture).filename().string(), facts.records);
    for (const std::string& address : facts.computers) {
        if (!address.empty()) fmt::print(out_, "This computer is {}.\n", Endpoint{address, 0}.text());
    }
    fmt::print(out_, "The agent answers by {} ({} rules); block on failure is {}.\n\n",
               std::filesystem::path(policy).filename().string(), rules, blockOnFailure ? "on" : "off");
    fmt::print(out_, "{:>9}  {:<26} {:<{}} {:<22} {:>9}  {}\n", "at (s)", "connection to", "URL asked",
               urlWidth, "agent's answer", "held (s)", "verdict");
    fmt::print(out_, "{:->{}}\n", "", 9 + 2 + 26 + 1 + urlWidth + 1 + 22 + 1 + 9 + 2 + 20);
}

void TableReport::row(const Connection& connection, std::int64_t start) {
    if (!out_) return;
    clearProgress();
    fmt::print(out_, "{:>9.3f}  {:<26} {:<{}} {:<22} {:>9.3f}  {}\n",
               static_cast<double>(connection.first - start) / 1e6, shortened(connection.remote.text(), 26),
               urlText(connection), urlWidth, answerText(connection),
               static_cast<double>(connection.heldTime) / 1e6, verdictText(connection));
    ++rows_;
}

void TableReport::progress(long position, long records) {
    if (!out_ || !terminal_ || records == 0) return;
    const int percent = static_cast<int>(position * 100 / records);
    if (percent == percent_) return;
    percent_ = percent;
    const int full = percent * barWidth / 100;
    std::fflush(out_);
    fmt::print(stderr, "\r[{:#>{}}{:.>{}}] {:>3} %", "", full, "", barWidth - full, percent);
    std::fflush(stderr);
}

void TableReport::clearProgress() {
    if (!terminal_ || percent_ < 0) return;
    fmt::print(stderr, "\r{:{}}\r", "", barWidth + 8);
    std::fflush(stderr);
    percent_ = -1;
}

void TableReport::summary(const Totals& totals, double realSeconds, const std::string& root) {
    if (!out_) return;
    clearProgress();
    fmt::print(out_, "\n{} IP packets of {} in {} connections; {} records presented, {} not answered.\n",
               totals.packets, totals.records, totals.connections, totals.presented, totals.unanswered);
    fmt::print(out_,
               "Results: {} passed, {} dropped, {} redirected, {} held to the end; {} not presented behind a "
               "redirect.\n",
               totals.passed, totals.dropped, totals.redirected, totals.heldToTheEnd, totals.notPresented);
    fmt::print(out_, "The agent was asked {} times.\n", totals.asked);
    if (totals.unsettled)
        fmt::print(out_, "{} times a question or an answer did not get through in time.\n", totals.unsettled);
    fmt::print(out_, "{:.1f} s were played in {:.1f} s.\n",
               static_cast<double>(totals.playedMicroseconds) / 1e6, realSeconds);
    if (!root.empty()) fmt::print(out_, "The daemon's files, its log and its output are in {}.\n", root);
}

} // namespace lab
