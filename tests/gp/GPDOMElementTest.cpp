#include "gp/GPDOMElement.h"

#include "gp/GPArray.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Element = Owned<GPDOMElement>;

Element parsed(const std::string& text) { return Element::adopt(GPDOMElement::parse(text.c_str())); }

Element created(const char* name, const char* value = nullptr) {
    return Element::adopt(GPDOMElement::createElement(name, nullptr, value));
}

GPDOMElement* child(GPDOMElement* element, int index) {
    return static_cast<GPDOMElement*>(element->children->objectAtIndex(index));
}

std::string nameOf(GPDOMElement* element) { return element->name->cstr(); }

std::string attribute(GPDOMElement* element, const char* key) {
    auto* found = static_cast<GPString*>(element->attributes->objectForKey(key));
    return found ? found->cstr() : "(none)";
}

std::string text(GPDOMElement* element, bool pretty, const char* doctype = nullptr, bool shortClose = false) {
    return Owned<GPString>::adopt(element->convertToString(pretty, doctype, shortClose))->cstr();
}

// The names of a tree as a(b,c(d)).
std::string shape(GPDOMElement* element) {
    std::string all = nameOf(element);
    if (!element->children || element->children->count() == 0) return all;
    for (int i = 0; i < element->children->count(); ++i)
        all += (i == 0 ? "(" : ",") + shape(child(element, i));
    return all + ")";
}

TEST(GPDOMElementParse, NullTextAndTextWithoutAStartTagGiveNull) {
    EXPECT_EQ(GPDOMElement::parse(nullptr), nullptr);
    EXPECT_EQ(GPDOMElement::parse(""), nullptr);
    EXPECT_EQ(GPDOMElement::parse("no tag > here"), nullptr);
    EXPECT_EQ(GPDOMElement::parse("</a>"), nullptr);
    EXPECT_EQ(GPDOMElement::parse("<?xml?><!-- a -->"), nullptr);
}

TEST(GPDOMElementParse, AStartTagThatIsNotClosedByABracketIsNoElement) {
    EXPECT_EQ(GPDOMElement::parse("<a"), nullptr);
    auto root = parsed("<a>1<b");
    EXPECT_EQ(shape(root.get()), "a");
    EXPECT_EQ(root->value, nullptr);
}

TEST(GPDOMElementParse, AnElementWithNothingAfterItHasNoValue) {
    auto root = parsed("<a>");
    EXPECT_EQ(nameOf(root.get()), "a");
    EXPECT_EQ(root->value, nullptr);
    EXPECT_EQ(root->attributes, nullptr);
    EXPECT_EQ(root->parent, nullptr);
    ASSERT_NE(root->children, nullptr);
    EXPECT_EQ(root->children->count(), 0);
    EXPECT_EQ(root->valueStart, 3);
}

TEST(GPDOMElementParse, TheFirstTopLevelElementIsReturnedAndFurtherOnesAreLost) {
    auto root = parsed("x<a>1</a><b>2</b>");
    EXPECT_EQ(nameOf(root.get()), "a");
    EXPECT_STREQ(root->value->cstr(), "1");
    EXPECT_EQ(root->findElement("b"), nullptr);
}

TEST(GPDOMElementParse, WhatFollowsAFurtherTopLevelElementBuildsATreeOfItsOwn) {
    auto root = parsed("<a>1</a><b><c>2</c></b><d/><e>3</e>");
    EXPECT_EQ(shape(root.get()), "a");
}

TEST(GPDOMElementParse, AMismatchingEndTagClosesTheLevelWithoutAValue) {
    auto root = parsed("<a>1</b>");
    EXPECT_EQ(nameOf(root.get()), "a");
    EXPECT_EQ(root->value, nullptr);

    auto nested = parsed("<r><a>1</x><b>2</b></r>");
    EXPECT_EQ(shape(nested.get()), "r(a,b)");
    EXPECT_EQ(nested->findElement("a")->value, nullptr);
    EXPECT_STREQ(nested->findElement("b")->value->cstr(), "2");
}

TEST(GPDOMElementParse, EndTagsBeyondTheRootAreIgnored) {
    auto root = parsed("<a>1</a></a></b>");
    EXPECT_STREQ(root->value->cstr(), "1");
}

TEST(GPDOMElementParse, AnEmptyElementHasAnEmptyValue) {
    auto root = parsed("<a></a>");
    ASSERT_NE(root->value, nullptr);
    EXPECT_STREQ(root->value->cstr(), "");
}

TEST(GPDOMElementParse, ASelfClosedTagWithAttributesInBothQuotesKeepsNoSlashInItsName) {
    auto root = parsed("<a b='1' c=\"2\"/>");
    EXPECT_EQ(nameOf(root.get()), "a");
    EXPECT_EQ(root->attributes->count(), 2);
    EXPECT_EQ(attribute(root.get(), "b"), "1");
    EXPECT_EQ(attribute(root.get(), "c"), "2");
}

TEST(GPDOMElementParse, ASelfClosedTagWithoutABlankLosesEverySlashOfItsName) {
    EXPECT_EQ(nameOf(parsed("<a/>").get()), "a");
    EXPECT_EQ(nameOf(parsed("<x/y/>").get()), "xy");
    EXPECT_EQ(nameOf(parsed("<x/y>").get()), "x/y");
}

TEST(GPDOMElementParse, AttributeValuesAreCutAtBlanks) {
    auto root = parsed("<a href=\"x y\">");
    EXPECT_EQ(root->attributes->count(), 1);
    EXPECT_EQ(attribute(root.get(), "href"), "x");
}

TEST(GPDOMElementParse, EveryQuoteOfAnAttributeGoes) {
    auto root = parsed("<a b=\"''1'2\"3\"'>");
    EXPECT_EQ(attribute(root.get(), "b"), "123");
}

TEST(GPDOMElementParse, AnAttributeIsSplitAtItsFirstEqualsSign) {
    auto root = parsed("<a url='x?y=z' =lost alone>");
    EXPECT_EQ(root->attributes->count(), 1);
    EXPECT_EQ(attribute(root.get(), "url"), "x?y=z");
}

TEST(GPDOMElementParse, AnAttributeThatComesAgainHasItsLastValue) {
    auto root = parsed("<a b='1' c='2' b='3'>");
    EXPECT_EQ(root->attributes->count(), 2);
    EXPECT_EQ(attribute(root.get(), "b"), "3");
    EXPECT_EQ(attribute(root.get(), "c"), "2");
}

TEST(GPDOMElementParse, AttributesWithoutAnyEqualsSignGiveAnEmptyMap) {
    auto root = parsed("<a alone>");
    ASSERT_NE(root->attributes, nullptr);
    EXPECT_EQ(root->attributes->count(), 0);
}

TEST(GPDOMElementParse, ABlankAtTheEndOfATagGivesNoAttributes) {
    EXPECT_EQ(parsed("<a >")->attributes, nullptr);
    auto root = parsed("<a />");
    EXPECT_EQ(nameOf(root.get()), "a");
    EXPECT_EQ(root->attributes, nullptr);
}

TEST(GPDOMElementParse, TwoBlanksBehindTheNameKeepTheAttributesInOnePiece) {
    auto root = parsed("<a  b='1' c='2'>");
    EXPECT_EQ(root->attributes->count(), 1);
    EXPECT_EQ(attribute(root.get(), " b"), "1 c=2");
}

TEST(GPDOMElementParse, TabsAndLineBreaksDoNotSeparate) {
    auto root = parsed("<a\tb='1'\nc='2'>");
    EXPECT_EQ(nameOf(root.get()), "a\tb='1'\nc='2'");
    EXPECT_EQ(root->attributes, nullptr);
}

TEST(GPDOMElementParse, ABracketInsideAnAttributeEndsTheTag) {
    auto root = parsed("<a b='1>2'>3</a>");
    EXPECT_EQ(attribute(root.get(), "b"), "1");
    EXPECT_STREQ(root->value->cstr(), "2'>3");
}

TEST(GPDOMElementParse, ValuesStayRawAndAreWrittenTheSame) {
    auto root = parsed("<a>1 &amp; 2</a>");
    EXPECT_STREQ(root->value->cstr(), "1 &amp; 2");
    EXPECT_EQ(text(root.get(), false), "<a>1 &amp; 2</a>\n");
}

TEST(GPDOMElementParse, WhiteSpaceOfAValueIsKept) {
    EXPECT_STREQ(parsed("<a>\n\t 1 \n</a>")->value->cstr(), "\n\t 1 \n");
}

TEST(GPDOMElementParse, ACommentInsideAChildlessElementStaysInItsValue) {
    auto root = parsed("<a><!-- b > c --></a>");
    EXPECT_STREQ(root->value->cstr(), "<!-- b > c -->");
}

TEST(GPDOMElementParse, ACharacterDataSectionStaysInTheValueWithItsMarkers) {
    auto root = parsed("<a><![CDATA[x]]></a>");
    EXPECT_STREQ(root->value->cstr(), "<![CDATA[x]]>");
}

TEST(GPDOMElementParse, ATagInsideACommentIsRead) {
    auto root = parsed("<a><!-- x > <b>1</b> --></a>");
    EXPECT_EQ(shape(root.get()), "a(b)");
    EXPECT_EQ(root->value, nullptr);
}

TEST(GPDOMElementParse, ADeclarationInFrontIsSkipped) {
    auto root = parsed("<?xml version=\"1.0\"?><a/>");
    EXPECT_EQ(nameOf(root.get()), "a");
}

TEST(GPDOMElementParse, AnElementWithChildrenKeepsNoText) {
    auto root = parsed("<a>text<b>1</b>more</a>");
    EXPECT_EQ(root->value, nullptr);
    EXPECT_EQ(child(root.get(), 0)->parent, root.get());
}

TEST(GPDOMElementParse, BehindASelfClosedChildTheScannerClimbsOneLevelTooFar) {
    auto root = parsed("<r><a><b/><c>1</c></a></r>");
    EXPECT_EQ(shape(root.get()), "r(a(b),c)");
    EXPECT_STREQ(root->findElement("c")->value->cstr(), "1");
}

TEST(GPDOMElementParse, BehindASelfClosedChildOfTheRootTheScannerStays) {
    auto root = parsed("<r><b/><c>1</c><d/></r>");
    EXPECT_EQ(shape(root.get()), "r(b,c,d)");
}

TEST(GPDOMElementParse, AnEmptyTagHasAnEmptyName) {
    auto root = parsed("<>1</>");
    EXPECT_EQ(nameOf(root.get()), "");
    EXPECT_STREQ(root->value->cstr(), "1");
}

TEST(GPDOMElement, CreatedElementsHaveNeitherChildrenNorParent) {
    auto element = created("a", "1");
    EXPECT_EQ(element->children, nullptr);
    EXPECT_EQ(element->parent, nullptr);
    EXPECT_EQ(element->attributes, nullptr);
    EXPECT_STREQ(element->value->cstr(), "1");
    EXPECT_EQ(created("b")->value, nullptr);
}

TEST(GPDOMElement, SaysItsOwnNameFromCclassNameAlone) {
    auto element = created("a");
    EXPECT_STREQ(element->cclassName(), "GPDOMElement");
    EXPECT_STREQ(Owned<GPString>::adopt(element->className())->cstr(), "GPObject");
}

TEST(GPDOMElementFind, GivesTheFirstInDocumentOrderAndTheElementItself) {
    auto root = parsed("<r><x><a>1</a></x><a>2</a></r>");
    EXPECT_STREQ(root->findElement("a")->value->cstr(), "1");
    EXPECT_EQ(root->findElement("r"), root.get());
    EXPECT_EQ(root->findElement("A"), nullptr);
}

TEST(GPDOMElementFind, GivesAllOfThatNameAtAnyDepthInDocumentOrder) {
    auto root = parsed("<a><x><a>1</a></x><a><a>2</a></a></a>");
    auto found = Owned<GPArray>::adopt(root->findElements("a"));
    ASSERT_EQ(found->count(), 4);
    EXPECT_EQ(found->objectAtIndex(0), root.get());
    EXPECT_STREQ(static_cast<GPDOMElement*>(found->objectAtIndex(1))->value->cstr(), "1");
    EXPECT_STREQ(static_cast<GPDOMElement*>(found->objectAtIndex(3))->value->cstr(), "2");
    EXPECT_EQ(Owned<GPArray>::adopt(root->findElements("none"))->count(), 0);
}

TEST(GPDOMElementWrite, AChildWithATextGivesOneLineEach) {
    auto root = created("a");
    root->addElement(created("b", "1").get());
    EXPECT_EQ(text(root.get(), false), "<a>\n<b>1</b>\n</a>\n");
}

TEST(GPDOMElementWrite, PrettyIndentsByTabs) {
    auto root = parsed("<a><b><c>1</c></b></a>");
    EXPECT_EQ(text(root.get(), true), "<a>\n\t<b>\n\t\t<c>1</c>\n\t</b>\n</a>\n");
}

TEST(GPDOMElementWrite, AnEmptyElementIsTwoTagsWithALineBreakBetween) {
    EXPECT_EQ(text(created("a").get(), false), "<a>\n</a>\n");
    EXPECT_EQ(text(created("a", "").get(), false), "<a></a>\n");
}

TEST(GPDOMElementWrite, ShortCloseWritesEmptyElementsAsOneTag) {
    EXPECT_EQ(text(created("a").get(), false, nullptr, true), "<a/>\n");
    EXPECT_EQ(text(created("a", "").get(), false, nullptr, true), "<a/>\n");
    EXPECT_EQ(text(parsed("<a></a>").get(), false, nullptr, true), "<a/>\n");
    EXPECT_EQ(text(created("a", "1").get(), false, nullptr, true), "<a>1</a>\n");
}

TEST(GPDOMElementWrite, AShortClosedTagGivesItsNextSiblingTooManyTabs) {
    auto root = created("a");
    root->addElement(created("b").get());
    root->addElement(created("c", "1").get());
    EXPECT_EQ(text(root.get(), true, nullptr, true), "<a>\n\t<b/>\n\t\t<c>1</c>\n</a>\n");
}

TEST(GPDOMElementWrite, AnElementWithTextAndChildrenWritesTheTextFirst) {
    auto root = created("a", "text");
    root->addElement(created("b", "1").get());
    EXPECT_EQ(text(root.get(), true), "<a>text\t<b>1</b>\n</a>\n");
}

TEST(GPDOMElementWrite, AttributesComeInTheKeyOrderOfTheMapWithoutEscapes) {
    auto attributes = Owned<GPMap>::adopt(new GPMap(1));
    attributes->setObject(new GPString("<1>"), "z");
    attributes->setObject(new GPString("&"), "b");
    auto element = Element::adopt(GPDOMElement::createElement("a", attributes.get()));
    EXPECT_EQ(text(element.get(), false, nullptr, true), "<a z=\"<1>\" b=\"&\"/>\n");
}

TEST(GPDOMElementWrite, ADoctypePutsTheDeclarationInFront) {
    EXPECT_EQ(text(created("a", "1").get(), false, "fernhill"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE fernhill>\n<a>1</a>\n");
}

TEST(GPDOMElementWrite, APropertyListIsWrappedAndKeepsItsElement) {
    auto element = parsed("<dict><key>x</key><true></true></dict>");
    auto plist = Owned<GPString>::adopt(element->convertToPlist(true));
    EXPECT_STREQ(
        plist->cstr(),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n\t<dict>\n\t\t<key>x</key>\n\t\t<true/>\n\t\t\t</dict>\n</plist>\n");
    EXPECT_EQ(nameOf(element.get()), "dict");
}

TEST(GPDOMElementWrite, WhatWasWrittenIsReadBackTheSame) {
    auto root = created("a");
    root->addElement(created("b", "1").get());
    root->addElement(created("c", "2").get());
    const std::string first = text(root.get(), true, "x");
    EXPECT_EQ(text(parsed(first).get(), true, "x"), first);
}

} // namespace
