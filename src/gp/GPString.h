#pragma once

// GPString: mutable, NUL-terminated byte text. Length is computed by strlen and every change of the text
// allocates anew, so the class is not meant for building long text in a loop. No encoding is assumed;
// characters are classed as in the C locale.
//
// All makers but absorbe and format put the object and its first text into one piece of memory; a constructor's text
// and every changed text are pieces of their own. That first text takes its room as long as the object lives, also once
// it has changed: what is kept of a long text is made of that part, and not cut out of a copy.
//
// Owned like any GPObject. A string belongs to one thread at a time, or to a lock of its owner's.

#include "gp/GPObject.h"

#include <cstddef>
#include <cstdint>
#include <new>
#include <string_view>

class GPArray;
class SharedPiece;

class GPString : public GPObject {
public:
    GPString();
    explicit GPString(std::nullptr_t);

    // A copy of the text; null gives an empty string.
    explicit GPString(const GPString* text);
    explicit GPString(const char* text);

    // A copy of at most `len` bytes, which stops at a NUL. With a negative `len` nothing is copied: the
    // string takes the pointer as its own buffer and will delete[] it. Null gives an empty string.
    GPString(const char* text, int len);

    explicit GPString(char character);
    ~GPString() override;

    GPString* className() override;
    const char* cclassName() override;
    static const char* GPStringClassName();

    // A new string of up to three texts, one behind the other; owned by the caller.
    static GPString* of(std::string_view first, std::string_view second = {}, std::string_view third = {});

    // A new string inside a piece of memory that it shares, owned by the caller, and the room it takes there.
    static GPString* in(SharedPiece& piece, std::string_view text);
    static std::size_t sizeIn(std::string_view text);

    // A new string, autoreleased. The char form takes null for empty text, the other one reads unchecked.
    static GPString* string(std::nullptr_t);
    static GPString* string(const char* text);
    static GPString* string(const GPString* text);

    // A new string with the static mark, owned by the caller.
    static GPString* staticstring(const char* text);

    // A new string around `text`, which must come from new[]; owned by the caller.
    static GPString* absorbe(char* text);

    // A new string as printf would write it; owned by the caller.
    static GPString* format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

    // The buffer, borrowed; valid until the next change.
    const char* cstr() const { return text_; }
    int length() const;

    // The address of the character. The index is not checked.
    char* charAtIndex(int index) { return text_ + index; }
    char* operator[](int index) { return text_ + index; }

    // Exact comparison. A null char pointer is not equal; the other form reads unchecked.
    bool isEqual(const char* text) const;
    bool isEqual(const GPString* text) const;

    // Whether one of the two texts is a prefix of the other, in either direction.
    bool startsWith(const char* text) const;
    bool startsWith(const GPString* text) const;

    // The number at the start of the text, as atoi and atoll read it; -1 when that is 0 and the text does not
    // begin with "0".
    int intValue() const;
    long long longLongValue() const;

    // True for "true" in any case and for numbers above 0. Lowercases the receiver.
    bool boolValue();

    // Index of `needle` at or after `start`, or -1, also when `start` is not below the length. With `fromEnd`
    // the search and its answer are those of the free find: the index of the last character of the match.
    int find(const char* needle, int start, bool fromEnd) const;
    int find(const GPString* needle, int start, bool fromEnd) const;
    int find(const char* needle, bool fromEnd) const;
    int find(const GPString* needle, bool fromEnd) const;

    // Index of the first character that is no whitespace, at or after `from`.
    int skipws() const;
    int skipws(int from) const;

    // A new string with the same text, owned by the caller.
    GPString* copy() const;

    // The operations below change the string in place and return it.

    // Replaces the text; null leaves it alone.
    GPString* reset(const char* text);

    // Appends; the argument is read unchecked.
    GPString* append(const char* text);
    GPString* append(const GPString* text);
    GPString& operator+=(const char* text);
    GPString& operator+=(const GPString* text);

    // Appends at most `len` bytes and stops at a NUL.
    GPString* append(const char* text, int len);
    GPString* appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Replaces what matches `from`. With more than one match the text between them comes out longer than it
    // was: 'a-b-c' with '+' for '-' gives 'a+b-c+c'. Nothing happens where the result would be longer than
    // length() can say.
    GPString* replace(const char* from, const char* to);
    GPString* replace(const GPString* from, const GPString* to);

    // Cuts the string itself down to the bytes from `start` up to but not including `end`.
    GPString* subString(int start, int end);
    GPString* subString(int start);

    // Removes whitespace at both ends.
    GPString* trim();
    GPString* lowercase();
    GPString* uppercase();

    // Percent-escapes "%$&+,/:;=?@ ", and back. A plus sign stays a plus sign.
    GPString* encode();
    GPString* decode();

    // Turns each "&amp;" into "&"; no other entity is known.
    GPString* domDecode();

    // Sets the static mark, which changes nothing.
    GPString* makestatic();

    // Reverses the bytes in place and returns the buffer.
    char* reverse();

    // The pieces between separators, as strings owned by a new array that the caller owns. A separator at the
    // very beginning keeps the whole text in one piece.
    GPArray* split(const char* separator) const;
    GPArray* split(const GPString* separator) const;

    // The strings of the array with the separator between them, owned by the caller; null for a null or empty
    // array. All elements must be GPStrings.
    static GPString* join(GPArray* array, const char* separator);
    static GPString* join(GPArray* array, const GPString* separator);

    // The global ones, but for the size that a delete would tell: a maker's piece of memory is larger than the object.
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory) { ::operator delete(memory); }

protected:
    struct TextBehindObject {};
    GPString(char* text, TextBehindObject) noexcept;

private:
    // A new string in one piece of memory with room for a text of that length, which the caller writes.
    static GPString* withRoomFor(std::size_t length);

    // Takes `text` over in place of the present buffer.
    GPString* take(char* text);
    void deleteText();

    char* text_;
    std::uint8_t staticMark_ = 0;
    bool isTextBehindObject_ = false;
};

// Where `needle` stands in `hay`, or null. With `fromEnd` the answer points at the last character of the match,
// and only the last occurrence of the needle's last character is ever tried.
const char* find(const char* hay, const char* needle, bool fromEnd);
const char* find(const char* hay, char character, bool fromEnd);

// The first character that is no whitespace; null for null.
const char* skipws(const char* text);

// Cuts trailing whitespace by writing NULs; returns its argument.
char* trimws(char* text);

// Steps over one leading whitespace character, then goes to the next one or the NUL; null for null.
const char* nextws(const char* text);

// The last character, or the NUL of an empty text; null for null.
const char* end(const char* text);
const char* last(const char* text);

// Reverses in place; returns its argument.
char* reverse(char* text);

// Decimal value: whitespace, one optional "-", digits up to the first other character.
int base10(const char* text);

// Hexadecimal value: whitespace, one optional "0x" or "0X", digits up to the first other character.
std::uint32_t base16(const char* text);

// The lengths that encode and decode will produce.
int getUrlEscapedLength(const char* text);
int getUrlRestoredLength(const char* text);

// Conversions by mbstowcs and wcstombs; the caller frees the result with delete[].
wchar_t* unicode(const char* text);
char* ansi(const wchar_t* text);
