#include "gp/NamedText.h"

#include <set>

void keepLastOfEachName(std::vector<NamedText>& texts) {
    // A tree and no hash table: whoever writes the names can choose them to collide.
    std::set<std::string_view> later;
    auto kept = texts.end();
    for (auto text = texts.end(); text != texts.begin();) {
        --text;
        if (later.insert(text->name).second) *--kept = *text;
    }
    texts.erase(texts.begin(), kept);
}
