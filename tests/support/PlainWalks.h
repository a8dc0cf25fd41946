#pragma once

// The walks over text as the rules tell them, step by step and whatever they cost: what the quicker ones of the
// system are held against.

#include <string>
#include <string_view>
#include <vector>

class GPMap;

namespace testsupport::plain {

// Index of the match, or -1; from the end that of its last character.
int find(const std::string& hay, const std::string& needle, bool fromEnd);

std::vector<std::string> split(const std::string& text, const std::string& separator);

std::string replaced(const std::string& text, const std::string& from, const std::string& to);

// Stores the headers of the answer one by one, each in place of an earlier one of its name.
void readHeaders(std::string_view answer, GPMap& headers);

// Stores the attributes of a tag's text behind its name likewise, in as many buckets as there are pieces. The caller
// owns the result, which is null when there is no piece.
GPMap* readAttributes(const std::string& text);

// " {key=value;...}" in the order of the key walk; empty for null.
std::string shownAttributes(GPMap* attributes);

// What is read of a document's first element: each element as "(name=value attributes children)", with "-" for no value,
// or "nothing".
std::string readDocument(const std::string& text);

} // namespace testsupport::plain
