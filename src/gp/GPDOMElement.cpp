#include "gp/GPDOMElement.h"

#include "gp/GPArray.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/NamedText.h"
#include "gp/Owned.h"
#include "gp/SharedPiece.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr const char* propertyListType =
    "plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\"";

int references(GPArray* array) {
    array->retainonly();
    return array->releaseonly();
}

GPDOMElement* childAt(GPArray* children, int index) {
    return static_cast<GPDOMElement*>(children->objectAtIndex(index));
}

// Calls `visit` for the element and everything below it in document order, until it answers false. Without
// recursion, since the depth comes from foreign text.
template <class Visit>
void walk(GPDOMElement* top, Visit visit) {
    std::vector<GPDOMElement*> ahead{top};
    while (!ahead.empty()) {
        GPDOMElement* element = ahead.back();
        ahead.pop_back();
        if (!visit(element)) return;
        if (!element->children) continue;
        for (int i = element->children->count() - 1; i >= 0; --i)
            ahead.push_back(childAt(element->children, i));
    }
}

// Every quote goes, whatever GPString::replace would leave behind a second match.
std::string withoutQuotes(std::string_view text) {
    std::string kept;
    kept.reserve(text.size());
    std::copy_if(text.begin(), text.end(), std::back_inserter(kept),
                 [](char c) { return c != '"' && c != '\''; });
    return kept;
}

// Hands over the pieces that GPString::split makes of a text at single blanks, and tells how many they are. A blank in
// front leaves the text in one piece.
template <class Take>
int forEachPiece(std::string_view text, Take take) {
    if (text.empty()) return 0;
    int pieces = 0;
    std::size_t begin = 0;
    for (std::size_t blank = text.find(' '); blank != std::string_view::npos && blank > 0;
         blank = text.find(' ', begin)) {
        take(text.substr(begin, blank - begin));
        ++pieces;
        begin = blank + 1;
    }
    if (begin == text.size()) return pieces;
    take(text.substr(begin));
    return pieces + 1;
}

// The memory of an element and its parts: one piece for all, unless the texts are long. Each of those has a piece of its
// own then, so that whoever keeps a small part does not keep much with it.
class PartsMemory {
public:
    PartsMemory(std::size_t objects, std::size_t texts)
        : textsFit_(texts <= mostText), piece_(*SharedPiece::withRoomFor(objects + (textsFit_ ? texts : 0))) {
    }

    template <class Object, class... Arguments>
    Object* make(Arguments... arguments) {
        return piece_.make<Object>(arguments...);
    }

    GPString* string(std::string_view text) {
        return textsFit_ ? GPString::in(piece_, text) : GPString::of(text);
    }

private:
    static constexpr std::size_t mostText = 1024;

    const bool textsFit_;
    SharedPiece& piece_;
};

// The attributes of a tag, split at blanks alone, so that a value that holds a blank is cut there.
class TagAttributes {
public:
    explicit TagAttributes(std::string_view text) {
        LastOfEachName found;
        pieces_ = forEachPiece(text, [&found](std::string_view piece) {
            const auto equals = piece.find('=');
            if (equals == std::string_view::npos || equals == 0) return;
            found.add({piece.substr(0, equals), piece.substr(equals + 1)});
        });
        found_ = found.take();
    }

    // What the map takes of a piece of memory, and what its values take at most.
    std::size_t mapSize() const { return pieces_ > 0 ? SharedPiece::sizeOf<GPMap>() : 0; }
    std::size_t textSize() const {
        std::size_t sum = 0;
        for (const NamedText& attribute : found_)
            sum += GPString::sizeIn(attribute.value);
        return sum;
    }

    // Null when the text has no piece.
    GPMap* mapIn(PartsMemory& memory) const {
        if (pieces_ == 0) return nullptr;
        auto* map = memory.make<GPMap>(pieces_);
        for (const NamedText& attribute : found_)
            map->setNewObject(memory.string(withoutQuotes(attribute.value)), attribute.name);
        return map;
    }

private:
    std::vector<NamedText> found_;
    int pieces_ = 0;
};

// The name in a tag, which starts with one character that is skipped and ends with ">": up to a blank, if it has one.
std::string_view nameOf(const char* tag, std::size_t length) {
    const auto* blank = static_cast<const char*>(std::memchr(tag, ' ', length));
    const char* const end = blank ? blank : tag + length - 1;
    return {tag + 1, static_cast<std::size_t>(end - tag) - 1};
}

// What stands between the blank behind the name and the tag's end.
std::string_view behindName(std::string_view tag, std::size_t nameEnd) {
    if (tag[nameEnd] != ' ') return {};
    const std::size_t end = tag.size() - (tag[tag.size() - 2] == '/' ? 2 : 1);
    return tag.substr(nameEnd + 1, end - nameEnd - 1);
}

bool isEmpty(GPString* text) { return !text || text->length() == 0; }
bool isEmpty(GPArray* array) { return !array || array->count() == 0; }

// Writes a tree as text, without recursion.
class TreeWriter {
public:
    TreeWriter(bool pretty, bool shortClose) : pretty_(pretty), shortClose_(shortClose) {}

    void write(GPDOMElement* top) {
        std::vector<Open> open;
        if (start(top, 0)) open.push_back({top, 0});
        while (!open.empty()) {
            Open& innermost = open.back();
            GPArray* children = innermost.element->children;
            if (!children || innermost.nextChild >= children->count()) {
                finish(innermost.element, open.size() - 1);
                open.pop_back();
                continue;
            }
            GPDOMElement* child = childAt(children, innermost.nextChild++);
            if (start(child, open.size())) open.push_back({child, 0});
        }
    }

    std::string text;

private:
    struct Open {
        GPDOMElement* element;
        int nextChild;
    };

    // False for an element that was written whole as one tag.
    bool start(GPDOMElement* element, std::size_t depth) {
        indent(depth);
        text += '<';
        text += element->name->cstr();
        writeAttributes(element->attributes);
        if (shortClose_ && isEmpty(element->value) && isEmpty(element->children)) {
            text += "/>\n";
            // This indent stands in the next sibling's line, which gets too many tabs.
            indent(depth);
            return false;
        }
        text += '>';
        text += element->value ? element->value->cstr() : "\n";
        return true;
    }

    void finish(GPDOMElement* element, std::size_t depth) {
        if (!element->value) indent(depth);
        text += "</";
        text += element->name->cstr();
        text += ">\n";
    }

    void writeAttributes(GPMap* attributes) {
        if (!attributes) return;
        for (const char* key = attributes->firstKey(); key; key = attributes->nextKey()) {
            text += ' ';
            text += key;
            text += "=\"";
            text += static_cast<GPString*>(attributes->objectForKey(key))->cstr();
            text += '"';
        }
    }

    void indent(std::size_t depth) {
        if (pretty_) text.append(depth, '\t');
    }

    const bool pretty_;
    const bool shortClose_;
};

std::string documentHead(const char* doctype) {
    return Owned<GPString>::adopt(
               GPString::format("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE %s>\n", doctype))
        ->cstr();
}

} // namespace

GPDOMElement::~GPDOMElement() {
    if (name) name->release();
    if (attributes) attributes->release();
    if (value) value->release();
    if (!children) return;
    // Arrays whose elements go with them are emptied from the top down, so that a deep tree does not go by
    // recursion.
    std::vector<GPArray*> going{children};
    while (!going.empty()) {
        GPArray* array = going.back();
        going.pop_back();
        if (references(array) == 1)
            for (int i = 0; i < array->count(); ++i) {
                GPDOMElement* child = childAt(array, i);
                if (child->children && child->referenceCount() == 1)
                    going.push_back(std::exchange(child->children, nullptr));
            }
        array->release();
    }
}

const char* GPDOMElement::cclassName() { return "GPDOMElement"; }

GPDOMElement* GPDOMElement::createElement(const char* name) { return createElement(name, nullptr, nullptr); }

GPDOMElement* GPDOMElement::createElement(const char* name, GPMap* attributes) {
    return createElement(name, attributes, nullptr);
}

GPDOMElement* GPDOMElement::createElement(const char* name, GPMap* attributes, const char* value) {
    const std::string_view nameText = name ? name : "";
    PartsMemory memory(SharedPiece::sizeOf<GPDOMElement>(),
                       GPString::sizeIn(nameText) + (value ? GPString::sizeIn(value) : 0));
    auto* element = memory.make<GPDOMElement>();
    element->name = memory.string(nameText);
    if (attributes) attributes->retain();
    element->attributes = attributes;
    if (value) element->value = memory.string(value);
    return element;
}

// The scan of one text: from angle bracket to angle bracket, with the element that is open at the moment.
class GPDOMElement::Scanner {
public:
    explicit Scanner(const char* text) : text_(text), end_(text + std::strlen(text)) {}

    GPDOMElement* run() {
        while (findTag()) {
            const char kind = open_[1];
            if (kind == '!' || kind == '?') continue;
            if (kind == '/')
                readEndTag();
            else
                readStartTag();
        }
        return root_;
    }

private:
    // The tag runs from `open_` to its ">", and `position_` is behind that.
    bool findTag() {
        open_ = placeOf('<', position_);
        const char* const close = open_ ? placeOf('>', open_) : nullptr;
        if (!close) return false;
        position_ = close + 1;
        return true;
    }

    const char* placeOf(char character, const char* from) const {
        return static_cast<const char*>(std::memchr(from, character, static_cast<std::size_t>(end_ - from)));
    }

    std::size_t tagLength() const { return static_cast<std::size_t>(position_ - open_); }

    void readEndTag() {
        if (!current_) return;
        if (current_->children->count() == 0 &&
            nameOf(open_ + 1, tagLength() - 1) == current_->name->cstr()) {
            const char* const from = text_ + current_->valueStart;
            current_->value = GPString::of({from, static_cast<std::size_t>(open_ - from)});
        }
        // Names are not compared: an end tag of another name closes a level just as well.
        current_ = current_->parent;
    }

    void readStartTag() {
        const std::string_view tag(open_, tagLength());
        const bool isSelfClosed = tag[tag.size() - 2] == '/';
        const std::int32_t behindTag = static_cast<std::int32_t>(position_ - text_);
        const auto content = isSelfClosed ? std::nullopt : readValueAndEndTag(nameOf(tag.data(), tag.size()));
        GPDOMElement* element = made(tag, content);
        element->valueStart = behindTag;
        attach(element);
        if (content) return;
        if (!isSelfClosed) {
            current_ = element;
            return;
        }
        std::string bareName = element->name->cstr();
        bareName.erase(std::remove(bareName.begin(), bareName.end(), '/'), bareName.end());
        element->name->reset(bareName.c_str());
        // Behind a self-closed child the scanner goes one level higher than the element that
        // contains it. Readers search the whole tree and do not notice.
        if (current_ && current_->parent) current_ = current_->parent;
    }

    // Of an element without children: its text, if the very next tag is its end tag, which is then read as well.
    std::optional<std::string_view> readValueAndEndTag(std::string_view opened) {
        const char* const next = placeOf('<', position_);
        if (!next || next[1] != '/') return std::nullopt;
        const char* const close = placeOf('>', next);
        if (!close || nameOf(next + 1, static_cast<std::size_t>(close - next)) != opened) return std::nullopt;
        const char* const from = std::exchange(position_, close + 1);
        return std::string_view(from, static_cast<std::size_t>(next - from));
    }

    // The element of a start tag.
    static GPDOMElement* made(std::string_view tag, const std::optional<std::string_view>& value) {
        const std::string_view name = nameOf(tag.data(), tag.size());
        const TagAttributes attributes(behindName(tag, name.size() + 1));
        PartsMemory memory(
            SharedPiece::sizeOf<GPDOMElement>() + SharedPiece::sizeOf<GPArray>() + attributes.mapSize(),
            GPString::sizeIn(name) + attributes.textSize() + (value ? GPString::sizeIn(*value) : 0));
        auto* element = memory.make<GPDOMElement>();
        element->children = memory.make<GPArray>();
        element->name = memory.string(name);
        element->attributes = attributes.mapIn(memory);
        if (value) element->value = memory.string(*value);
        return element;
    }

    // Takes over the caller's reference.
    void attach(GPDOMElement* element) {
        if (!root_) {
            root_ = element;
            return;
        }
        auto owner = Owned<GPDOMElement>::adopt(element);
        element->parent = current_;
        if (current_)
            current_->children->addObject(element);
        else
            unattached_ = std::move(owner);
    }

    const char* const text_;
    const char* const end_;
    const char* open_ = nullptr;
    const char* position_ = text_;
    GPDOMElement* root_ = nullptr;
    GPDOMElement* current_ = nullptr;
    // The newest further top-level element, which is not returned. Nothing is open in those before it.
    Owned<GPDOMElement> unattached_;
};

GPDOMElement* GPDOMElement::parse(const char* text) { return text ? Scanner(text).run() : nullptr; }

bool GPDOMElement::addElement(GPDOMElement* child) {
    if (!children) children = new GPArray;
    children->addObject(child);
    return true;
}

GPDOMElement* GPDOMElement::findElement(const char* wanted) {
    GPDOMElement* found = nullptr;
    walk(this, [&](GPDOMElement* element) {
        if (element->name->isEqual(wanted)) found = element;
        return !found;
    });
    return found;
}

GPArray* GPDOMElement::findElements(const char* wanted) {
    auto* found = new GPArray;
    walk(this, [&](GPDOMElement* element) {
        if (element->name->isEqual(wanted)) found->addObject(element);
        return true;
    });
    return found;
}

bool GPDOMElement::holds(GPDOMElement* wanted) {
    bool found = false;
    walk(this, [&](GPDOMElement* element) {
        found = element == wanted;
        return !found;
    });
    return found;
}

// Every array that is searched takes a reference of the element, found or not; that is how GPArray removes.
// A vain search leaves the holders theirs, and the search ends when no reference is left.
bool GPDOMElement::searchAndRemove(GPDOMElement* element, Holders holders) {
    const auto alive = Owned<GPDOMElement>::retain(element);
    const auto left = [&] { return element->referenceCount() - 1; };
    bool isDirectChild = false;
    std::vector<GPDOMElement*> ahead{this};
    while (!ahead.empty() && left() > 0) {
        GPDOMElement* searched = ahead.back();
        ahead.pop_back();
        GPArray* among = searched->children;
        if (!among) continue;
        if (among->indexOfObject(element) >= 0) {
            among->removeObject(element);
            isDirectChild = searched == this;
            if (isDirectChild) break;
            continue;
        }
        if (left() > holders) among->removeObject(element);
        for (int i = among->count() - 1; i >= 0; --i)
            ahead.push_back(childAt(among, i));
    }
    return isDirectChild;
}

bool GPDOMElement::removeElement(GPDOMElement* element) {
    if (!element) return false;
    return searchAndRemove(element, holds(element) ? tree : nobody);
}

bool GPDOMElement::removeElement(const char* wanted) {
    GPDOMElement* found = findElement(wanted);
    if (!found) return false;
    removeElement(found);
    return true;
}

bool GPDOMElement::removeElements(const char* wanted) {
    auto found = Owned<GPArray>::adopt(findElements(wanted));
    for (int i = 0; i < found->count(); ++i)
        searchAndRemove(childAt(found.get(), i), treeAndList);
    return true;
}

GPString* GPDOMElement::convertToString(bool pretty, const char* doctype, bool shortClose) {
    TreeWriter writer(pretty, shortClose);
    if (doctype) writer.text = documentHead(doctype);
    writer.write(this);
    return GPString::of(writer.text);
}

GPString* GPDOMElement::convertToPlist(bool pretty) {
    auto version = Owned<GPMap>::adopt(new GPMap);
    version->setObject(GPString::staticstring("1.0"), "version");
    auto plist = Owned<GPDOMElement>::adopt(createElement("plist", version.get()));
    plist->addElement(this);
    return plist->convertToString(pretty, propertyListType, true);
}
