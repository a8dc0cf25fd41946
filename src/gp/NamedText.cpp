#include "gp/NamedText.h"

#include <algorithm>
#include <set>
#include <utility>

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

std::vector<NamedText> LastOfEachName::take() {
    if (texts_.size() > 1) keepLastOfEachName(texts_);
    return std::move(texts_);
}

// So seldom that names which differ cost a third more than at the end alone.
void LastOfEachName::makeRoom() {
    keepLastOfEachName(texts_);
    most_ = std::max(most_, 4 * texts_.size());
}
