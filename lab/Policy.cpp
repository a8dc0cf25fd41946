#include "lab/Policy.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace lab {
namespace {

struct Shape {
    const char* word;
    Action action;
    bool numberFirst;
    bool redirectLast;
};

constexpr Shape shapes[] = {
    {"allow", Action::allow, false, false}, {"block", Action::block, false, true},
    {"slow", Action::slow, true, false},    {"silent", Action::silent, false, false},
    {"retry", Action::retry, true, false},  {"garble", Action::garble, false, false},
    {"drop", Action::drop, false, false},
};

const Shape* shapeOf(const std::string& word) {
    for (const Shape& shape : shapes) {
        if (word == shape.word) return &shape;
    }
    return nullptr;
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> result;
    for (std::string word; stream >> word;)
        result.push_back(word);
    return result;
}

long wholeNumber(const std::string& word, const std::string& place) {
    if (word.empty() || word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos)
        throw InputError(fmt::format("{}: '{}' is not a whole number", place, word));
    return std::stol(word);
}

// The daemon reads a value up to the comma behind it, so no key that counts may stand last.
constexpr char pushEnd[] = R"("end":1})";

std::string pushBody(const std::string& text, const std::string& place) {
    auto json = nlohmann::ordered_json::parse(text, nullptr, false);
    if (!json.is_object())
        throw InputError(fmt::format("{}: push takes a JSON object, not '{}'", place, text));
    if (!json.contains("update_url")) json["update_url"] = "";
    std::string body = json.dump();
    body.back() = ',';
    return body + pushEnd;
}

constexpr char blanks[] = " \t\r\v\f";

bool isBlank(char byte) { return byte != 0 && std::strchr(blanks, byte); }

// Where the comment of a line begins: a '#' in front of a word, but not inside the quotes of a push.
std::size_t commentStart(const std::string& line) {
    const auto first = line.find_first_not_of(blanks);
    const bool push = first != std::string::npos && line.compare(first, 5, "push ") == 0;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (push && quoted && line[i] == '\\')
            ++i;
        else if (push && line[i] == '"')
            quoted = !quoted;
        else if (!quoted && line[i] == '#' && (i == 0 || isBlank(line[i - 1])))
            return i;
    }
    return line.size();
}

// What counts of a line.
std::string contentOf(const std::string& line) {
    const std::string content = line.substr(0, commentStart(line));
    const auto first = content.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return content.substr(first, content.find_last_not_of(blanks) - first + 1);
}

// The host in a pattern: what stands behind the scheme and in front of path, port or anything.
std::string hostOf(const std::string& pattern) {
    const auto scheme = pattern.find("://");
    const auto start = pattern.find_first_not_of("*.", scheme == std::string::npos ? 0 : scheme + 3);
    if (start == std::string::npos) return "";
    const std::string host = pattern.substr(start, pattern.find_first_of("/:*", start) - start);
    constexpr char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.";
    return host.find_first_not_of(letters) == std::string::npos ? host : "";
}

} // namespace

bool matches(const std::string& pattern, const std::string& text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string::npos;
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string::npos;
}

const char* actionName(Action action) {
    for (const Shape& shape : shapes) {
        if (shape.action == action) return shape.word;
    }
    return "allow";
}

Policy Policy::load(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        throw InputError(fmt::format("{}: the policy is a folder, not a file", path));
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open())
        throw InputError(fmt::format("{}: the policy file cannot be read: {}", path, std::strerror(errno)));
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return parse(text, path);
}

Policy Policy::parse(const std::string& text, const std::string& name) {
    Policy policy;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const std::string content = contentOf(line);
        if (!content.empty()) policy.addLine(content, fmt::format("{}:{}", name, number));
    }
    return policy;
}

void Policy::addLine(const std::string& line, const std::string& place) {
    const std::vector<std::string> parts = words(line);
    if (parts[0] == "push") {
        pushes_.push_back(pushBody(line.substr(4), place));
        return;
    }
    const Shape* shape = shapeOf(parts[0]);
    if (!shape)
        throw InputError(fmt::format(
            "{}: '{}' is no rule (allow, block, slow, silent, retry, garble, drop, push)", place, parts[0]));
    const std::size_t expected = 2 + (shape->numberFirst ? 1 : 0) + (shape->redirectLast ? 1 : 0);
    if (parts.size() != expected)
        throw InputError(fmt::format("{}: a rule '{}' reads: {} {}PATTERN{}", place, shape->word, shape->word,
                                     shape->numberFirst ? "NUMBER " : "",
                                     shape->redirectLast ? " REDIRECT-URL" : ""));
    Rule rule{parts[shape->numberFirst ? 2 : 1], {shape->action, "", 0, line}, 0, {}};
    if (shape->numberFirst) rule.number = wholeNumber(parts[1], place);
    if (shape->action == Action::slow) rule.decision.milliseconds = rule.number;
    if (shape->redirectLast) rule.decision.redirect = parts[2];
    rules_.push_back(std::move(rule));
}

std::vector<std::string> Policy::hosts() const {
    std::set<std::string> hosts;
    for (const Rule& rule : rules_) {
        const std::string host = hostOf(rule.pattern);
        if (host.find('.') != std::string::npos) hosts.insert(host);
    }
    return {hosts.begin(), hosts.end()};
}

const Decision& Policy::decide(const std::string& url) {
    for (Rule& rule : rules_) {
        if (!matches(rule.pattern, url)) continue;
        if (rule.decision.action == Action::retry && rule.asked[url]++ >= rule.number) continue;
        return rule.decision;
    }
    static const Decision none;
    return none;
}

} // namespace lab
