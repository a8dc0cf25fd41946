#include "lab/ProgressBar.h"

#include "lab/Terminal.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace lab {
namespace {

constexpr std::chrono::seconds patience(2);
constexpr std::chrono::milliseconds pause(200);
constexpr std::size_t longestBar = 40;
constexpr std::size_t shortestBar = 5;

std::string timeLeft(double seconds) {
    const long whole = std::lround(seconds);
    if (whole < 60) return fmt::format("{} s left", whole);
    return fmt::format("{}:{:02} min left", whole / 60, whole % 60);
}

} // namespace

ProgressBar::ProgressBar() : terminal_(isatty(STDERR_FILENO) == 1), began_(Clock::now()), newest_(began_) {}

void ProgressBar::show(long done, long all) {
    if (!terminal_ || all <= 0) return;
    const Clock::time_point now = Clock::now();
    if (done < done_) began_ = now;
    done_ = done;
    if (now - began_ < patience || (shown_ && now - newest_ < pause)) return;
    newest_ = now;
    shown_ = true;
    std::fflush(stdout);
    const std::chrono::duration<double> took = now - began_;
    fmt::print(stderr, "\r\x1b[K{}", line(done, all, took.count(), widthOf(stderr, 80) - 1));
    std::fflush(stderr);
}

void ProgressBar::clear() {
    if (!shown_) return;
    shown_ = false;
    fmt::print(stderr, "\r\x1b[K");
    std::fflush(stderr);
}

std::string ProgressBar::line(long done, long all, double seconds, std::size_t width) {
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    std::string words = fmt::format("{:>3} %", done * 100 / std::max(all, 1L));
    if (rate > 0)
        words +=
            fmt::format(", {:.0f} packets/s, {}", rate, timeLeft(static_cast<double>(all - done) / rate));
    if (words.size() + shortestBar + 3 > width) return words.substr(0, width);
    const std::size_t room = std::min(longestBar, width - words.size() - 3);
    const std::size_t full =
        room * static_cast<std::size_t>(done) / static_cast<std::size_t>(std::max(all, 1L));
    return fmt::format("[{}{}] {}", std::string(full, '#'), std::string(room - full, '.'), words);
}

} // namespace lab
