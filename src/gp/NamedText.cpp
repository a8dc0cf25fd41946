#include "gp/NamedText.h"

#include <algorithm>
#include <set>
#include <utility>

namespace {

constexpr std::size_t mostWithoutIndex = 1024;

} // namespace

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

void LastOfEachName::add(const NamedText& text) {
    if (!places_.empty()) return addIndexed(text);
    texts_.push_back(text);
    if (texts_.size() == mostWithoutIndex) beginIndex();
}

std::vector<NamedText> LastOfEachName::take() {
    if (!places_.empty()) {
        if (replaced_ > 0) dropReplaced();
    } else if (texts_.size() > 1) {
        keepLastOfEachName(texts_);
    }
    return std::move(texts_);
}

void LastOfEachName::beginIndex() {
    for (const NamedText& text : std::exchange(texts_, {}))
        addIndexed(text);
}

void LastOfEachName::addIndexed(const NamedText& text) {
    const auto [place, isNew] = places_.try_emplace(text.name, texts_.size());
    if (!isNew) {
        isReplaced_[place->second] = true;
        place->second = texts_.size();
        ++replaced_;
    }
    texts_.push_back(text);
    isReplaced_.push_back(false);
    // As many go as stay, so that all of these walks together are short.
    if (replaced_ >= std::max(mostWithoutIndex, places_.size())) dropReplaced();
}

void LastOfEachName::dropReplaced() {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < texts_.size(); ++i) {
        if (isReplaced_[i]) continue;
        places_[texts_[i].name] = kept;
        texts_[kept++] = texts_[i];
    }
    texts_.resize(kept);
    isReplaced_.assign(kept, false);
    replaced_ = 0;
}
