// The lab's policy: the reader of its file, and its decisions, held against a plain matching of patterns. The first run
// of bytes is the URL, the rest the policy.

#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "lab/Policy.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using fuzzing::require;

// Whether the text fits, by what the first so many bytes of it fit: a row for each byte of the pattern.
bool fits(const std::string& pattern, const std::string& text) {
    std::vector<bool> row(text.size() + 1);
    row[0] = true;
    for (const char sign : pattern) {
        if (sign == '*') {
            for (std::size_t i = 1; i < row.size(); ++i)
                row[i] = row[i] || row[i - 1];
        } else {
            for (std::size_t i = row.size() - 1; i > 0; --i)
                row[i] = row[i - 1] && text[i - 1] == sign;
            row[0] = false;
        }
    }
    return row.back();
}

// What the line of a rule says behind its word.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words(1);
    for (const char sign : line) {
        if (std::string(" \t\r\v\f").find(sign) == std::string::npos)
            words.back() += sign;
        else if (!words.back().empty())
            words.emplace_back();
    }
    if (words.back().empty()) words.pop_back();
    return words;
}

void lookAt(lab::Policy& policy, const std::string& url) {
    for (const std::string& push : policy.pushes()) {
        const auto json = nlohmann::json::parse(push, nullptr, false);
        require(json.is_object() && json.contains("update_url") && json.contains("end"));
    }
    for (const std::string& host : policy.hosts())
        require(host.find('.') != std::string::npos && host.find('*') == std::string::npos);

    const lab::Decision decision = policy.decide(url);
    if (decision.rule.empty()) {
        require(decision.action == lab::Action::allow && policy.ruleCount() < 1000000);
        return;
    }
    const auto words = wordsOf(decision.rule);
    require(words.at(0) == lab::actionName(decision.action));
    const bool numbered = decision.action == lab::Action::slow || decision.action == lab::Action::retry;
    require(fits(words.at(numbered ? 2 : 1), url));
    require((decision.action == lab::Action::block) == !decision.redirect.empty());
    require(decision.milliseconds >= 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::FuzzInput input(data, size);
    // As long as the agent's frames let it be.
    const std::string url = input.run().substr(0, 5000);
    const std::string text = input.rest();
    const std::string pattern = text.substr(0, std::min<std::size_t>(text.find('\n'), 2000));
    require(lab::matches(pattern, url.substr(0, 500)) == fits(pattern, url.substr(0, 500)));
    try {
        lab::Policy policy = lab::Policy::parse(text, "policy");
        lookAt(policy, url);
    } catch (const lab::InputError&) {
    }
    return 0;
}
