#include "lab/ExplainCommand.h"

#include "lab/PrivateNetwork.h"
#include "lab/Replay.h"
#include "lab/Stage.h"
#include "lab/Terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

// All that the daemon can say: the plain lines, TLS, the channel, verdicts, lists.
constexpr int everyLogLevel = 1 | 16 | 32 | 64 | 128;

// So many packets at most have their bytes looked at, which takes some time.
constexpr std::size_t mostWithBytes = 16;

struct Range {
    long first;
    long last;
};

Range rangeOf(const std::string& text) {
    if (text == "all") return {1, std::numeric_limits<long>::max()};
    char* end = nullptr;
    const long first = std::strtol(text.c_str(), &end, 10);
    long last = first;
    if (*end == '-') last = std::strtol(end + 1, &end, 10);
    if (text.empty() || *end || first < 1 || last < first)
        throw InputError(fmt::format("--packet {}: a packet's number, a range such as 4-9, or all", text));
    return {first, last};
}

// Follows a replay and keeps what is known of the wanted packets.
class Explainer final : public ReplayWatch {
public:
    Explainer(const Observation& observation, std::vector<Range> wanted)
        : observation_(observation), wanted_(std::move(wanted)) {
        for (const Range& range : wanted_)
            last_ = std::max(last_, range.last);
    }

    void presented(const PlayedPacket& played, std::int64_t at,
                   const std::optional<sysctl_result>& result) override {
        const long number = played.packet.number;
        const bool wanted = isWanted(number);
        PacketStory* story = wanted ? &stories_[number] : nullptr;
        const bool first = wanted && story->presentations.empty();
        ObservedPacket seen = result ? observation_.packet(played.outbound, first) : ObservedPacket{};
        noteRecords(seen, number, at);
        if (!wanted) return;
        for (const ObservedStep& step : seen.steps)
            if (const auto origin = origins_.find(step.mark); step.mark && origin != origins_.end())
                story->origins.insert(*origin);
        story->presentations.push_back({at, std::move(seen), result});
    }

    void over(const PlayedPacket& played, const Connection* connection) override {
        const long number = played.packet.number;
        farthest_ = std::max(farthest_, number);
        if (!isWanted(number)) return;
        PacketStory& story = stories_[number];
        story.played = played;
        if (connection) queries_[number] = connection->queries;
        over_.insert(number);
    }

    // Single packets are over one by one; a range is, once as many are.
    bool enough() const override {
        if (last_ == std::numeric_limits<long>::max()) return false;
        long count = 0;
        for (const Range& range : wanted_)
            count += range.last - range.first + 1;
        return static_cast<long>(over_.size()) >= count;
    }

    // The stories, with what the agent said; `start` is the capture's first time.
    std::map<long, PacketStory> finish(std::int64_t start) {
        for (auto& [number, story] : stories_)
            addAgent(story, queries_[number], start);
        return std::move(stories_);
    }

private:
    bool isWanted(long number) const {
        return std::any_of(wanted_.begin(), wanted_.end(),
                           [&](const Range& range) { return number >= range.first && number <= range.last; });
    }

    // The daemon tells of a new record in its log, with the mark that it goes by.
    void noteRecords(const ObservedPacket& seen, long number, std::int64_t at) {
        static const std::string words = "-++ added 0x";
        for (const ObservedStep& step : seen.steps)
            if (step.call == Call::logLine && step.text.compare(0, words.size(), words) == 0)
                origins_[std::strtoul(step.text.c_str() + words.size(), nullptr, 16)] = {number, at};
    }

    static std::set<std::string> urlsOf(const PacketStory& story) {
        std::set<std::string> urls;
        for (const Presentation& presentation : story.presentations)
            for (const ObservedStep& step : presentation.seen.steps)
                if ((step.call == Call::record && step.answer != noRecord) || step.call == Call::query)
                    urls.insert(step.text);
        return urls;
    }

    void addAgent(PacketStory& story, const std::vector<Query>& queries, std::int64_t start) const {
        if (story.presentations.empty()) return;
        const std::set<std::string> urls = urlsOf(story);
        std::set<std::string> replied;
        for (const ObservedQuestion& question : observation_.questions()) {
            if (!urls.count(question.url) || question.replied - start > story.presentations.back().at)
                continue;
            replied.insert(question.url);
            story.agent.push_back({question.url, question.asked - start, question.replied - start,
                                   question.reply, ruleOf(question.url, queries)});
        }
        for (const std::string& url : urls)
            if (!replied.count(url)) story.agent.push_back({url, 0, -1, "", ruleOf(url, queries)});
    }

    static std::string ruleOf(const std::string& url, const std::vector<Query>& queries) {
        const auto query =
            std::find_if(queries.begin(), queries.end(), [&](const Query& one) { return one.url == url; });
        return query == queries.end() ? "" : query->decision.rule;
    }

    const Observation& observation_;
    const std::vector<Range> wanted_;
    long last_ = 0;
    long farthest_ = 0;
    std::set<long> over_;
    RecordOrigins origins_;
    std::map<long, PacketStory> stories_;
    std::map<long, std::vector<Query>> queries_;
};

Colour colourOf(int result) {
    switch (result) {
        case resultPass:
            return Colour::good;
        case resultHold:
            return Colour::notice;
        default:
            return Colour::bad;
    }
}

std::string secondsText(std::int64_t microseconds) {
    return fmt::format("{:.3f} s", static_cast<double>(microseconds) / 1e6);
}

std::string headingOf(const PacketStory& story, const std::string& capture) {
    const PlayedPacket& played = story.played;
    return fmt::format("Packet {} of {}: {}, {} -> {}, {} bytes", played.packet.number, capture,
                       played.outbound ? "outbound" : "inbound", played.packet.source.text(),
                       played.packet.destination.text(), played.packet.bytes.size());
}

std::string presentationText(const PacketStory& story, std::size_t place, std::size_t width, bool colours) {
    const Presentation& presentation = story.presentations[place];
    std::string heading = fmt::format("\nShown at {}", secondsText(presentation.at));
    if (place) heading += fmt::format(" (presentation {})", place + 1);
    if (!presentation.result) return heading + ": the daemon gave no answer.\n";
    const int result = presentation.result->result;
    heading +=
        fmt::format(": {} (verdict {}, result {})\n", coloured(resultWord(result), colourOf(result), colours),
                    presentation.seen.verdict, result);
    TextTable table({"test", "answer", "what it means"});
    for (const ToldStep& step : toldSteps(presentation, story.played.outbound, story.origins)) {
        const bool log = step.test == "log";
        table.add({{step.test, log ? Colour::faint : Colour::none},
                   {step.answer, Colour::none},
                   {step.words, log            ? Colour::faint
                                : step.decides ? Colour::strong
                                               : Colour::none}});
    }
    return heading + table.text(width, 2, colours);
}

std::string agentText(const PacketStory& story) {
    std::string text;
    for (const ToldQuestion& question : story.agent) {
        const std::string rule = question.rule.empty() ? "no rule matches" : question.rule;
        if (question.replied < 0)
            text += fmt::format("  {}: no reply yet ({})\n", printable(question.url), printable(rule));
        else
            text +=
                fmt::format("  {}: asked at {}, replied at {}: {} ({})\n", printable(question.url),
                            secondsText(question.asked), secondsText(question.replied),
                            question.reply.empty() ? "nothing" : printable(question.reply), printable(rule));
    }
    return text.empty() ? "" : "\nThe agent\n" + text;
}

std::string bytesText(const PacketStory& story, std::size_t width, bool colours) {
    const std::vector<ReadBytes> read = readIn(story);
    TextTable table({"", "read", "offsets", "answer"});
    for (const ReadBytes& reader : read)
        table.add({{std::string(1, reader.letter), Colour::strong},
                   {reader.what, Colour::none},
                   {reader.offsets.empty() ? "-" : rangesOf(reader.offsets), Colour::none},
                   {reader.answer.empty() ? "none" : reader.answer, Colour::none}});
    return "\nThe bytes that the answers hang on (another value gives another answer)\n" +
           table.text(width, 2, colours) + "\n" +
           hexView(story.presentations.front().seen.memory, story.played.packet.bytes.size(), read);
}

// Presentations alike in all but their time are told once.
bool isAsBefore(const PacketStory& story, std::size_t place) {
    if (!place) return false;
    const ObservedPacket& one = story.presentations[place - 1].seen;
    const ObservedPacket& other = story.presentations[place].seen;
    return one.verdict == other.verdict &&
           std::equal(one.steps.begin(), one.steps.end(), other.steps.begin(), other.steps.end(),
                      [](const ObservedStep& a, const ObservedStep& b) {
                          return a.call == b.call && a.answer == b.answer &&
                                 (a.call == Call::logLine || a.text == b.text);
                      });
}

void print(const std::map<long, PacketStory>& stories, const ExplainOptions& options) {
    const std::string name = options.capture.substr(options.capture.rfind('/') + 1);
    const bool withBytes = stories.size() <= mostWithBytes;
    bool first = true;
    for (const auto& [number, story] : stories) {
        if (options.json) {
            const nlohmann::ordered_json told = explanationJson(story, withBytes);
            fmt::print("{}\n", told.dump(-1, ' ', true));
            continue;
        }
        fmt::print("{}{}", first ? "" : "\n",
                   explanationText(story, name, widthOf(stdout), showsColours(stdout)));
        first = false;
    }
}

} // namespace

std::string explanationText(const PacketStory& story, const std::string& capture, std::size_t width,
                            bool colours) {
    std::string text = coloured(headingOf(story, capture), Colour::strong, colours) + "\n";
    if (story.presentations.empty())
        return text +
               "It was not shown to the daemon: its connection was redirected before, which ends it, or the "
               "daemon had gone, or answered no more.\n";
    std::string repeated;
    for (std::size_t place = 0; place < story.presentations.size(); ++place) {
        if (isAsBefore(story, place)) {
            repeated += (repeated.empty() ? "" : ", ") + secondsText(story.presentations[place].at);
            continue;
        }
        if (!repeated.empty()) text += "  The same again at " + repeated + ".\n";
        repeated.clear();
        text += presentationText(story, place, width, colours);
    }
    if (!repeated.empty()) text += "  The same again at " + repeated + ".\n";
    text += agentText(story) + bytesText(story, width, colours);
    if (!isTrue(story)) text += "\nWhat is told here is not what the daemon did.\n";
    return text;
}

int explain(const ExplainOptions& options) {
    if (!Observation::possible())
        throw std::runtime_error("this build of the lab cannot look into the daemon");
    Policy policy = Policy::load(options.policy);
    std::vector<Range> wanted;
    wanted.reserve(options.packets.size());
    for (const std::string& packet : options.packets)
        wanted.push_back(rangeOf(packet));
    const CaptureFacts facts = survey(options.capture);

    enterPrivateNetwork();
    const Observation observation;
    Stage stage(options.root, std::move(policy), facts.firstTime);
    stage.root.configure(options.blockOnFailure, everyLogLevel);
    if (!stage.raise()) {
        stage.daemon.stop();
        throw std::runtime_error("the daemon did not connect its control sockets; it wrote:\n" +
                                 stage.root.outputTail());
    }
    JsonReport json("");
    TableReport table(nullptr);
    Explainer explainer(observation, wanted);
    Replay engine(stage.extension, stage.agent, stage.daemon, stage.clock, json, table, nullptr);
    engine.setWatch(&explainer);
    const bool alive = engine.play(options.capture, facts);
    stage.daemon.stop();
    if (!alive)
        fmt::print(stderr, "fernhill-lab: {}; it wrote:\n{}\n", engine.fault(), stage.root.outputTail());

    const std::map<long, PacketStory> stories = explainer.finish(facts.firstTime);
    if (stories.empty())
        throw InputError(fmt::format("{}: no IP packet of that number; it has {} records", options.capture,
                                     facts.records));
    print(stories, options);
    const bool told =
        std::all_of(stories.begin(), stories.end(), [](const auto& story) { return isTrue(story.second); });
    return told && alive ? 0 : 1;
}

} // namespace lab
