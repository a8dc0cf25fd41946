#pragma once

// The policy file that steers the stand-in agent: one rule a line, the first match wins, `*` in a pattern is
// any run of characters, a `#` at the beginning of a word starts a comment.
//
//   allow PATTERN              block PATTERN REDIRECT-URL     slow MILLISECONDS PATTERN (then allows)
//   silent PATTERN             retry COUNT PATTERN            garble PATTERN
//   drop PATTERN               push JSON (a configuration frame after each logon)

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab {

// A policy or a capture that cannot be used; the text names the file and the place.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Action { allow, block, slow, silent, retry, garble, drop };

// What the agent does with one question.
struct Decision {
    Action action = Action::allow;
    std::string redirect;  // of a block
    long milliseconds = 0; // of a slow answer
    std::string rule;      // the rule's line as written; empty without a matching rule
};

class Policy {
public:
    // Reads a policy file. Throws InputError.
    static Policy load(const std::string& path);

    // Reads the text of a policy; `name` stands for the file in errors. Throws InputError.
    static Policy parse(const std::string& text, const std::string& name);

    // Decides one question. A `retry` rule counts its questions for each URL. The policy, or what it is moved into, has
    // the decision as long as it lives.
    const Decision& decide(const std::string& url);

    // Bodies of the configuration frames: the JSON of the policy with a comma behind the value of each key, as
    // the daemon needs it, and an "update_url", empty where the policy names none: what the daemon logs of
    // it tells that the frame has been taken in.
    const std::vector<std::string>& pushes() const { return pushes_; }

    std::size_t ruleCount() const { return rules_.size(); }

    // The host names in the patterns of its rules, without what stands for any characters.
    std::vector<std::string> hosts() const;

private:
    struct Rule {
        std::string pattern;
        Decision decision;
        long number = 0;
        std::map<std::string, long> asked;
    };

    void addLine(const std::string& line, const std::string& place);

    std::vector<Rule> rules_;
    std::vector<std::string> pushes_;
};

// Whether the whole of `text` fits `pattern`.
bool matches(const std::string& pattern, const std::string& text);

// The word for an action, as it stands in policy files.
const char* actionName(Action action);

} // namespace lab
