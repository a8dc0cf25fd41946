// The table of characters that <ctype.h> of the Mac reads directly, and the calls behind it for what lies outside.

#include "machost/libsystem/Library.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace machost::libsystem {
namespace {

// <runetype.h>: what a character is, by bits.
constexpr std::uint32_t alphabetic = 0x100, control = 0x200, digit = 0x400, graphic = 0x800, lower = 0x1000,
                        punctuation = 0x2000, space = 0x4000, upper = 0x8000, hexadecimal = 0x10000,
                        blank = 0x20000, printable = 0x40000;

struct RuneRange {
    std::int32_t count;
    void* entries;
};

struct RuneLocale {
    char magic[8];
    char encoding[32];
    void* functions[2];
    std::int32_t invalidRune;
    std::uint32_t types[256];
    std::int32_t lowers[256];
    std::int32_t uppers[256];
    RuneRange ranges[3]; // what lies above the tables: nothing
    void* variable;
    std::int32_t variableLength, classCount;
    void* classes;
};
static_assert(offsetof(RuneLocale, types) == 60 && offsetof(RuneLocale, ranges) == 60 + 3 * 1024 + 4);

std::uint32_t typeOf(int character) {
    std::uint32_t bits = 0;
    const auto add = [&](bool is, std::uint32_t bit) { bits |= is ? bit : 0; };
    add(std::isalpha(character), alphabetic);
    add(std::iscntrl(character), control);
    add(std::isdigit(character), digit);
    add(std::isgraph(character), graphic);
    add(std::islower(character), lower);
    add(std::ispunct(character), punctuation);
    add(std::isspace(character), space);
    add(std::isupper(character), upper);
    add(std::isxdigit(character), hexadecimal);
    add(std::isblank(character), blank);
    add(std::isprint(character), printable);
    // Digits and hexadecimal digits have their value in the lowest bits.
    if (std::isdigit(character))
        bits |= static_cast<std::uint32_t>(character - '0');
    else if (std::isxdigit(character))
        bits |= static_cast<std::uint32_t>(std::tolower(character) - 'a' + 10);
    return bits;
}

RuneLocale makeLocale() {
    RuneLocale locale{};
    std::memcpy(locale.magic, "RuneMagA", 8);
    std::strcpy(locale.encoding, "NONE");
    for (int character = 0; character < 256; ++character) {
        const bool ascii = character < 128;
        locale.types[character] = ascii ? typeOf(character) : 0;
        locale.lowers[character] = ascii ? std::tolower(character) : character;
        locale.uppers[character] = ascii ? std::toupper(character) : character;
    }
    return locale;
}

const RuneLocale& locale() {
    static const auto& one = *new RuneLocale(makeLocale());
    return one;
}

bool isKnown(int character) { return character >= 0 && character < 256; }

int playedMaskRune(int character, unsigned long mask) {
    return isKnown(character) ? static_cast<int>(locale().types[character] & mask) : 0;
}

int playedToLower(int character) { return isKnown(character) ? locale().lowers[character] : character; }
int playedToUpper(int character) { return isKnown(character) ? locale().uppers[character] : character; }

} // namespace

const ImportTable& characterImports() {
    static const auto& table = *new ImportTable{
        variable("__DefaultRuneLocale", &locale(), "table.c of Libc, its ASCII half"),
        function("___maskrune", playedMaskRune, "isctype.c of Libc"),
        function("___tolower", playedToLower, "tolower.c of Libc"),
        function("___toupper", playedToUpper, "toupper.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
