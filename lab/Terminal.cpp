#include "lab/Terminal.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace lab {
namespace {

constexpr std::size_t gap = 2;

// What a cut column keeps at least, and a wrapped one has at least.
constexpr std::size_t leastCut = 8;
constexpr std::size_t leastWrapped = 24;

const char* codeOf(Colour colour) {
    switch (colour) {
        case Colour::faint:
            return "2";
        case Colour::good:
            return "32";
        case Colour::bad:
            return "31";
        case Colour::notice:
            return "33";
        case Colour::strong:
            return "1";
        case Colour::none:
            break;
    }
    return "";
}

// The last place up to there where no character of UTF-8 is cut: its other bytes may steer a terminal by themselves.
std::size_t cutUpTo(const std::string& text, std::size_t place) {
    for (std::size_t back = 0; back < 4 && back < place; ++back)
        if ((static_cast<unsigned char>(text[place - back]) & 0xc0) != 0x80) return place - back;
    return place;
}

// The text in lines of at most that width, broken at blanks where there are any.
std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
    std::vector<std::string> lines;
    std::string rest = text;
    while (rest.size() > width) {
        std::size_t end = rest.rfind(' ', width);
        if (end == std::string::npos || end == 0) end = cutUpTo(rest, width);
        lines.push_back(rest.substr(0, end));
        rest.erase(0, end);
        rest.erase(0, rest.find_first_not_of(' '));
    }
    lines.push_back(rest);
    return lines;
}

// Bytes of the character that begins there in UTF-8; 1 where none does.
std::size_t characterLength(const std::string& text, std::size_t start) {
    const auto byte = [&](std::size_t i) {
        return start + i < text.size() ? static_cast<unsigned char>(text[start + i]) : 0U;
    };
    const unsigned first = byte(0);
    const std::size_t length = first >= 0xc2 && first < 0xe0   ? 2
                               : first >= 0xe0 && first < 0xf0 ? 3
                               : first >= 0xf0 && first < 0xf5 ? 4
                                                               : 1;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xc0) != 0x80) return 1;
    const bool longerThanNeeded = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
    return longerThanNeeded ? 1 : length;
}

// Those from 0x80 on, by which a terminal is steered too.
bool isUpperControl(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 0x80 && value < 0xa0;
}

} // namespace

std::size_t widthOf(std::FILE* stream, std::size_t otherwise) {
    const char* columns = std::getenv("COLUMNS");
    if (const long number = columns ? std::strtol(columns, nullptr, 10) : 0; number > 0)
        return static_cast<std::size_t>(number);
    winsize size{};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return otherwise;
}

bool showsColours(std::FILE* stream) {
    const char* unwanted = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    if (unwanted && *unwanted) return false;
    return isatty(fileno(stream)) == 1 && !(terminal && std::strcmp(terminal, "dumb") == 0);
}

std::string coloured(const std::string& text, Colour colour, bool wanted) {
    if (!wanted || colour == Colour::none || text.empty()) return text;
    return fmt::format("\x1b[{}m{}\x1b[0m", codeOf(colour), text);
}

std::string shortened(const std::string& text, std::size_t width) {
    if (text.size() <= width) return text;
    return width <= 3 ? text.substr(0, cutUpTo(text, width))
                      : text.substr(0, cutUpTo(text, width - 3)) + "...";
}

std::string printable(std::string text, const std::string& but) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = characterLength(text, i);
        const auto first = static_cast<unsigned char>(text[i]);
        const bool lower = first < 0x20 || first == 0x7f;
        const bool upper =
            length == 1 ? isUpperControl(text[i]) : first == 0xc2 && isUpperControl(text[i + 1]);
        if ((lower && but.find(text[i]) == std::string::npos) || upper) text.replace(i, length, length, '?');
        i += length;
    }
    return text;
}

TextTable::TextTable(std::vector<std::string> headings) : headings_(std::move(headings)) {}

void TextTable::add(std::vector<Cell> cells) {
    for (Cell& cell : cells)
        cell.text = printable(std::move(cell.text));
    cells.resize(headings_.size());
    rows_.push_back(std::move(cells));
}

// As wide as what is in them; then the widest is cut until the last one has its least room.
std::vector<std::size_t> TextTable::widths(std::size_t room) const {
    std::vector<std::size_t> widths(headings_.size());
    for (std::size_t column = 0; column < widths.size(); ++column) {
        widths[column] = headings_[column].size();
        for (const auto& row : rows_)
            widths[column] = std::max(widths[column], row[column].text.size());
    }
    const std::size_t last = std::min(widths.back(), leastWrapped);
    std::size_t taken = gap * (widths.size() - 1);
    for (std::size_t column = 0; column + 1 < widths.size(); ++column)
        taken += widths[column];
    while (taken + last > room) {
        const auto widest = std::max_element(widths.begin(), widths.end() - 1);
        if (widest == widths.end() - 1 || *widest <= leastCut) break;
        --*widest;
        --taken;
    }
    widths.back() = taken + last > room ? leastWrapped : room - taken;
    return widths;
}

std::string TextTable::text(std::size_t width, std::size_t indent, bool colours) const {
    const std::vector<std::size_t> columns = widths(width > indent ? width - indent : 1);
    const std::string front(indent, ' ');
    std::string text;
    const auto print = [&](const std::vector<Cell>& cells) {
        std::string line = front;
        std::size_t used = indent;
        for (std::size_t column = 0; column + 1 < cells.size(); ++column) {
            const std::string cell = shortened(cells[column].text, columns[column]);
            line += coloured(cell, cells[column].colour, colours);
            line.append(columns[column] - cell.size() + gap, ' ');
            used += columns[column] + gap;
        }
        const std::vector<std::string> last = wrapped(cells.back().text, columns.back());
        for (std::size_t i = 0; i < last.size(); ++i) {
            if (i) line = std::string(used, ' ');
            line += coloured(last[i], cells.back().colour, colours);
            line.erase(line.find_last_not_of(' ') + 1);
            text += line + "\n";
        }
    };
    const bool headed = std::any_of(headings_.begin(), headings_.end(),
                                    [](const std::string& heading) { return !heading.empty(); });
    std::vector<Cell> heading;
    heading.reserve(headings_.size());
    for (const std::string& word : headings_)
        heading.push_back({word, Colour::faint});
    if (headed) print(heading);
    for (const auto& row : rows_)
        print(row);
    return text;
}

void TextTable::print(std::FILE* out, std::size_t indent) const {
    fmt::print(out, "{}", text(widthOf(out), indent, showsColours(out)));
}

} // namespace lab
