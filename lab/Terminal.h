#pragma once

// What a terminal can show: its width, colours, and tables that fit.

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace lab {

// Columns of the terminal behind a stream, or what COLUMNS says; `otherwise` where there is neither.
std::size_t widthOf(std::FILE* stream, std::size_t otherwise = 120);

enum class Colour { none, faint, good, bad, notice, strong };

// Whether a stream is a terminal that wants colours: NO_COLOR or a dumb terminal does not.
bool showsColours(std::FILE* stream);

// The text in that colour, or as it is.
std::string coloured(const std::string& text, Colour colour, bool wanted);

// Cut to a width, "..." at its end.
std::string shortened(const std::string& text, std::size_t width);

// Bytes that a terminal should not see are replaced, but for those of `but`: control characters, also those that UTF-8
// has two bytes for, and the bytes that are one by themselves outside of UTF-8.
std::string printable(std::string text, const std::string& but = "");

// A table of some columns. The last one is wrapped into what is left, the others are cut where the line would be too
// short.
class TextTable {
public:
    struct Cell {
        std::string text;
        Colour colour = Colour::none;
    };

    // The headings; empty ones make a table without.
    explicit TextTable(std::vector<std::string> headings);

    void add(std::vector<Cell> cells);

    // Prints it for a stream of that width.
    void print(std::FILE* out, std::size_t indent = 0) const;

    // The same as a text.
    std::string text(std::size_t width, std::size_t indent, bool colours) const;

private:
    std::vector<std::size_t> widths(std::size_t room) const;

    std::vector<std::string> headings_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace lab
