// Ownership, removal, and trees of hostile depth.

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using testsupport::references;
using Element = Owned<GPDOMElement>;

constexpr int hostileDepth = 100000;

Element created(const char* name) { return Element::adopt(GPDOMElement::createElement(name)); }

Element parsed(const std::string& text) { return Element::adopt(GPDOMElement::parse(text.c_str())); }

std::string deepText(int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i)
        text += "<a>";
    return text + "<last>1</last>";
}

TEST(GPDOMElementOwnership, TheAttributeMapIsRetainedAndNotCopied) {
    auto attributes = Owned<GPMap>::adopt(new GPMap);
    auto element = Element::adopt(GPDOMElement::createElement("a", attributes.get()));
    EXPECT_EQ(element->attributes, attributes.get());
    EXPECT_EQ(references(attributes.get()), 2);
    element = Element();
    EXPECT_EQ(references(attributes.get()), 1);
}

TEST(GPDOMElementOwnership, AddElementRetainsAndLeavesTheParentAlone) {
    auto root = created("a");
    auto child = created("b");
    EXPECT_TRUE(root->addElement(child.get()));
    EXPECT_EQ(references(child.get()), 2);
    EXPECT_EQ(child->parent, nullptr);
    root = Element();
    EXPECT_EQ(references(child.get()), 1);
}

TEST(GPDOMElementOwnership, AParsedTreeHoldsOneReferenceOnEachElement) {
    auto root = parsed("<a><b>1</b><c/></a>");
    EXPECT_EQ(references(root.get()), 1);
    EXPECT_EQ(references(root->findElement("b")), 1);
    EXPECT_EQ(references(root->findElement("c")), 1);
}

TEST(GPDOMElementOwnership, ARetainedPartOfATreeOutlivesItWithAllThatIsBelow) {
    auto root = parsed("<a><b><c>1</c></b></a>");
    auto kept = Element::retain(root->findElement("b"));
    root = Element();
    EXPECT_EQ(references(kept.get()), 1);
    ASSERT_NE(kept->findElement("c"), nullptr);
    EXPECT_STREQ(kept->findElement("c")->value->cstr(), "1");
}

TEST(GPDOMElementOwnership, EachPartOfAnElementCanOutliveAllOthers) {
    const auto part = [](auto choose) {
        auto root = parsed("<a><b c='1' d=2>text</b></a>");
        auto kept = Owned<GPObject>::retain(choose(root->findElement("b")));
        EXPECT_EQ(references(kept.get()), 2);
        root = Element();
        EXPECT_EQ(references(kept.get()), 1);
        return kept;
    };
    const auto textOf = [](const Owned<GPObject>& kept) {
        return static_cast<GPString*>(kept.get())->cstr();
    };
    EXPECT_STREQ(textOf(part([](GPDOMElement* b) { return b->name; })), "b");
    EXPECT_STREQ(textOf(part([](GPDOMElement* b) { return b->value; })), "text");
    EXPECT_STREQ(textOf(part([](GPDOMElement* b) { return b->attributes->objectForKey("d"); })), "2");

    const auto map = part([](GPDOMElement* b) { return b->attributes; });
    EXPECT_EQ(static_cast<GPMap*>(map.get())->count(), 2);
    const auto array = part([](GPDOMElement* b) { return b->children; });
    const auto child = created("c");
    static_cast<GPArray*>(array.get())->addObject(child.get());
    EXPECT_EQ(references(child.get()), 2);
}

TEST(GPDOMElementOwnership, PartsThatAreReplacedGoBeforeTheirElement) {
    auto root = parsed("<a b='1'>text</a>");
    root->name->release();
    root->value->release();
    root->attributes->release();
    root->children->release();
    root->name = new GPString("other");
    root->value = nullptr;
    root->attributes = nullptr;
    root->children = new GPArray;
    EXPECT_STREQ(Owned<GPString>::adopt(root->convertToString(false, nullptr, true))->cstr(), "<other/>\n");
}

TEST(GPDOMElementOwnership, TheArrayOfFindElementsHoldsItsOwnReferences) {
    auto root = parsed("<a><b>1</b></a>");
    auto found = Owned<GPArray>::adopt(root->findElements("b"));
    EXPECT_EQ(references(found->objectAtIndex(0)), 2);
}

TEST(GPDOMElementRemove, ADirectChildGoesAndAnswersTrue) {
    auto root = created("a");
    auto child = created("b");
    root->addElement(child.get());
    EXPECT_TRUE(root->removeElement(child.get()));
    EXPECT_EQ(root->children->count(), 0);
    EXPECT_EQ(references(child.get()), 1);
}

TEST(GPDOMElementRemove, WithoutChildrenNothingHappens) {
    auto root = created("a");
    auto other = created("b");
    EXPECT_FALSE(root->removeElement(other.get()));
    EXPECT_FALSE(root->removeElement(static_cast<GPDOMElement*>(nullptr)));
    EXPECT_EQ(references(other.get()), 1);
}

TEST(GPDOMElementRemove, ARemovalFurtherDownHappensButAnswersFalse) {
    auto root = created("a");
    auto middle = created("b");
    auto deep = created("c");
    root->addElement(middle.get());
    middle->addElement(deep.get());
    deep->retain(); // what the search in the root's array costs
    EXPECT_FALSE(root->removeElement(deep.get()));
    EXPECT_EQ(middle->children->count(), 0);
}

TEST(GPDOMElementRemove, ASearchThroughLevelsCostsAReferencePerArray) {
    auto root = created("a");
    auto middle = created("b");
    auto deep = created("c");
    root->addElement(middle.get());
    middle->addElement(deep.get());
    deep->retain();
    EXPECT_EQ(references(deep.get()), 3);
    root->removeElement(deep.get());
    EXPECT_EQ(references(deep.get()), 1) << "one for the root's array, one for the removal";
}

TEST(GPDOMElementRemove, ASearchThroughLevelsCanCostTheLastReferenceButThatOfTheTree) {
    auto attributes = Owned<GPMap>::adopt(new GPMap);
    auto root = created("a");
    auto middle = created("b");
    GPDOMElement* deep = GPDOMElement::createElement("c", attributes.get());
    root->addElement(middle.get());
    middle->addElement(deep);
    EXPECT_EQ(references(attributes.get()), 2);
    EXPECT_FALSE(
        root->removeElement(deep)); // one for the root's array, one for the removal: there are no more
    EXPECT_EQ(references(attributes.get()), 1);
}

TEST(GPDOMElementRemove, BehindARemovalFurtherDownTheSiblingsAreSearchedAllTheSame) {
    auto root = parsed("<a><b><c>1</c></b><x><y>2</y></x></a>");
    auto deep = Element::retain(root->findElement("c"));
    for (int extra = 0; extra < 5; ++extra)
        deep->retain();
    EXPECT_EQ(references(deep.get()), 7);
    EXPECT_FALSE(root->removeElement(deep.get()));
    // The root's array, its own one's removal, those of x and of y. Its own array is not searched.
    EXPECT_EQ(references(deep.get()), 3);
    EXPECT_EQ(root->findElement("c"), nullptr);
    deep->release();
    deep->release();
}

TEST(GPDOMElementRemove, ADirectChildsRemovalEndsTheSearch) {
    auto root = parsed("<a><b><c>1</c></b><x><y>2</y></x></a>");
    auto child = Element::retain(root->findElement("x"));
    child->retain();
    child->retain();
    EXPECT_EQ(references(child.get()), 4);
    EXPECT_TRUE(root->removeElement(child.get()));
    EXPECT_EQ(references(child.get()), 3) << "neither the array of b nor that of c was searched";
    child->release();
    child->release();
}

TEST(GPDOMElementRemove, ASearchInVainCostsAReferenceToo) {
    auto root = created("a");
    auto child = created("b");
    auto other = created("c");
    root->addElement(child.get());
    other->retain();
    EXPECT_FALSE(root->removeElement(other.get()));
    EXPECT_EQ(references(other.get()), 1);
    EXPECT_EQ(root->children->count(), 1);
}

TEST(GPDOMElementRemove, ByNameTakesTheFirstOfThatName) {
    auto root = parsed("<a><b>1</b><b>2</b></a>");
    EXPECT_TRUE(root->removeElement("b"));
    ASSERT_EQ(root->children->count(), 1);
    EXPECT_STREQ(root->findElement("b")->value->cstr(), "2");
    EXPECT_FALSE(root->removeElement("none"));
}

TEST(GPDOMElementRemove, AllOfOneNameGoAndTheAnswerIsAlwaysTrue) {
    auto root = parsed("<a><b>1</b><c>2</c><b>3</b></a>");
    EXPECT_TRUE(root->removeElements("b"));
    EXPECT_EQ(root->findElement("b"), nullptr);
    EXPECT_NE(root->findElement("c"), nullptr);
    EXPECT_TRUE(root->removeElements("none"));
}

// The references that a search costs could be the last ones of an element which the tree still holds.
TEST(GPDOMElementGuard, RemovingADeepElementThatOnlyTheTreeHoldsTouchesNoFreedMemory) {
    auto root = parsed("<a><x><y>1</y></x><b><c><d>1</d></c></b></a>");
    EXPECT_TRUE(root->removeElement("d"));
    EXPECT_EQ(root->findElement("d"), nullptr);
    EXPECT_NE(root->findElement("c"), nullptr);
}

TEST(GPDOMElementGuard, RemovingNestedElementsOfOneNameTouchesNoFreedMemory) {
    auto root = parsed("<a><b><b>1</b></b><c><b>2</b></c></a>");
    EXPECT_TRUE(root->removeElements("b"));
    EXPECT_EQ(root->findElement("b"), nullptr);
    EXPECT_NE(root->findElement("c"), nullptr);
}

TEST(GPDOMElementGuard, RemovingAnElementFromItselfLeavesItAlive) {
    auto root = parsed("<a><b><c>1</c></b></a>");
    EXPECT_TRUE(root->removeElement("a"));
    EXPECT_TRUE(root->removeElements("a"));
    EXPECT_FALSE(root->removeElement(root.get()));
    EXPECT_EQ(references(root.get()), 1);
    EXPECT_NE(root->findElement("c"), nullptr);
}

TEST(GPDOMElementGuard, TextOfHostileDepthIsReadSearchedWrittenAndFreed) {
    auto root = parsed(deepText(hostileDepth));
    ASSERT_NE(root->findElement("last"), nullptr);
    EXPECT_EQ(Owned<GPArray>::adopt(root->findElements("a"))->count(), hostileDepth);
    auto written = Owned<GPString>::adopt(root->convertToString(false, nullptr, true));
    EXPECT_EQ(written->length(), hostileDepth * 9 + static_cast<int>(sizeof "<last>1</last>\n") - 1);
    EXPECT_TRUE(root->removeElement("last"));
    EXPECT_EQ(root->findElement("last"), nullptr);
}

TEST(GPDOMElementGuard, AnUnattachedTreeOfHostileDepthIsFreed) {
    auto root = parsed("<r>1</r>" + deepText(hostileDepth));
    EXPECT_STREQ(root->value->cstr(), "1");
}

TEST(GPDOMElementGuard, BrokenTextGivesATreeOrNothing) {
    const char* texts[] = {"<",      ">",      "<>",         "</>",           "< >",   "< />",
                           "</ >",   "<//>",   "<!>",        "<?>",           "<a =>", "<a  >",
                           "<a / >", "<a b/>", "<\xff\xfe>", "<a></a b='1'>", "<<a>>", "<a ' \">"};
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        auto root = parsed(text);
        if (!root) continue;
        EXPECT_NE(root->name, nullptr);
        EXPECT_NE(root->children, nullptr);
    }
}

} // namespace
