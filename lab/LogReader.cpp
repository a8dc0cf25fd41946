#include "lab/LogReader.h"

#include "lab/CsvFile.h"
#include "lab/Policy.h"
#include "lab/Terminal.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view startMark = "Ostler Interceptor Started";
constexpr std::size_t queryThreads = 30;

struct Meaning {
    std::string_view part;
    std::string_view words;
};

constexpr std::array<Meaning, 36> meanings{{
    {startMark, "the daemon begins"},
    {"[ERROR]: error loading FernhillKext",
     "the extension did not load: nothing is filtered until the daemon is started anew"},
    {"Could not get ID for FernhillKernel", "the extension is not there"},
    {"Mis-matching FernhillKernel version", "extension and daemon are of different versions"},
    {"System connection established", "one of the two channels to the extension is open"},
    {"bytes received -- IGNORED", "the extension has gone: restart the daemon"},
    {"Error sending", "the extension did not take a result"},
    {"FILTERING IS DISABLED", "a check-in has put filtering to sleep: everything passes"},
    {"Filter disabled=1", "filtering sleeps for the moment: this packet passes"},
    {"setUserLogonCommand send success", "the link to the agent is up"},
    {"OstComm socket opened", "a link is tried; nothing is connected yet"},
    {"setUserLogonCommand socket send failed", "the agent is not there; it is tried again in a second"},
    {"Socket open error in OstComm", "the link is dead until the daemon starts anew"},
    {"getPolicyCommand no socket", "a question cannot be asked: block on failure decides"},
    {"getPolicyCommand socket send failed", "a question was not sent: block on failure decides"},
    {"getPolicyCommand sending", "the agent is asked"},
    {"getPolicyCommand response", "the agent's answer; nothing behind it: the link ended first"},
    {"responseThread reconnecting",
     "the link has ended and is made again; one open question is woken, the others wait for ever"},
    {"Host lookup timeout >>> resending", "the agent cannot look the host up; it is asked again"},
    {"hijackRedirectURL", "blocked: the page that the agent sends the user to"},
    {"OstCommFilterQueryThread redirectURL", "the daemon's own error page: block on failure"},
    {"Hijack-resolve:true", "the connection's verdict is there; redirect='null' is allowed"},
    {"Hijack-resolve:false", "an answer for a connection that is not known any more"},
    {"exists but not resolved", "held: the answer is not there yet"},
    {"packet resolved but not redirected", "passes: allowed, or still too small a packet for the redirect"},
    {"is too small to redirect", "blocked, and held: the redirect has more bytes than the request"},
    {"http packet redirected and repeated", "the browser gets the redirect"},
    {"https redirect: res=6", "the TLS connection is redirected"},
    {"policyEvaluate QUERYING", "a URL that the agent will be asked about; its packet is held"},
    {"policyEvaluate url passed through", "passes unasked: the filter server itself or this machine"},
    {"inBypassedHostNames bypassing", "passes unasked: one of the hosts of captive portals"},
    {"url being checked", "a question waits for a query thread"},
    {"SSL is BLOCKED", "a packet of a blocked TLS address is dropped"},
    {"Socket open error in GPHTTP", "a service's name is not known, or no descriptor is left"},
    {"unable to complete the zip process", "an update package could not be fetched or unpacked"},
    {"unable to write to configuration file", "a setting was not stored; the next save tries again"},
}};

// Seconds of "Sun Nov 22 06:20:34 2026" as local time.
std::optional<std::int64_t> timeOf(const std::string& text) {
    struct tm local = {};
    local.tm_isdst = -1;
    const char* end = strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &local);
    if (!end || *end) return std::nullopt;
    return mktime(&local);
}

// A line of the file: "[thread time]: message", or the rest of a message.
LogLine parsed(const std::string& line, const std::string& file, const LogLine* before) {
    constexpr std::string_view divider = "]: ";
    const std::size_t blank = line.find(' ');
    const std::size_t end = line.find(divider);
    if (!line.empty() && line[0] == '[' && blank != std::string::npos && end != std::string::npos &&
        blank < end) {
        long thread = 0;
        const auto read = std::from_chars(line.data() + 1, line.data() + blank, thread);
        const auto time = timeOf(line.substr(blank + 1, end - blank - 1));
        if (read.ec == std::errc() && read.ptr == line.data() + blank && time)
            return {file, *time, thread, line.substr(end + divider.size())};
    }
    return {file, before ? before->time : 0, 0, line};
}

// The index in a log file's name: fernhill0-1.log is the first, then fernhill00.log.
int orderOf(const std::string& name) {
    const std::string_view number = std::string_view(name).substr(std::strlen("fernhill"));
    if (number.substr(0, 3) == "0-1") return -1;
    int order = 0;
    std::from_chars(number.data(), number.data() + number.size(), order);
    return order;
}

std::vector<fs::path> logFiles(const std::string& folder) {
    std::error_code error;
    std::vector<fs::path> files;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.rfind("fernhill", 0) == 0 && entry->path().extension() == ".log" &&
            fs::is_regular_file(entry->path()))
            files.push_back(entry->path());
    }
    if (error) throw InputError(fmt::format("{}: {}", folder, error.message()));
    if (files.empty()) throw InputError(fmt::format("{}: no fernhill*.log is there", folder));
    std::sort(files.begin(), files.end(), [](const fs::path& one, const fs::path& other) {
        return orderOf(one.filename()) < orderOf(other.filename());
    });
    return files;
}

// The number of "[7] OstComm…", or -1.
long requestOf(const std::string& text) {
    long number = -1;
    if (text.empty() || text[0] != '[') return -1;
    const auto read = std::from_chars(text.data() + 1, text.data() + text.size(), number);
    if (read.ec != std::errc() || std::strncmp(read.ptr, "] OstComm", 9) != 0) return -1;
    return number;
}

bool has(const LogLine& line, std::string_view part) { return line.text.find(part) != std::string::npos; }

std::string when(std::int64_t time) {
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(static_cast<std::time_t>(time)));
}

// Walks the lines and keeps what bears on pages that hang.
class HangWatch {
public:
    void take(const LogLine& line) {
        newest_ = line.time;
        if (has(line, "OstComm socket opened")) opened_ = true;
        if (has(line, "setUserLogonCommand send success")) takeLogon();
        if (has(line, "setUserLogonCommand socket send failed") && !absentSince_) absentSince_ = line.time;
        if (has(line, "responseThread reconnecting")) takeReconnect();
        if (has(line, "Host lookup timeout >>> resending")) ++lookups_;
        if (has(line, "is too small to redirect")) ++tooSmall_;
        if (has(line, "Socket open error in OstComm")) dead_ = true;
        takeQuestion(line);
    }

    std::vector<std::string> sentences() const {
        std::vector<std::string> found;
        if (absentSince_)
            found.push_back(
                fmt::format("The agent has been absent since {}: everything waits for it. Start it; what "
                            "waits goes on.",
                            when(*absentSince_)));
        if (dead_)
            found.push_back(
                "The link is dead until the daemon starts anew: requests pass, or meet the error page.");
        if (!lost_.empty())
            found.push_back(fmt::format(
                "The link ended with {} questions open; one of them at most was woken, the others "
                "keep a query thread of the {} each. Restart the daemon when pages go on hanging.",
                lost_.size(), queryThreads));
        if (links_ > 1 && !asked_)
            found.push_back(fmt::format("The link to the agent was made anew {} times. Questions that were "
                                        "open then can keep a query "
                                        "thread of the {} each. Restart the daemon when pages go on hanging.",
                                        links_ - 1, queryThreads));
        if (!open_.empty()) {
            const auto oldest =
                std::min_element(open_.begin(), open_.end(), [](const auto& one, const auto& other) {
                    return one.second < other.second;
                });
            found.push_back(
                fmt::format("{} questions are without an answer; the oldest, number {}, for {} seconds: the "
                            "agent is silent. Restart the agent, then the daemon.",
                            open_.size(), oldest->first, newest_ - oldest->second));
        }
        if (lookups_)
            found.push_back(fmt::format(
                "{} times the agent could not look a host up and was asked again: see to its name "
                "service.",
                lookups_));
        if (tooSmall_)
            found.push_back(fmt::format(
                "{} times a request was shorter than the redirect that it should get: shorter block "
                "pages at the agent.",
                tooSmall_));
        if (found.empty())
            found.push_back(asked_ ? "Every question that the log has was answered."
                                   : "The log has no questions: log level 1 (fernhill -ll=65) writes them.");
        return found;
    }

private:
    void takeQuestion(const LogLine& line) {
        const long number = requestOf(line.text);
        if (number < 0) return;
        if (has(line, "getPolicyCommand sending")) {
            asked_ = true;
            open_[number] = line.time;
        }
        if (has(line, "getPolicyCommand response") || has(line, "getPolicyCommand socket send failed") ||
            has(line, "getPolicyCommand no socket")) {
            open_.erase(number);
            lost_.erase(number);
        }
    }

    // A login brings one too; only the first on a link tells of that.
    void takeLogon() {
        absentSince_.reset();
        if (opened_) ++links_;
        opened_ = false;
    }

    void takeReconnect() {
        lost_.insert(open_.begin(), open_.end());
        open_.clear();
    }

    std::int64_t newest_ = 0;
    std::optional<std::int64_t> absentSince_;
    bool opened_ = false;
    long links_ = 0;
    bool asked_ = false;
    bool dead_ = false;
    long lookups_ = 0;
    long tooSmall_ = 0;
    std::map<long, std::int64_t> open_; // questions by number, with their times
    std::map<long, std::int64_t> lost_; // those that were open when the link ended
};

void printLineJson(const LogLine& line) {
    const nlohmann::ordered_json row = {{"time", line.time},
                                        {"thread", line.thread},
                                        {"file", line.file},
                                        {"text", line.text},
                                        {"meaning", meaningOf(line.text)}};
    fmt::print("{}\n", row.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
}

void printLine(const LogLine& line, bool explain) {
    const bool colours = showsColours(stdout);
    fmt::print("{}  {:>8}  {}\n", when(line.time), line.thread ? std::to_string(line.thread) : "",
               printable(line.text));
    const std::string meaning = explain ? meaningOf(line.text) : "";
    if (!meaning.empty()) fmt::print("{:>31}{}\n", "", coloured("^ " + meaning, Colour::notice, colours));
}

bool isWanted(const LogLine& line, const LogOptions& options) {
    if (options.request >= 0 && requestOf(line.text) != options.request) return false;
    return line.text.find(options.containing) != std::string::npos;
}

int showHangs(const std::vector<std::string>& sentences, const LogOptions& options) {
    CsvFile csv(options.csv, "sentence");
    if (options.json) fmt::print("{}\n", nlohmann::json(sentences).dump(1, ' ', true));
    for (const std::string& sentence : sentences) {
        csv.row(csvField(sentence));
        if (!options.json && options.csv != "-") fmt::print("{}\n", sentence);
    }
    csv.finish();
    return 0;
}

} // namespace

std::vector<LogLine> readLog(const std::string& folder) {
    std::vector<LogLine> lines;
    for (const fs::path& path : logFiles(folder)) {
        std::ifstream file(path, std::ios::binary);
        const LogLine* before = nullptr;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(parsed(line, path.filename(), before));
            before = &lines.back();
        }
        if (file.bad()) throw InputError(fmt::format("{}: it cannot be read", path.string()));
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const LogLine& one, const LogLine& other) { return one.time < other.time; });
    return lines;
}

std::vector<LogLine> sinceNewestStart(std::vector<LogLine> lines) {
    const auto start = std::find_if(lines.rbegin(), lines.rend(), [](const LogLine& line) {
        return line.text.compare(0, startMark.size(), startMark) == 0;
    });
    if (start != lines.rend()) lines.erase(lines.begin(), start.base() - 1);
    return lines;
}

std::string meaningOf(const std::string& text) {
    for (const Meaning& meaning : meanings)
        if (text.find(meaning.part) != std::string::npos) return std::string(meaning.words);
    return "";
}

std::vector<std::string> explainHangs(const std::vector<LogLine>& lines) {
    HangWatch watch;
    for (const LogLine& line : lines)
        watch.take(line);
    return watch.sentences();
}

int showLog(const LogOptions& options) {
    checkOneOutput(options.json, options.csv);
    std::vector<LogLine> lines = readLog(options.folder);
    if (options.sinceStart || options.hangs) lines = sinceNewestStart(std::move(lines));
    if (options.hangs) return showHangs(explainHangs(lines), options);
    CsvFile csv(options.csv, "time,thread,file,text,meaning");
    bool any = false;
    for (const LogLine& line : lines) {
        if (!isWanted(line, options)) continue;
        csv.row(fmt::format("{},{},{},{},{}", line.time, line.thread, csvField(line.file),
                            csvField(line.text), csvField(meaningOf(line.text))));
        if (options.json)
            printLineJson(line);
        else if (options.csv != "-")
            printLine(line, options.explain);
        any = true;
    }
    csv.finish();
    return any ? 0 : 1;
}

} // namespace lab
