#pragma once

// An XML element and the tree below it, with a forgiving scanner that builds a tree out of text and a writer
// that turns one back into text. The scanner knows angle brackets and nothing else: no entities, no name-
// spaces, no errors. A tree belongs to the thread that made it; even reading it takes no lock.

#include "gp/GPObject.h"

#include <cstdint>

class GPArray;
class GPMap;
class GPString;

class GPDOMElement : public GPObject {
public:
    // Attribute name to GPString value; owned; null without attributes.
    GPMap* attributes = nullptr;

    // The tag name; owned.
    GPString* name = nullptr;

    // Child elements in document order, each with a reference of the array's; owned. Never null in a parsed
    // element; null in a created one until its first addElement.
    GPArray* children = nullptr;

    // Not owned. Set by parse alone: null on a root and on everything that createElement made.
    GPDOMElement* parent = nullptr;

    // The raw text of the element; owned; null in a parsed element that has children.
    GPString* value = nullptr;

    // While parsing: the index of the first character behind the start tag.
    std::int32_t valueStart = 0;

    // The first top-level element of `text`, which the caller releases; null for null and for text without a
    // start tag. Unbalanced or truncated text gives what could be read of it.
    static GPDOMElement* parse(const char* text);

    // A new element, which the caller releases. `attributes` is retained, not copied, `value` is copied; both
    // may be null.
    static GPDOMElement* createElement(const char* name);
    static GPDOMElement* createElement(const char* name, GPMap* attributes);
    static GPDOMElement* createElement(const char* name, GPMap* attributes, const char* value);

    // Appends a child and retains it; its `parent` stays as it is. Always true.
    bool addElement(GPDOMElement* child);

    // The first element of that name in document order, this one included; borrowed; null if there is none.
    GPDOMElement* findElement(const char* name);

    // All elements of that name at any depth, this one included, in document order. The caller releases the
    // array, which is never null.
    GPArray* findElements(const char* name);

    // Takes `element` out of this tree; true for a direct child alone. A removal further down happens as well
    // and answers false, and each array that was searched in vain costs the element a reference: meant for
    // direct children.
    bool removeElement(GPDOMElement* element);

    // Removes what findElement gives; whether there was such an element.
    bool removeElement(const char* name);

    // Removes everything that findElements gives. Always true.
    bool removeElements(const char* name);

    // The text of this element, which the caller releases. `pretty` indents by tabs, `doctype` (or null) puts
    // the XML declaration and a DOCTYPE in front, `shortClose` writes empty elements as one tag. Nothing is
    // escaped.
    GPString* convertToString(bool pretty, const char* doctype, bool shortClose);

    // This element as a property-list document, which the caller releases.
    GPString* convertToPlist(bool pretty);

    const char* cclassName() override;

    ~GPDOMElement() override;

protected:
    GPDOMElement() = default;

private:
    class Scanner;

    bool holds(GPDOMElement* element);

    // Who still holds an element behind a search in vain; the value counts their references.
    enum Holders { nobody = 0, tree = 1, treeAndList = 2 };
    bool searchAndRemove(GPDOMElement* element, Holders holders);
};
