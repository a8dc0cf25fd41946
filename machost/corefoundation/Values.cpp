#include "machost/corefoundation/Values.h"

#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Strings.h"
#include "machost/objc/Exceptions.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"
#include "machost/world/Clock.h"

#include <cctype>
#include <cmath>
#include <cstring>

namespace machost::corefoundation {
namespace {

using objc::Selector;

bool isHex(char character) { return std::isxdigit(static_cast<unsigned char>(character)) != 0; }

std::string unescaped(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        plain += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return plain;
}

bool hasOnlyUrlCharacters(const std::string& text) {
    constexpr const char* marks = "-_.~!*'();:@&=+$,/?#[]%";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto character = static_cast<unsigned char>(text[i]);
        if (character == 0 ||
            (!(character < 0x80 && std::isalnum(character)) && !std::strchr(marks, character)))
            return false;
        if (character != '%') continue;
        if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
    }
    return true;
}

std::string withoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// Where the colon of a scheme stands; npos for a URL without one.
std::size_t schemeEnd(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(text[0])))
        return std::string::npos;
    for (std::size_t i = 1; i < colon; ++i)
        if (!std::isalnum(static_cast<unsigned char>(text[i])) && !std::strchr("+-.", text[i]))
            return std::string::npos;
    return colon;
}

ObjectRef dataWithBytes(ObjectRef, Selector, const char* bytes, std::uint64_t length) {
    return objc::createAutoreleased<std::string>(dataClass,
                                                 bytes ? std::string(bytes, length) : std::string());
}
std::uint64_t dataLength(ObjectRef self, Selector) { return bytesOf(self).size(); }
const void* dataBytes(ObjectRef self, Selector) {
    return bytesOf(self).empty() ? nullptr : bytesOf(self).data();
}

// A moment is its microseconds on the program's clock.
ObjectRef dateFromNow(ObjectRef, Selector, double seconds) {
    return objc::createAutoreleased<std::int64_t>(dateClass, world::now() + std::llround(seconds * 1e6));
}
double dateInterval(ObjectRef self, Selector) { return static_cast<double>(microsecondsUntil(self)) / 1e6; }

ObjectRef urlWithString(ObjectRef, Selector, const void* text) {
    if (!text) objc::raiseException("+[NSURL URLWithString:]: nil string parameter");
    auto url = parseUrl(textOf(text));
    return url ? objc::createAutoreleased<Url>(urlClass, std::move(*url)) : nullptr;
}
ObjectRef fileUrlWithPath(ObjectRef, Selector, const void* path) {
    if (!path) objc::raiseException("+[NSURL fileURLWithPath:]: nil string parameter");
    return objc::autorelease(makeFileUrl(textOf(path)));
}

// Bytes that are no text make no string.
ObjectRef textOrNil(const std::string& text) {
    return isValidUtf8(text) ? objc::autorelease(makeString(text)) : nullptr;
}
ObjectRef urlPath(ObjectRef self, Selector) { return textOrNil(plainPath(urlOf(self))); }
ObjectRef urlLastComponent(ObjectRef self, Selector) { return textOrNil(lastComponent(urlOf(self))); }

} // namespace

const Class dataClass{&classOfClasses, &rootClass, {}, nullptr, "NSData", destroyValue<std::string>};
const Class dateClass{&classOfClasses, &rootClass, {}, nullptr, "NSDate", nullptr};
const Class urlClass{&classOfClasses, &rootClass, {}, nullptr, "NSURL", destroyValue<Url>};

const std::string& bytesOf(const void* data) { return valueOf<std::string>(data); }

std::int64_t microsecondsUntil(const void* date) { return valueOf<std::int64_t>(date) - world::now(); }

std::optional<Url> parseUrl(const std::string& text) {
    if (text.empty() || !hasOnlyUrlCharacters(text)) return std::nullopt;
    Url url;
    url.text = text;
    std::string rest = text.substr(0, text.find_first_of("?#"));
    const std::size_t colon = schemeEnd(rest);
    if (colon != std::string::npos) {
        url.scheme = rest.substr(0, colon);
        rest.erase(0, colon + 1);
        if (rest.empty() || rest[0] != '/') return url; // no path, but something of the scheme's own
    }
    if (rest.compare(0, 2, "//") == 0) {
        const std::size_t end = rest.find('/', 2);
        url.authority = rest.substr(2, end == std::string::npos ? end : end - 2);
        rest.erase(0, end);
    }
    url.path = rest;
    return url;
}

const Url& urlOf(const void* url) { return valueOf<Url>(url); }

ObjectRef makeFileUrl(const std::string& path) {
    Url url;
    url.scheme = "file";
    for (const char character : path) {
        const bool plain = hasOnlyUrlCharacters({character}) && !std::strchr("%?#;[]", character);
        char code[4];
        // NOLINTNEXTLINE(cert-err33-c): three signs have room
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(character));
        url.path += plain ? std::string(1, character) : code;
    }
    url.text = "file://" + url.path;
    return createObject<Url>(urlClass, std::move(url));
}

std::string plainPath(const Url& url) { return unescaped(withoutSlashes(url.path)); }

std::string lastComponent(const Url& url) {
    const std::string path = withoutSlashes(url.path);
    return path == "/" ? path : unescaped(path.substr(path.rfind('/') + 1));
}

const ImportTable& valueImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSData", &dataClass, "NSData.h"),
        variable("_OBJC_CLASS_$_NSDate", &dateClass, "NSDate.h"),
        variable("_OBJC_CLASS_$_NSURL", &urlClass, "NSURL.h and CFURL.c of CF"),
    };
    return table;
}

const objc::PlayedClass& playedDataClass() {
    static const auto& played =
        *new objc::PlayedClass{&dataClass,
                               "NSData.h",
                               {objc::method("dataWithBytes:length:", dataWithBytes)},
                               {objc::method("length", dataLength), objc::method("bytes", dataBytes)}};
    return played;
}

const objc::PlayedClass& playedDateClass() {
    static const auto& played =
        *new objc::PlayedClass{&dateClass,
                               "NSDate.h",
                               {objc::method("dateWithTimeIntervalSinceNow:", dateFromNow)},
                               {objc::method("timeIntervalSinceNow", dateInterval)}};
    return played;
}

const objc::PlayedClass& playedUrlClass() {
    static const auto& played = *new objc::PlayedClass{
        &urlClass,
        "NSURL.h and CFURL.c of CF",
        {objc::method("URLWithString:", urlWithString), objc::method("fileURLWithPath:", fileUrlWithPath)},
        {objc::method("path", urlPath), objc::method("lastPathComponent", urlLastComponent)}};
    return played;
}

} // namespace machost::corefoundation
