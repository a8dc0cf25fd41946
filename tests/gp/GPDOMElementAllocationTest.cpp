// The memory of elements: what a reading asks for, what it leaves behind, and what a part that is kept keeps with it.

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <cstddef>
#include <string>

namespace {

using Element = Owned<GPDOMElement>;

Element parsed(const std::string& text) { return Element::adopt(GPDOMElement::parse(text.c_str())); }

std::size_t bytesInUse() {
    const auto memory = mallinfo2();
    return memory.uordblks + memory.hblkhd;
}

// What stays in use of a document's memory while one part of its root is kept.
template <class Choose>
long bytesKeptWith(const std::string& text, Choose choose) {
    const std::size_t before = bytesInUse();
    Owned<GPObject> kept;
    {
        const auto root = parsed(text);
        kept = Owned<GPObject>::retain(choose(root.get()));
    }
    return static_cast<long>(bytesInUse()) - static_cast<long>(before);
}

constexpr long large = 4 << 20;
constexpr long little = 64 << 10;

} // namespace

TEST(GPDOMElementAllocations, AnElementThatGoesInPartsLeavesNothingBehind) {
    const auto read = [] { return parsed("<a><b c='1' d=2>text</b><e/><f>1<!-- 2 --></f></a>"); };
    read();
    const testsupport::AllocationCounter allocations;
    {
        auto root = read();
        auto value = Owned<GPString>::retain(root->findElement("b")->value);
        auto array = Owned<GPArray>::retain(root->findElement("f")->children);
        root = Element();
    }
    EXPECT_EQ(allocations.left(), 0);
}

TEST(GPDOMElementAllocations, AnElementWithATextIsOnePieceOfMemory) {
    const testsupport::AllocationCounter allocations;
    const auto root =
        Element::adopt(GPDOMElement::parse("<name>host.example.org, which no small room holds</name>"));
    EXPECT_EQ(allocations.count(), 1);
}

TEST(GPDOMElementAllocations, ASmallPartThatIsKeptDoesNotKeepALargeOne) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
    const std::string much(large, 'x');
    const auto name = [](GPDOMElement* root) { return root->name; };
    const auto value = [](GPDOMElement* root) { return root->value; };
    const auto children = [](GPDOMElement* root) { return root->children; };
    const auto attribute = [](GPDOMElement* root) { return root->attributes->objectForKey("b"); };

    EXPECT_LT(bytesKeptWith("<a>" + much + "</a>", name), little);
    EXPECT_LT(bytesKeptWith("<a c=" + much + ">1</a>", value), little);
    EXPECT_LT(bytesKeptWith("<a b=1 c=" + much + ">1</a>", attribute), little);
    EXPECT_LT(bytesKeptWith("<" + much + ">1</" + much + ">", children), little);
    EXPECT_GE(bytesKeptWith("<a b=1 c=" + much + ">1</a>", [](GPDOMElement* root) { return root; }), large);
}

TEST(GPDOMElementAllocations, APartThatIsKeptDoesNotKeepVeryManyAttributes) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
    std::string text = "<a";
    for (int number = 0; number < 20000; ++number)
        text += " name" + std::to_string(number) + "=value";
    EXPECT_LT(bytesKeptWith(text + ">1</a>", [](GPDOMElement* root) { return root->name; }), little);
}

TEST(GPDOMElementAllocations, AMadeElementsNameDoesNotKeepItsLargeText) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
    const std::string much(large, 'x');
    const std::size_t before = bytesInUse();
    auto element = Element::adopt(GPDOMElement::createElement("a", nullptr, much.c_str()));
    const auto kept = Owned<GPString>::retain(element->name);
    element = Element();
    EXPECT_LT(static_cast<long>(bytesInUse()) - static_cast<long>(before), little);
}
