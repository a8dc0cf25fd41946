#pragma once

// Names with their values as a foreign text lists them. Whoever fills a map from them takes the repeated names out
// here first: a map walks its chains for each name, and nobody is to make these long from outside.

#include <string_view>
#include <vector>

// Both are borrowed from the text.
struct NamedText {
    std::string_view name;
    std::string_view value;
};

// Takes out each entry whose name comes again further on. The others keep their order. No choice of names makes
// this slow.
void keepLastOfEachName(std::vector<NamedText>& texts);
