#include "gp/GPString.h"

#include "gp/GPArray.h"
#include "gp/GoneMemory.h"
#include "gp/Owned.h"
#include "gp/SharedPiece.h"
#include "gp/TextSearch.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr char className_[] = "GPString";
constexpr char escapedCharacters[] = "%$&+,/:;=?@ ";

char* copyOf(const char* text, std::size_t length) {
    char* buffer = new char[length + 1];
    if (length) std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return buffer;
}

char* copyOf(const char* text) { return text ? copyOf(text, std::strlen(text)) : copyOf("", 0); }

std::string_view textOrEmpty(const char* text) { return text ? text : ""; }

char* joined(const char* first, const char* second, std::size_t secondLength) {
    const std::size_t firstLength = std::strlen(first);
    char* buffer = new char[firstLength + secondLength + 1];
    std::memcpy(buffer, first, firstLength);
    std::memcpy(buffer + firstLength, second, secondLength);
    buffer[firstLength + secondLength] = '\0';
    return buffer;
}

// `before` with what vsnprintf makes behind it, measured with a first pass and written with a second.
__attribute__((format(printf, 2, 0))) char* formatted(const char* before, const char* fmt,
                                                      va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const std::size_t start = std::strlen(before);
    const int length = std::max(std::vsnprintf(nullptr, 0, fmt, arguments), -1);
    char* buffer = new char[start + static_cast<std::size_t>(length + 1) + 1];
    std::memcpy(buffer, before, start + 1);
    // NOLINTNEXTLINE(cert-err33-c): writes what the first pass measured
    if (length >= 0) std::vsnprintf(buffer + start, static_cast<std::size_t>(length) + 1, fmt, again);
    va_end(again);
    return buffer;
}

// A number that was not there reads as -1; a "0" in front is enough to be there.
template <class Number>
Number numberOrMinusOne(const char* text, Number value) {
    return value == 0 && text[0] != '0' ? -1 : value;
}

bool isHexDigit(char character) { return std::isxdigit(static_cast<unsigned char>(character)) != 0; }

bool isEscaped(char character) { return character && std::strchr(escapedCharacters, character); }

bool isEscape(const char* at) { return at[0] == '%' && isHexDigit(at[1]) && isHexDigit(at[2]); }

// Whether the size that the matches of `from` call for is below 1. Overlapping matches count, on purpose.
bool shrinksBelowOne(std::string_view text, std::string_view from, std::string_view to) {
    if (to.size() >= from.size()) return false;
    long long size = static_cast<long long>(text.size()) + 1;
    TextSearch search(text, from);
    while (search.next() != TextSearch::npos) {
        size -= static_cast<long long>(from.size() - to.size());
    }
    return size < 1;
}

// Hands over the pieces that a replacement consists of. Each match at `p` is preceded by up to `p` bytes from the
// last match's end on, on purpose: from the second match on that is more than what lies between the two.
template <class Add>
void replacedPieces(std::string_view text, std::string_view from, std::string_view to, Add add) {
    TextSearch search(text, from);
    std::size_t resume = 0;
    for (std::size_t match = search.next(); match != TextSearch::npos; match = search.next()) {
        add(text.substr(resume, match));
        add(to);
        resume = match + from.size();
        search.resumeAt(resume);
    }
    add(text.substr(resume));
}

} // namespace

GPString::GPString() : text_(copyOf("", 0)) {}

GPString::GPString(std::nullptr_t) : GPString() {}

GPString::GPString(const GPString* text) : text_(copyOf(text ? text->text_ : nullptr)) {}

GPString::GPString(const char* text) : text_(copyOf(text)) {}

GPString::GPString(const char* text, int len) {
    if (text && len < 0) {
        text_ = const_cast<char*>(text);
    } else {
        text_ = text ? copyOf(text, strnlen(text, static_cast<std::size_t>(len))) : copyOf("", 0);
    }
}

GPString::GPString(char character) : text_(copyOf(&character, character ? 1 : 0)) {}

GPString::GPString(char* text, TextBehindObject) noexcept : text_(text), isTextBehindObject_(true) {}

GPString::~GPString() { deleteText(); }

void GPString::deleteText() {
    if (isTextBehindObject_)
        markGone(text_, std::strlen(text_) + 1);
    else
        delete[] text_;
}

GPString* GPString::withRoomFor(std::size_t length) {
    void* const memory = ::operator new(sizeof(GPString) + length + 1);
    return ::new (memory) GPString(static_cast<char*>(memory) + sizeof(GPString), TextBehindObject());
}

GPString* GPString::of(std::string_view first, std::string_view second, std::string_view third) {
    GPString* const string = withRoomFor(first.size() + second.size() + third.size());
    char* end = std::copy(first.begin(), first.end(), string->text_);
    end = std::copy(second.begin(), second.end(), end);
    *std::copy(third.begin(), third.end(), end) = '\0';
    return string;
}

std::size_t GPString::sizeIn(std::string_view text) {
    return SharedPiece::sizeOf<GPString>() + SharedPiece::sizeOfText(text.size());
}

GPString* GPString::in(SharedPiece& piece, std::string_view text) {
    char* const room = piece.roomForText(text.size());
    *std::copy(text.begin(), text.end(), room) = '\0';
    return piece.make<GPString>(room, TextBehindObject());
}

GPString* GPString::className() { return string(className_); }

const char* GPString::cclassName() { return className_; }

const char* GPString::GPStringClassName() { return className_; }

GPString* GPString::string(std::nullptr_t) { return string(static_cast<const char*>(nullptr)); }

GPString* GPString::string(const char* text) {
    return static_cast<GPString*>(of(textOrEmpty(text))->autorelease());
}

GPString* GPString::string(const GPString* text) { return string(text->text_); }

GPString* GPString::staticstring(const char* text) { return of(textOrEmpty(text))->makestatic(); }

GPString* GPString::absorbe(char* text) { return new GPString(text, -1); }

GPString* GPString::format(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    GPString* result = absorbe(formatted("", fmt, arguments));
    va_end(arguments);
    return result;
}

int GPString::length() const { return static_cast<int>(std::strlen(text_)); }

bool GPString::isEqual(const char* text) const { return text && std::strcmp(text_, text) == 0; }

bool GPString::isEqual(const GPString* text) const { return std::strcmp(text_, text->text_) == 0; }

bool GPString::startsWith(const char* text) const {
    // True in both directions, on purpose: an empty string starts with everything.
    for (const char* own = text_; *own && *text; ++own, ++text) {
        if (*own != *text) return false;
    }
    return true;
}

bool GPString::startsWith(const GPString* text) const { return startsWith(text->text_); }

int GPString::intValue() const {
    return numberOrMinusOne(text_, static_cast<int>(std::strtol(text_, nullptr, 10)));
}

long long GPString::longLongValue() const {
    return numberOrMinusOne(text_, std::strtoll(text_, nullptr, 10));
}

bool GPString::boolValue() {
    lowercase();
    return isEqual("true") || intValue() > 0;
}

int GPString::find(const char* needle, int start, bool fromEnd) const {
    if (start < 0 || start >= length()) return -1;
    const char* match = ::find(text_ + start, needle, fromEnd);
    return match ? static_cast<int>(match - text_) : -1;
}

int GPString::find(const GPString* needle, int start, bool fromEnd) const {
    return find(needle->text_, start, fromEnd);
}

int GPString::find(const char* needle, bool fromEnd) const { return find(needle, 0, fromEnd); }

int GPString::find(const GPString* needle, bool fromEnd) const { return find(needle->text_, 0, fromEnd); }

int GPString::skipws() const { return skipws(0); }

int GPString::skipws(int from) const { return static_cast<int>(::skipws(text_ + from) - text_); }

GPString* GPString::copy() const { return of(text_); }

GPString* GPString::take(char* text) {
    deleteText();
    text_ = text;
    isTextBehindObject_ = false;
    return this;
}

GPString* GPString::reset(const char* text) { return text ? take(copyOf(text)) : this; }

GPString* GPString::append(const char* text) { return take(joined(text_, text, std::strlen(text))); }

GPString* GPString::append(const GPString* text) { return append(text->text_); }

GPString& GPString::operator+=(const char* text) { return *append(text); }

GPString& GPString::operator+=(const GPString* text) { return *append(text->text_); }

GPString* GPString::append(const char* text, int len) {
    if (len <= 0) return this;
    return take(joined(text_, text, strnlen(text, static_cast<std::size_t>(len))));
}

GPString* GPString::appendFormat(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    char* text = formatted(text_, fmt, arguments);
    va_end(arguments);
    return take(text);
}

GPString* GPString::replace(const char* from, const char* to) {
    // An empty `from` has no first match, and would have no last one.
    if (!from || !to || !*from || !::find(text_, from, false)) return this;
    if (shrinksBelowOne(text_, from, to)) return this;

    std::size_t size = 0;
    replacedPieces(text_, from, to, [&size](std::string_view piece) { size += piece.size(); });
    // Many matches make a text that grows like their square, and one that length() cannot count is none.
    if (size > std::numeric_limits<int>::max()) return this;

    char* buffer = new char[size + 1];
    char* place = buffer;
    replacedPieces(text_, from, to, [&place](std::string_view piece) {
        place = std::copy(piece.begin(), piece.end(), place);
    });
    *place = '\0';
    return take(buffer);
}

GPString* GPString::replace(const GPString* from, const GPString* to) {
    return replace(from ? from->text_ : nullptr, to ? to->text_ : nullptr);
}

GPString* GPString::subString(int start, int end) {
    // Indexes that lead out of the text are taken as its ends: nothing is read outside of the buffer.
    const int first = std::clamp(start, 0, length());
    const int behind = std::clamp(end, first, length());
    return take(copyOf(text_ + first, static_cast<std::size_t>(behind - first)));
}

GPString* GPString::subString(int start) { return subString(start, length()); }

GPString* GPString::trim() {
    trimws(text_);
    const char* first = ::skipws(text_);
    return *first != *text_ ? reset(first) : this;
}

GPString* GPString::lowercase() {
    for (char* at = text_; *at; ++at) {
        *at = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
    }
    return this;
}

GPString* GPString::uppercase() {
    for (char* at = text_; *at; ++at) {
        *at = static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
    }
    return this;
}

GPString* GPString::encode() {
    char* buffer = new char[static_cast<std::size_t>(getUrlEscapedLength(text_)) + 1];
    char* to = buffer;
    for (const char* at = text_; *at; ++at) {
        if (isEscaped(*at)) {
            to += std::snprintf(to, 4, "%%%02X", static_cast<unsigned char>(*at));
        } else {
            *to++ = *at;
        }
    }
    *to = '\0';
    return take(buffer);
}

GPString* GPString::decode() {
    char* buffer = new char[static_cast<std::size_t>(getUrlRestoredLength(text_)) + 1];
    char* to = buffer;
    for (const char* at = text_; *at; ++at) {
        if (isEscape(at)) {
            const char digits[] = {at[1], at[2], '\0'};
            *to++ = static_cast<char>(base16(digits));
            at += 2;
        } else {
            *to++ = *at;
        }
    }
    *to = '\0';
    return take(buffer);
}

GPString* GPString::domDecode() {
    constexpr char entity[] = "&amp;";
    char* buffer = new char[std::strlen(text_) + 1];
    char* to = buffer;
    for (const char* at = text_; *at; ++at) {
        *to++ = *at;
        if (std::strncmp(at, entity, sizeof entity - 1) == 0) at += sizeof entity - 2;
    }
    *to = '\0';
    return take(buffer);
}

GPString* GPString::makestatic() {
    staticMark_ = 1;
    return this;
}

char* GPString::reverse() { return ::reverse(text_); }

GPArray* GPString::split(const char* separator) const {
    auto pieces = Owned<GPArray>::adopt(new GPArray());
    const std::string_view text(text_);
    const auto add = [&pieces](std::string_view piece) {
        auto string = Owned<GPString>::adopt(GPString::of(piece));
        pieces->addObject(string.get());
    };
    const std::string_view between(separator);
    TextSearch search(text, between);
    std::size_t position = 0;
    // A match at 0 ends the splitting, on purpose: a path with a leading "/" stays in one piece.
    for (std::size_t match = search.next(); match != TextSearch::npos && match > 0; match = search.next()) {
        add(text.substr(position, match - position));
        position = match + between.size();
        search.resumeAt(position);
    }
    if (position < text.size()) add(text.substr(position));
    return pieces.handOver();
}

GPArray* GPString::split(const GPString* separator) const { return split(separator->text_); }

GPString* GPString::join(GPArray* array, const char* separator) {
    if (!array || array->count() == 0) return nullptr;

    std::string text;
    for (int index = 0; index < array->count(); ++index) {
        if (index > 0) text += separator;
        text += static_cast<GPString*>(array->objectAtIndex(index))->text_;
    }
    return of(text);
}

GPString* GPString::join(GPArray* array, const GPString* separator) { return join(array, separator->text_); }

int getUrlEscapedLength(const char* text) {
    int length = 0;
    for (; *text; ++text) {
        length += isEscaped(*text) ? 3 : 1;
    }
    return length;
}

int getUrlRestoredLength(const char* text) {
    int length = 0;
    for (; *text; ++text, ++length) {
        if (isEscape(text)) text += 2;
    }
    return length;
}
