#include "machost/corefoundation/Strings.h"

#include "machost/corefoundation/Library.h"

#include <cstring>

namespace machost::corefoundation {
namespace {

constexpr std::uint32_t encodingUtf8 = 0x08000100, encodingAscii = 0x0600, encodingLatin1 = 0x0201;

void appendUtf8(std::string& text, std::uint32_t code) {
    const auto tail = [&](int shift) { text += static_cast<char>(0x80 | (code >> shift & 0x3f)); };
    if (code < 0x80) {
        text += static_cast<char>(code);
    } else if (code < 0x800) {
        text += static_cast<char>(0xc0 | code >> 6);
        tail(0);
    } else if (code < 0x10000) {
        text += static_cast<char>(0xe0 | code >> 12);
        tail(6);
        tail(0);
    } else {
        text += static_cast<char>(0xf0 | code >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

std::string fromUnits(const std::uint16_t* units, std::int64_t length) {
    std::string text;
    for (std::int64_t i = 0; i < length; ++i) {
        std::uint32_t code = units[i];
        const bool pair =
            code >= 0xd800 && code < 0xdc00 && i + 1 < length && (units[i + 1] & 0xfc00) == 0xdc00;
        if (pair) code = 0x10000 + ((code - 0xd800) << 10) + (units[++i] - 0xdc00u);
        appendUtf8(text, code);
    }
    return text;
}

// Bytes of a sequence by its first byte; 0 for none.
int sequenceLength(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xc2 && first < 0xe0) return 2;
    if (first >= 0xe0 && first < 0xf0) return 3;
    return first >= 0xf0 && first < 0xf5 ? 4 : 0;
}

ObjectRef playedCreate(const void*, const char* bytes, std::uint32_t encoding) {
    if (!bytes) return nullptr;
    if (encoding == encodingLatin1) return makeString(fromLatin1(bytes));
    if (encoding != encodingUtf8 && encoding != encodingAscii) return nullptr;
    return isValidUtf8(bytes) ? makeString(bytes) : nullptr;
}

std::uint8_t copyOut(const std::string& text, char* room, std::int64_t size) {
    if (size < 0 || text.size() >= static_cast<std::size_t>(size)) return 0;
    std::memcpy(room, text.c_str(), text.size() + 1);
    return 1;
}

std::uint8_t playedGet(const void* string, char* room, std::int64_t size, std::uint32_t encoding) {
    return encoding == encodingUtf8 ? copyOut(textOf(string), room, size) : 0;
}

// Names in the file system's own form take letters and their marks apart; here they stay as they are.
std::uint8_t playedGetPath(const void* string, char* room, std::int64_t size) {
    return copyOut(textOf(string), room, size);
}

const void* playedTypeId() { return &stringClass; }

const void* playedGetTypeId(const void* object) {
    const Class* kind = classOf(object);
    return kind == &constantStringClass ? &stringClass : kind;
}

void playedRelease(void* object) {
    if (!object) __builtin_trap(); // as Core Foundation does
    releaseObject(object);
}

} // namespace

const Class stringClass{&classOfClasses, &rootClass, {}, nullptr, "CFString", destroyValue<std::string>};
const Class constantStringClass{&classOfClasses, &stringClass, {}, nullptr, "constant CFString", nullptr};

ObjectRef makeString(const std::string& text) { return createObject<std::string>(stringClass, text); }

bool isString(const void* object) {
    return object && (classOf(object) == &stringClass || classOf(object) == &constantStringClass);
}

std::string textOf(const void* string) {
    if (classOf(string) == &stringClass) return valueOf<std::string>(string);
    const auto* constant = static_cast<const ConstantString*>(string);
    if (constant->flags == constantUnits)
        return fromUnits(static_cast<const std::uint16_t*>(constant->text), constant->length);
    return {static_cast<const char*>(constant->text), static_cast<std::size_t>(constant->length)};
}

std::string fromLatin1(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes)
        appendUtf8(text, static_cast<unsigned char>(byte));
    return text;
}

bool isValidUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const int length = sequenceLength(static_cast<unsigned char>(text[i]));
        if (length == 0 || i + static_cast<std::size_t>(length) > text.size()) return false;
        for (int j = 1; j < length; ++j)
            if ((text[i + static_cast<std::size_t>(j)] & 0xc0) != 0x80) return false;
        const auto first = static_cast<unsigned char>(text[i]);
        const auto second = static_cast<unsigned char>(length > 1 ? text[i + 1] : 0);
        if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
            (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f))
            return false;
        i += static_cast<std::size_t>(length);
    }
    return true;
}

const ImportTable& stringImports() {
    declareConstantClass(constantStringClass);
    constexpr const char* source = "CFString.c of CF";
    static const auto& table = *new ImportTable{
        variable("___CFConstantStringClassReference", &constantStringClass, source),
        function("_CFStringCreateWithCString", playedCreate, "CFString.c of CF: UTF-8, ASCII and Latin-1"),
        function("_CFStringGetCString", playedGet, "CFString.c of CF: UTF-8"),
        function("_CFStringGetFileSystemRepresentation", playedGetPath,
                 "CFString.c of CF, without decomposition"),
        function("_CFStringGetTypeID", playedTypeId, source),
        function("_CFGetTypeID", playedGetTypeId, "CFRuntime.c of CF"),
        function("_CFRelease", playedRelease, "CFRuntime.c of CF"),
    };
    return table;
}

} // namespace machost::corefoundation
