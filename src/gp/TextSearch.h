#pragma once

// TextSearch: the places of a needle in a text, from the front to the back. However the two repeat themselves, all
// places together are found in steps in proportion to both, and without memory: the two-way method of Crochemore
// and Perrin, with memchr over what cannot match. A local helper of one thread; needle and text are borrowed.

#include <cstddef>
#include <string_view>

class TextSearch {
public:
    TextSearch(std::string_view text, std::string_view needle);

    // Where the needle stands next, npos at the end. The next one can overlap it. An empty needle stands nowhere.
    std::size_t next();

    // The next place is not in front of `place`.
    void resumeAt(std::size_t place);

    static constexpr std::size_t npos = std::string_view::npos;

private:
    struct Cut {
        std::size_t place;
        std::size_t period;
    };
    template <class Before>
    Cut latestSuffix(Before before) const;

    std::string_view text_;
    std::string_view needle_;
    std::size_t cut_ =
        0; // the part behind it is compared first, forwards, then the part before it, backwards
    std::size_t period_ = 1;  // how far to go on from a place whose second part matches
    std::size_t overlap_ = 0; // how many characters are then known to match
    std::size_t at_ = 0;      // the next place to look at
    std::size_t matched_ = 0; // how many characters are known to match there
};
