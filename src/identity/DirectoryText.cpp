#include "identity/DirectoryText.h"

#include "config/Configuration.h"
#include "gp/GPLog.h"

#include <cstring>

namespace {

constexpr const char* absentText = "(null)";

} // namespace

const std::string* firstValue(const platform::DirectoryDetails& details, const char* attribute) {
    const auto found = details.find(attribute);
    return found == details.end() || found->second.empty() ? nullptr : &found->second.front();
}

DirectoryText firstText(const platform::DirectoryDetails& details, const char* attribute) {
    const std::string* value = firstValue(details, attribute);
    return value ? DirectoryText(*value) : std::nullopt;
}

DirectoryText withoutExtension(const DirectoryText& name) {
    if (!name) return std::nullopt;
    const std::size_t slash = name->rfind('/');
    const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = name->rfind('.');
    return dot == std::string::npos || dot <= start ? *name : name->substr(0, dot);
}

std::string formatted(const char* format, std::initializer_list<DirectoryText> texts) {
    std::string result;
    for (const DirectoryText& text : texts) {
        const char* mark = std::strstr(format, "%@");
        if (!mark) break;
        result.append(format, mark).append(text ? *text : absentText);
        format = mark + 2;
    }
    return result + format;
}

std::string described(const std::vector<std::string>& texts) {
    std::string result = "(";
    for (const std::string& text : texts)
        result += (result.size() > 1 ? ", " : "") + text;
    return result + ")";
}

std::string described(const platform::DirectoryRecords& records) {
    std::vector<std::string> texts;
    for (const auto& record : records)
        texts.push_back(record->description());
    return described(texts);
}

DirectoryText described(const std::optional<std::vector<std::string>>& texts) {
    return texts ? DirectoryText(described(*texts)) : std::nullopt;
}

void logText(const char* format, std::initializer_list<DirectoryText> texts) {
    logs(formatted(format, texts).c_str());
}

void logTextVerbosely(const char* format, std::initializer_list<DirectoryText> texts) {
    if (logsDirectory()) logText(format, texts);
}

void logRecordsVerbosely(const char* format, const platform::DirectoryRecords& records) {
    if (logsDirectory()) logText(format, {described(records)});
}

bool logsDirectory() { return Configuration::isLogLevel(1); }
