#include "support/CapturedLog.h"

#include "gp/GPLog.h"

#include <algorithm>
#include <list>

namespace testsupport {

CapturedLog::CapturedLog() {
    setLogName("captured");
    // The text stays: a thread that the test has left behind may log at any time.
    static auto& texts = *new std::list<std::string>;
    setLogDirectory(texts.emplace_back(folder_.path()).c_str());
}

CapturedLog::~CapturedLog() { setLogDirectory("/nonexistent"); }

// A record is "[<thread> <time>]: <message>" with a line break; the message may hold line breaks of its own.
std::vector<std::string> CapturedLog::messages() const {
    const std::string text = readAll(folder_.file("captured0-1.log"));
    std::vector<std::string> found;
    const auto startsRecord = [&text](std::size_t at) {
        if (at >= text.size() || text[at] != '[') return false;
        const std::size_t blank = text.find_first_not_of("0123456789", at + 1);
        return blank != std::string::npos && blank > at + 1 && text[blank] == ' ';
    };
    std::size_t at = 0;
    while (startsRecord(at)) {
        const std::size_t start = text.find("]: ", at) + 3;
        std::size_t end = text.find('\n', start);
        while (end != std::string::npos && end + 1 < text.size() && !startsRecord(end + 1))
            end = text.find('\n', end + 1);
        if (end == std::string::npos) end = text.size();
        found.push_back(text.substr(start, end - start));
        at = end + 1;
    }
    return found;
}

bool CapturedLog::holds(const std::string& message) const {
    const auto all = messages();
    return std::find(all.begin(), all.end(), message) != all.end();
}

int CapturedLog::countContaining(const std::string& text) const {
    int count = 0;
    for (const std::string& message : messages())
        count += message.find(text) != std::string::npos;
    return count;
}

} // namespace testsupport
