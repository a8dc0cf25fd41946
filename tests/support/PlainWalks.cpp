#include "support/PlainWalks.h"

#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <algorithm>
#include <cstring>
#include <deque>

namespace testsupport::plain {
namespace {

constexpr auto npos = std::string::npos;

Owned<GPString> trimmed(std::string_view text) {
    auto string = Owned<GPString>::adopt(new GPString(text.data(), static_cast<int>(text.size())));
    string->trim();
    return string;
}

// The size of the buffer that replace calls for, and whether there is a match; overlapping ones count.
long long replacedSize(const std::string& text, const std::string& from, const std::string& to, bool& found) {
    long long size = static_cast<long long>(text.size()) + 1;
    for (std::size_t match = text.find(from); match != npos; match = text.find(from, match + 1)) {
        found = true;
        size += static_cast<long long>(to.size()) - static_cast<long long>(from.size());
    }
    return size;
}

// An element as the rules tell of it.
struct PlainElement {
    std::string name;
    std::string attributeText;
    std::string value;
    bool hasValue = false;
    std::size_t valueStart = 0;
    PlainElement* parent = nullptr;
    std::vector<PlainElement*> children;
};

// A tag from the character in front of its name to its ">".
PlainElement readTag(const std::string& tag) {
    PlainElement element;
    const auto blank = tag.find(' ');
    element.name = blank == npos ? tag.substr(1, tag.size() - 2) : tag.substr(1, blank - 1);
    if (blank == npos) return element;
    const std::size_t end = tag.size() - (tag[tag.size() - 2] == '/' ? 2 : 1);
    element.attributeText = end > blank + 1 ? tag.substr(blank + 1, end - blank - 1) : "";
    return element;
}

std::string shown(const PlainElement& element) {
    std::string text = "(" + element.name + "=" + (element.hasValue ? element.value : "-") +
                       shownAttributes(Owned<GPMap>::adopt(readAttributes(element.attributeText)).get());
    for (const PlainElement* child : element.children)
        text += shown(*child);
    return text + ")";
}

} // namespace

std::string shownAttributes(GPMap* attributes) {
    if (!attributes) return "";
    std::string text = " {";
    for (const char* key = attributes->firstKey(); key; key = attributes->nextKey())
        text += std::string(key) + "=" + static_cast<GPString*>(attributes->objectForKey(key))->cstr() + ";";
    return text + "}";
}

std::string readDocument(const std::string& text) {
    std::deque<PlainElement> all;
    PlainElement* root = nullptr;
    PlainElement* current = nullptr;
    for (std::size_t position = 0;;) {
        const auto open = text.find('<', position);
        const auto close = open == npos ? npos : text.find('>', open);
        if (close == npos) break;
        position = close + 1;
        const char kind = text[open + 1];
        if (kind == '!' || kind == '?') continue;
        if (kind == '/') {
            if (!current) continue;
            const PlainElement end = readTag(text.substr(open + 1, position - open - 1));
            if (end.name == current->name && current->children.empty()) {
                current->value = text.substr(current->valueStart, open - current->valueStart);
                current->hasValue = true;
            }
            current = current->parent;
            continue;
        }
        PlainElement* element = &all.emplace_back(readTag(text.substr(open, position - open)));
        element->valueStart = position;
        if (!root) {
            root = element;
        } else {
            element->parent = current;
            if (current) current->children.push_back(element);
        }
        if (text[close - 1] != '/') {
            current = element;
            continue;
        }
        element->name.erase(std::remove(element->name.begin(), element->name.end(), '/'),
                            element->name.end());
        if (current && current->parent) current = current->parent;
    }
    return root ? shown(*root) : "nothing";
}

int find(const std::string& hay, const std::string& needle, bool fromEnd) {
    if (hay.empty()) return -1;
    const char* const text = hay.c_str();
    if (fromEnd) {
        const char last = needle.empty() ? '\0' : needle.back();
        const char* hit = std::strrchr(text, last);
        if (!hit) return -1;
        const auto place = static_cast<std::size_t>(hit - text);
        for (std::size_t back = 0; back < needle.size(); ++back)
            if (back > place || text[place - back] != needle[needle.size() - 1 - back]) return -1;
        return static_cast<int>(place);
    }
    for (const char* hit = std::strchr(text, needle[0]); hit; hit = std::strchr(hit + 1, needle[0]))
        if (std::strncmp(hit, needle.c_str(), needle.size()) == 0) return static_cast<int>(hit - text);
    return -1;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    std::size_t position = 0;
    while (position < text.size()) {
        const int found = find(text.substr(position), separator, false);
        const std::size_t match = position + static_cast<std::size_t>(found);
        if (found < 0 || match == 0) break;
        pieces.push_back(text.substr(position, match - position));
        position = match + separator.size();
    }
    if (position < text.size()) pieces.push_back(text.substr(position));
    return pieces;
}

std::string replaced(const std::string& text, const std::string& from, const std::string& to) {
    if (from.empty()) return text;
    bool found = false;
    if (replacedSize(text, from, to, found) < 1 || !found) return text;
    std::string result;
    std::size_t resume = 0;
    for (std::size_t match = text.find(from); match != npos; match = text.find(from, resume)) {
        result += text.substr(resume, match);
        result += to;
        resume = match + from.size();
    }
    return result + text.substr(resume);
}

void readHeaders(std::string_view answer, GPMap& headers) {
    const auto blockEnd = answer.find("\r\n\r\n");
    if (blockEnd == npos) return;
    const std::string_view block = answer.substr(0, blockEnd + 1);
    auto place = block.find('\n');
    if (place == npos) return;
    ++place;
    while (true) {
        const auto colon = block.find(':', place);
        if (colon == npos) return;
        auto end = block.find('\n', colon);
        if (end == npos) end = block.find('\r', colon);
        if (end == npos || end < colon + 2) return;
        auto value = trimmed(block.substr(colon + 2, end - colon - 1));
        headers.setObject(value.handOver(), trimmed(block.substr(place, colon - place))->cstr());
        place = end + 1;
    }
}

GPMap* readAttributes(const std::string& text) {
    const auto pieces = split(text, " ");
    if (pieces.empty()) return nullptr;
    auto* attributes = new GPMap(static_cast<int>(pieces.size()));
    for (const std::string& piece : pieces) {
        const auto equals = piece.find('=');
        if (equals == npos || equals == 0) continue;
        std::string value = piece.substr(equals + 1);
        value.erase(std::remove_if(value.begin(), value.end(), [](char c) { return c == '"' || c == '\''; }),
                    value.end());
        attributes->setObject(new GPString(value.c_str()), piece.substr(0, equals).c_str());
    }
    return attributes;
}

} // namespace testsupport::plain
