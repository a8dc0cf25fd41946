// Lives years of the daemon's life, each in a process of its own.

#include "lab/PrivateNetwork.h"
#include "life/Year.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

void writeEvenings(const std::string& path, const life::Year& year) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) throw std::runtime_error("cannot write " + path);
    fmt::print(file, "day,records,kilobytes,threads,descriptors,reconnects\n");
    for (std::size_t day = 0; day < year.size(); ++day)
        fmt::print(file, "{},{},{},{},{},{}\n", day, year[day].happenings.records,
                   year[day].holdings.residentKilobytes, year[day].holdings.threads,
                   year[day].holdings.descriptors, year[day].happenings.reconnects);
    std::fclose(file);
}

void tell(std::uint64_t seed, const life::Year& year) {
    const life::Evening& last = year.back();
    const life::Happenings& all = last.happenings;
    fmt::print("seed {}: {} days, {} records, {} questions ({} blocked, {} slow), {} logins, {} changes of "
               "addresses, {} pushes, {} reconnects, {} clocks set: all as the rules say, results {:016x}; "
               "{} to {} KB, {} threads, {} descriptors\n",
               seed, year.size() - 1, all.records, all.questions, all.blocked, all.slow, all.logins,
               all.addressChanges, all.pushes, all.reconnects, all.jumps, all.results,
               year.front().holdings.residentKilobytes, last.holdings.residentKilobytes,
               last.holdings.threads, last.holdings.descriptors);
}

int live(const life::YearOptions& options, const std::string& csv, bool twice) {
    try {
        lab::enterPrivateNetwork();
        const life::Year year = life::liveYear(options);
        if (!csv.empty()) writeEvenings(csv, year);
        life::checkHoldings(year);
        if (twice && life::liveYear(options).back().happenings.results != year.back().happenings.results)
            throw std::runtime_error("the same seed has played another year");
        tell(options.seed, year);
        return 0;
    } catch (const std::exception& error) {
        fmt::print(stderr, "seed {}: {}\n", options.seed, error.what());
        return 1;
    }
}

} // namespace

int main(int count, char** words) {
    life::YearOptions options;
    int seeds = 1;
    std::string csv;
    CLI::App app("Lives years of the daemon's life, each drawn from a seed, and holds every result against "
                 "the rules.");
    app.add_option("--seed", options.seed, "the first year's")->capture_default_str();
    app.add_option("--seeds", seeds, "how many years, each with the next seed")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--records", options.records, "packets in a year")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--days", options.days, "days of a year")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--csv", csv, "write what the daemon has at the end of each of the first year's days")
        ->type_name("FILE");
    bool twice = false;
    app.add_flag("--twice", twice, "live each year a second time, with the same results");
    CLI11_PARSE(app, count, words);

    int failed = 0;
    for (const std::uint64_t end = options.seed + static_cast<std::uint64_t>(seeds); options.seed < end;
         ++options.seed) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) std::exit(live(options, csv, twice));
        csv.clear(); // the first year's alone
        int status = 0;
        if (waitpid(child, &status, 0) != child || status != 0) ++failed;
    }
    return failed ? 1 : 0;
}
