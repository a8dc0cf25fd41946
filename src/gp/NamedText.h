#pragma once

// Names with their values as a foreign text lists them. Whoever fills a map from them takes the repeated names out
// here first: a map walks its chains for each name, and nobody is to make these long from outside.

#include <cstddef>
#include <map>
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

// Gathers entries and keeps the last of each name, without room for all that have gone.
class LastOfEachName {
public:
    void add(const NamedText& text);

    // What keepLastOfEachName leaves of all that were added. Once, at the end.
    std::vector<NamedText> take();

private:
    void beginIndex();
    void addIndexed(const NamedText& text);
    void dropReplaced();

    std::vector<NamedText> texts_;
    // Of texts with very many entries only: where the last of each name is, and which entries a later one replaces.
    std::map<std::string_view, std::size_t> places_;
    std::vector<bool> isReplaced_;
    std::size_t replaced_ = 0;
};
