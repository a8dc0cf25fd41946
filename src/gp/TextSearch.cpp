#include "gp/TextSearch.h"

#include <algorithm>
#include <cstring>
#include <functional>

TextSearch::TextSearch(std::string_view text, std::string_view needle) : text_(text), needle_(needle) {
    if (needle.size() < 2) return;
    const Cut rising = latestSuffix(std::less<char>());
    const Cut falling = latestSuffix(std::greater<char>());
    const Cut& cut = rising.place > falling.place ? rising : falling;
    cut_ = cut.place;
    if (std::memcmp(needle.data(), needle.data() + cut.period, cut_) == 0) {
        // The second part's period is that of the whole needle.
        period_ = cut.period;
        overlap_ = needle.size() - period_;
    } else {
        period_ = std::max(cut_, needle.size() - cut_) + 1;
    }
}

// Where the needle's last suffix in the order of `before` begins, and the period of that suffix.
template <class Before>
TextSearch::Cut TextSearch::latestSuffix(Before before) const {
    Cut cut{0, 1};
    std::size_t candidate = 1;
    std::size_t equal = 0;
    while (candidate + equal < needle_.size()) {
        const char own = needle_[candidate + equal];
        const char best = needle_[cut.place + equal];
        if (own == best) {
            if (++equal < cut.period) continue;
            candidate += cut.period;
            equal = 0;
        } else if (before(own, best)) {
            candidate += equal + 1;
            equal = 0;
            cut.period = candidate - cut.place;
        } else {
            cut = {candidate, 1};
            ++candidate;
            equal = 0;
        }
    }
    return cut;
}

std::size_t TextSearch::next() {
    const std::size_t size = needle_.size();
    while (size > 0 && size <= text_.size() && at_ <= text_.size() - size) {
        if (matched_ == 0) {
            const char* from = text_.data() + at_;
            const auto* hit = static_cast<const char*>(
                std::memchr(from + cut_, needle_[cut_], text_.size() - size - at_ + 1));
            if (!hit) break;
            at_ += static_cast<std::size_t>(hit - from) - cut_;
        }
        const char* here = text_.data() + at_;
        std::size_t behind = std::max(cut_, matched_);
        while (behind < size && needle_[behind] == here[behind])
            ++behind;
        if (behind < size) {
            at_ += behind - cut_ + 1;
            matched_ = 0;
            continue;
        }
        std::size_t left = cut_;
        while (left > matched_ && needle_[left - 1] == here[left - 1])
            --left;
        const bool isMatch = left <= matched_;
        const std::size_t place = at_;
        at_ += period_;
        matched_ = overlap_;
        if (isMatch) return place;
    }
    at_ = text_.size() + 1;
    return npos;
}

void TextSearch::resumeAt(std::size_t place) {
    if (place <= at_) return;
    at_ = place;
    matched_ = 0;
}
