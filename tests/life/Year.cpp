#include "life/Year.h"

#include "support/Sanitizers.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace life {
namespace {

constexpr std::int64_t second = 1000000;
constexpr std::int64_t daySeconds = 86400;
constexpr std::int64_t start = 1500000000 * second;
constexpr long morningRecords = 3000;

// The days until the allocator has what it needs, and what may be held more than then: a link that has gone leaves its
// socket behind, and logons leave their answers' places.
constexpr int settlingDays = 20;
constexpr long moreKilobytes = 1024;

// What a link that has gone keeps: its socket and the two of its event queue.
constexpr long descriptorsOfALink = 3;

// Answers to the same packets, whoever lived before. Nothing in them reads what an earlier packet has left.
std::vector<Answer> liveMorning(Scene& scene, std::int64_t now, int calmThreads) {
    Life morning(scene, 4711, now, calmThreads, true);
    morning.keepAnswers();
    morning.burst(morningRecords);
    return morning.answers();
}

void liveDay(Life& life, Draw& draw, std::int64_t dawn, long records) {
    const std::int64_t bursts = 1 + draw.below(8);
    for (std::int64_t i = 0; i < bursts; ++i) {
        life.burst(records / bursts);
        life.happen();
        const std::int64_t next = dawn + (i + 1) * daySeconds * second / bursts;
        if (next > life.now()) life.pass(next - life.now());
    }
}

// The year of one daemon, and the answers of the morning behind it.
Year liveAllDays(const YearOptions& options, std::int64_t end, std::vector<Answer>& morning) {
    Scene scene(start);
    Draw draw(options.seed);
    const Holdings dawn = scene.holdings(0, 0);
    Life life(scene, options.seed, start, dawn.threads, false);
    Year year{{dawn, life.happenings()}};
    for (int day = 0; day < options.days; ++day) {
        liveDay(life, draw, start + day * daySeconds * second, options.records / options.days);
        const long links = descriptorsOfALink * life.happenings().reconnects;
        year.push_back(
            {scene.holdings(dawn.threads, dawn.descriptors + static_cast<int>(links)), life.happenings()});
    }
    life.pushBlockOnFailure(false);
    life.forgetRecords();
    scene.clock().set(end);
    morning = liveMorning(scene, end, dawn.threads);
    if (!scene.extension().hasOnlyAnswered())
        throw std::runtime_error("the daemon has sent results that nobody waited for");
    return year;
}

} // namespace

Year liveYear(const YearOptions& options) {
    const std::int64_t end = start + (options.days + 2) * daySeconds * second;
    std::vector<Answer> morning;
    const Year year = liveAllDays(options, end, morning);
    Scene fresh(end);
    const int calmThreads =
        fresh.holdings(0, 0).threads; // a checker's own thread can be in one daemon of two
    if (liveMorning(fresh, end, calmThreads) != morning)
        throw std::runtime_error("the morning's answers differ from those of a daemon that has just started");
    return year;
}

void checkHoldings(const Year& year) {
    const Evening& first = year.front();
    const Evening& last = year.back();
    if (last.holdings.threads > first.holdings.threads)
        throw std::runtime_error(
            fmt::format("{} threads where {} were", last.holdings.threads, first.holdings.threads));
    const long left = last.holdings.descriptors - first.holdings.descriptors;
    const long reconnects = last.happenings.reconnects - first.happenings.reconnects;
    if (left > reconnects * descriptorsOfALink)
        throw std::runtime_error(fmt::format("{} more descriptors after {} reconnects", left, reconnects));
    const Evening& settled = year[std::min<std::size_t>(settlingDays, year.size() - 1)];
    // A checker keeps memory back that was released.
    if (testsupport::sanitized) return;
    if (last.holdings.residentKilobytes > settled.holdings.residentKilobytes + moreKilobytes)
        throw std::runtime_error(fmt::format("{} KB where {} were", last.holdings.residentKilobytes,
                                             settled.holdings.residentKilobytes));
}

} // namespace life
