#include "lab/DirectoryAnswers.h"

#include "platform/Directory.h"

#include <cstdlib>
#include <memory>

namespace lab {
namespace {

using platform::DirectoryError;

// What has come from one node, each numbered in the order in which it came.
class NodeConversation {
public:
    NodeConversation(int connection, platform::DirectoryNodeRef node)
        : connection_(connection), node_(std::move(node)) {}

    void run() {
        say(connection_, {"yes"});
        for (Words words = readWords(connection_); !words.empty(); words = readWords(connection_))
            answer(words);
    }

private:
    void answer(const Words& words) {
        if (words[0] == "query" && words.size() == 7) return makeQuery(words);
        const std::size_t number = words.size() > 1 ? std::strtoul(words[1].c_str(), nullptr, 10) : 0;
        if (words[0] == "results" && words.size() == 3 && number < queries_.size())
            return tellResults(*queries_[number], words[2] == "1");
        if (words[0] == "details" && words.size() > 1 && number < records_.size())
            return tellDetails(*records_[number], {words.begin() + 2, words.end()});
        say(connection_, {"no", "a question that nobody asks"});
    }

    void makeQuery(const Words& words) {
        platform::DirectoryQueryTerms terms;
        terms.recordType = words[1];
        terms.attribute = words[2];
        terms.matchType = static_cast<platform::DirectoryMatchType>(std::stoul(words[3]));
        terms.queryValue = words[4];
        terms.returnAttributes = words[5];
        terms.maximumResults = std::stoi(words[6]);
        DirectoryError error;
        auto query = platform::directory().queryWithNode(node_, terms, error);
        if (!query) return say(connection_, {"no", error.description});
        queries_.push_back(std::move(query));
        say(connection_, {"yes", std::to_string(queries_.size() - 1)});
    }

    // A record is its number, its type and its description.
    void tellResults(platform::DirectoryQuery& query, bool partial) {
        platform::DirectoryRecords found;
        DirectoryError error;
        if (!query.resultsAllowingPartial(partial, found, error))
            return say(connection_, {"no", error.description});
        Words answer = {"yes"};
        for (const auto& record : found) {
            answer.insert(answer.end(),
                          {std::to_string(records_.size()), record->recordType(), record->description()});
            records_.push_back(record);
        }
        say(connection_, answer);
    }

    // An attribute is its name, the number of its values, and these.
    void tellDetails(const platform::DirectoryRecord& record, const Words& attributes) {
        platform::DirectoryDetails details;
        DirectoryError error;
        if (!record.recordDetailsForAttributes(attributes, details, error))
            return say(connection_, {"no", error.description});
        Words answer = {"yes"};
        for (const auto& [name, values] : details) {
            answer.insert(answer.end(), {name, std::to_string(values.size())});
            answer.insert(answer.end(), values.begin(), values.end());
        }
        say(connection_, answer);
    }

    const int connection_;
    const platform::DirectoryNodeRef node_;
    std::vector<std::unique_ptr<platform::DirectoryQuery>> queries_;
    platform::DirectoryRecords records_;
};

void converse(int connection, const platform::DirectoryNodeRef& node, const DirectoryError& error) {
    if (!node) return say(connection, {"no", error.description});
    NodeConversation(connection, node).run();
}

} // namespace

void answerDirectoryNodes(int connection, const Words&) {
    Words answer = {"yes"};
    DirectoryError error;
    std::vector<std::string> names;
    if (!platform::directory().nodeNames(names, error)) return say(connection, {"no", error.description});
    answer.insert(answer.end(), names.begin(), names.end());
    say(connection, answer);
}

void converseWithNodeOfType(int connection, const Words& question) {
    DirectoryError error;
    const auto type = static_cast<platform::DirectoryNodeType>(std::stoul(question[1]));
    const auto node = platform::directory().nodeWithType(type, error);
    converse(connection, node, error);
}

void converseWithNamedNode(int connection, const Words& question) {
    DirectoryError error;
    const auto node = platform::directory().nodeWithName(question[1], error);
    converse(connection, node, error);
}

} // namespace lab
