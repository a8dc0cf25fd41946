// The quick walks over text answer as the plain ones do, for many texts that repeat themselves.

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPHTTP.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "gp/TextSearch.h"
#include "support/PlainWalks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace plain = testsupport::plain;
using Places = std::vector<std::size_t>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class TextWalks : public testing::Test {
protected:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random_); }

    // Up to `longest` pieces.
    std::string made(const std::vector<std::string>& pieces, int longest) {
        std::string text;
        for (int count = below(longest + 1); count > 0; --count)
            text += pieces[static_cast<std::size_t>(below(static_cast<int>(pieces.size())))];
        return text;
    }

    std::string letters(int longest) { return made({"a", "b"}, longest); }

    // A run of one period, which one letter may break.
    std::string periodic(int longest) {
        const std::string period = "a" + letters(3);
        std::string text;
        while (text.size() < static_cast<std::size_t>(longest))
            text += period;
        text.resize(static_cast<std::size_t>(1 + below(longest)));
        if (below(2)) text[static_cast<std::size_t>(below(static_cast<int>(text.size())))] = 'b';
        return text;
    }

    std::string needle() { return below(2) ? letters(10) : periodic(12); }

    // A text in which parts of the needle come often.
    std::string hayFor(const std::string& needle) {
        return made({"a", "b", needle, needle.substr(0, needle.size() / 2), needle.substr(needle.size() / 2)},
                    12);
    }

    std::mt19937 random_{20190215};
};

constexpr int rounds = 20000;

Places placesBySearch(const std::string& text, const std::string& needle) {
    Places places;
    TextSearch search(text, needle);
    for (std::size_t place = search.next(); place != TextSearch::npos; place = search.next())
        places.push_back(place);
    return places;
}

Places placesOneByOne(const std::string& text, const std::string& needle) {
    Places places;
    for (std::size_t place = 0; !needle.empty() && place + needle.size() <= text.size(); ++place)
        if (text.compare(place, needle.size(), needle) == 0) places.push_back(place);
    return places;
}

std::vector<std::string> splitPieces(const std::string& text, const std::string& separator) {
    const auto array = Owned<GPArray>::adopt(GPString(text.c_str()).split(separator.c_str()));
    std::vector<std::string> pieces;
    for (int i = 0; i < array->count(); ++i)
        pieces.emplace_back(static_cast<GPString*>(array->objectAtIndex(i))->cstr());
    return pieces;
}

// In the order of the map's key walk.
Pairs pairsOf(GPMap* map) {
    Pairs pairs;
    if (!map) return {{"no", "map"}};
    for (const char* key = map->firstKey(); key; key = map->nextKey())
        pairs.emplace_back(key, static_cast<GPString*>(map->objectForKey(key))->cstr());
    EXPECT_EQ(pairs.size(), static_cast<std::size_t>(map->count()));
    return pairs;
}

std::string shown(GPDOMElement* element, GPDOMElement* parent) {
    EXPECT_EQ(element->parent, parent);
    std::string text = std::string("(") + element->name->cstr() + "=" +
                       (element->value ? element->value->cstr() : "-") +
                       plain::shownAttributes(element->attributes);
    for (int i = 0; i < element->children->count(); ++i)
        text += shown(static_cast<GPDOMElement*>(element->children->objectAtIndex(i)), element);
    return text + ")";
}

} // namespace

TEST_F(TextWalks, ASearchFindsEachPlaceOverlappingOnesIncluded) {
    for (int round = 0; round < rounds; ++round) {
        const std::string wanted = needle();
        const std::string hay = hayFor(wanted);
        ASSERT_EQ(placesBySearch(hay, wanted), placesOneByOne(hay, wanted)) << wanted << " in " << hay;
    }
}

TEST_F(TextWalks, ASearchThatResumesFindsWhatStandsFromThereOn) {
    for (int round = 0; round < rounds; ++round) {
        const std::string wanted = "a" + needle();
        const std::string hay = hayFor(wanted);
        TextSearch search(hay, wanted);
        for (std::size_t from = 0;;) {
            const std::size_t place = search.next();
            ASSERT_EQ(place, hay.find(wanted, from)) << wanted << " in " << hay << " from " << from;
            if (place == TextSearch::npos) break;
            from = place + 1 + static_cast<std::size_t>(below(static_cast<int>(wanted.size()) + 2));
            search.resumeAt(from);
        }
    }
}

TEST_F(TextWalks, FindAnswersAsThePlainWalkFromBothEnds) {
    for (int round = 0; round < rounds; ++round) {
        const std::string wanted = needle();
        const std::string hay = hayFor(wanted);
        for (const bool fromEnd : {false, true})
            ASSERT_EQ(GPString(hay.c_str()).find(wanted.c_str(), fromEnd), plain::find(hay, wanted, fromEnd))
                << wanted << " in " << hay;
    }
}

TEST_F(TextWalks, SplitGivesThePiecesOfThePlainWalk) {
    for (int round = 0; round < rounds; ++round) {
        const std::string separator = needle();
        const std::string text = hayFor(separator);
        ASSERT_EQ(splitPieces(text, separator), plain::split(text, separator)) << separator << " in " << text;
    }
}

TEST_F(TextWalks, ReplaceGivesTheTextOfThePlainWalk) {
    for (int round = 0; round < rounds; ++round) {
        const std::string from = needle();
        const std::string to = below(3) ? letters(6) : made({"+"}, 12);
        const std::string text = hayFor(from);
        ASSERT_EQ(GPString(text.c_str()).replace(from.c_str(), to.c_str())->cstr(),
                  plain::replaced(text, from, to))
            << from << " by " << to << " in " << text;
    }
}

TEST_F(TextWalks, HeadersAreThoseOfThePlainWalkInTheSameOrder) {
    for (int round = 0; round < rounds; ++round) {
        const std::string answer = "HTTP/1.1 200\r\n" +
                                   made({"a: ", "b:", "a2: ", "b\xcd: ", "1\r\n", " 2 \n", "c ", "\r", "\n",
                                         ":", " \t", std::string(1, '\0')},
                                        24) +
                                   "\r\n\r\n";
        const auto expected = Owned<GPMap>::adopt(new GPMap);
        plain::readHeaders(answer, *expected);
        const auto headers = Owned<GPMap>::adopt(new GPMap);
        int code = 0;
        GPHTTP::parseAnswer(answer, code, *headers);
        ASSERT_EQ(pairsOf(headers.get()), pairsOf(expected.get())) << testing::PrintToString(answer);
    }
}

TEST_F(TextWalks, AttributesAreThoseOfThePlainWalkInTheSameOrder) {
    for (int round = 0; round < rounds; ++round) {
        const std::string text =
            made({"a=", "b=", "a2=", "b\xcd=", "\"1\"", "'2'", " ", " ", " ", "=", "c", "a=3 "}, 24);
        const auto expected = Owned<GPMap>::adopt(plain::readAttributes(text));
        const auto element = Owned<GPDOMElement>::adopt(GPDOMElement::parse(("<e " + text + ">").c_str()));
        ASSERT_EQ(pairsOf(element->attributes), pairsOf(expected.get())) << text;
    }
}

TEST_F(TextWalks, ADocumentIsReadAsThePlainWalkReadsIt) {
    int elements = 0;
    for (int round = 0; round < 5 * rounds; ++round) {
        const std::string text =
            made({"<a>",      "<b>",       "</a>",     "</b>",  "<a/>", "<b c='1' d=\"2\">",
                  "<a  c=1>", "<b c=1 />", "1",        " ",     "<",    ">",
                  "/",        "</a >",     "</b c=2>", "<!-- ", "?>",   "<?",
                  "</",       "<>",        "</>",      "< >",   "< />", "a",
                  "\n"},
                 14);
        const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::parse(text.c_str()));
        const std::string expected = plain::readDocument(text);
        ASSERT_EQ(root ? shown(root.get(), nullptr) : "nothing", expected) << text;
        elements += static_cast<int>(std::count(expected.begin(), expected.end(), '('));
    }
    EXPECT_GT(elements, 2 * rounds) << "most texts have elements";
}
