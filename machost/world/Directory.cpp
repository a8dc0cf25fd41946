#include "machost/world/Directory.h"

#include "machost/world/MachineDirectory.h"
#include "machost/world/World.h"

namespace machost::world {
namespace {

// A node's conversation with whoever plays it. What came from the node shares it.
using Conversation = std::shared_ptr<Line>;

// The answer's words behind "yes"; false with the problem behind "no".
bool told(Line& line, const Words& question, Words& answer, std::string& problem) {
    line.tell(question);
    Answer reply = Answer::of(line.next());
    if (reply.kind != Answer::yes) {
        problem = reply.words.empty() ? "the directory has gone" : reply.words[0];
        return false;
    }
    answer = std::move(reply.words);
    return true;
}

class PlayedRecord final : public DirectoryRecord {
public:
    PlayedRecord(Conversation line, std::string id, std::string type, std::string description)
        : line_(std::move(line)), id_(std::move(id)), type_(std::move(type)),
          description_(std::move(description)) {}

    const std::string& type() const override { return type_; }
    const std::string& description() const override { return description_; }

    // An attribute is its name, the number of its values, and these.
    bool details(const std::vector<std::string>& attributes, DirectoryDetails& details,
                 std::string& problem) const override {
        Words question = {"details", id_}, answer;
        question.insert(question.end(), attributes.begin(), attributes.end());
        if (!told(*line_, question, answer, problem)) return false;
        for (std::size_t i = 0; i + 1 < answer.size();) {
            const std::string& name = answer[i];
            const auto count = numberIn(answer[i + 1], 0, static_cast<std::int64_t>(answer.size()));
            const std::size_t end = i + 2 + static_cast<std::size_t>(count);
            for (i += 2; i < end && i < answer.size(); ++i)
                details[name].push_back(answer[i]);
        }
        return true;
    }

private:
    const Conversation line_;
    const std::string id_, type_, description_;
};

class PlayedQuery final : public DirectoryQuery {
public:
    PlayedQuery(Conversation line, std::string id) : line_(std::move(line)), id_(std::move(id)) {}

    // A record is its number, its type and its description.
    bool results(bool partial, DirectoryRecords& records, std::string& problem) override {
        Words answer;
        if (!told(*line_, {"results", id_, partial ? "1" : "0"}, answer, problem)) return false;
        for (std::size_t i = 0; i + 2 < answer.size(); i += 3)
            records.push_back(std::make_shared<PlayedRecord>(line_, answer[i], answer[i + 1], answer[i + 2]));
        return true;
    }

private:
    const Conversation line_;
    const std::string id_;
};

class PlayedNode final : public DirectoryNode {
public:
    explicit PlayedNode(Conversation line) : line_(std::move(line)) {}

    std::unique_ptr<DirectoryQuery> query(const DirectoryTerms& terms, std::string& problem) override {
        Words answer;
        const Words question = {"query",
                                terms.recordType,
                                terms.attribute,
                                std::to_string(terms.matchType),
                                terms.value,
                                terms.returned,
                                std::to_string(terms.limit)};
        if (!told(*line_, question, answer, problem) || answer.empty()) return nullptr;
        return std::make_unique<PlayedQuery>(line_, answer[0]);
    }

private:
    const Conversation line_;
};

// The played node; else null, with `real` set where nobody plays the directory.
DirectoryNodeRef playedNode(const Words& question, bool& real, std::string& problem) {
    const auto line = std::make_shared<Line>(question);
    const Answer answer = Answer::of(line->next());
    real = answer.kind == Answer::real;
    if (real) return nullptr;
    if (answer.kind == Answer::yes) return std::make_shared<PlayedNode>(line);
    problem = answer.words.empty() ? "" : answer.words[0];
    return nullptr;
}

} // namespace

bool directoryNodeNames(std::vector<std::string>& names, std::string& problem) {
    const Answer answer = ask({"directory-nodes"});
    if (answer.kind == Answer::no) {
        problem = answer.words.empty() ? "" : answer.words[0];
        return false;
    }
    names = answer.kind == Answer::real ? machine::nodeNames() : answer.words;
    return true;
}

DirectoryNodeRef directoryNodeOfType(std::uint32_t type, std::string& problem) {
    bool real = false;
    DirectoryNodeRef node = playedNode({"directory-type", std::to_string(type)}, real, problem);
    if (!real) return node;
    node = machine::nodeOfType(type);
    if (!node) problem = "no node of this type";
    return node;
}

DirectoryNodeRef directoryNodeNamed(const std::string& name, std::string& problem) {
    bool real = false;
    DirectoryNodeRef node = playedNode({"directory-node", name}, real, problem);
    if (!real) return node;
    node = machine::nodeNamed(name);
    if (!node) problem = "no node " + name;
    return node;
}

} // namespace machost::world
