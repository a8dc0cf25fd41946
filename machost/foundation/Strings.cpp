// NSString, which is Core Foundation's string.

#include "machost/corefoundation/Strings.h"

#include "machost/corefoundation/Values.h"
#include "machost/foundation/Library.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

namespace machost::foundation {
namespace {

namespace cf = corefoundation;
using objc::Selector;

constexpr std::uint64_t encodingUtf8 = 4, encodingLatin1 = 5;

ObjectRef stringWithUtf8(ObjectRef, Selector, const char* text) {
    if (!text || !cf::isValidUtf8(text)) return nullptr;
    return objc::autorelease(cf::makeString(text));
}

// Consumes the object that it is sent to when it answers nil.
ObjectRef initWithBytes(ObjectRef self, Selector, const char* bytes, std::uint64_t length,
                        std::uint64_t encoding) {
    const std::string given = bytes ? std::string(bytes, length) : std::string();
    const bool fits = encoding == encodingLatin1 || (encoding == encodingUtf8 && cf::isValidUtf8(given));
    if (!fits) {
        releaseObject(self);
        return nullptr;
    }
    valueOf<std::string>(self) = encoding == encodingLatin1 ? cf::fromLatin1(given) : given;
    return self;
}

// In units of UTF-16: one for each character, two beyond the first plane.
std::uint64_t length(ObjectRef self, Selector) {
    std::uint64_t units = 0;
    for (const char byte : cf::textOf(self)) {
        const auto unit = static_cast<unsigned char>(byte);
        if ((unit & 0xc0) != 0x80) ++units;
        if (unit >= 0xf0) ++units;
    }
    return units;
}

// The text lives as long as the innermost pool at least.
const char* utf8String(ObjectRef self, Selector) {
    return cf::bytesOf(objc::createAutoreleased<std::string>(cf::dataClass, cf::textOf(self))).c_str();
}

std::uint64_t lengthOfBytes(ObjectRef self, Selector selector, std::uint64_t encoding) {
    if (encoding == encodingUtf8) return cf::textOf(self).size();
    return encoding == encodingLatin1 ? length(self, selector) : 0;
}

ObjectRef description(ObjectRef self, Selector) { return self; }

} // namespace

const ImportTable& stringImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSString", &cf::stringClass, "NSString.h; one class for all strings"),
    };
    return table;
}

const objc::PlayedClass& playedStringClass() {
    static const auto& played = *new objc::PlayedClass{
        &cf::stringClass,
        "NSString.h and CFString.c of CF: UTF-8 and Latin-1",
        {objc::method("stringWithUTF8String:", stringWithUtf8)},
        {objc::method("initWithBytes:length:encoding:", initWithBytes), objc::method("length", length),
         objc::method("UTF8String", utf8String), objc::method("lengthOfBytesUsingEncoding:", lengthOfBytes),
         objc::method("description", description)},
        objc::allocateValue<std::string, cf::stringClass>};
    return played;
}

} // namespace machost::foundation
