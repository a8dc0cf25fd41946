#include "machost/loader/CompactUnwind.h"

#include <array>
#include <map>

namespace machost {
namespace {

struct TableHeader {
    std::uint32_t version, commonOffset, commonCount, personalityOffset, personalityCount, indexOffset,
        indexCount;
};

struct IndexEntry {
    std::uint32_t function, page, handlerData;
};

struct PageHeader {
    std::uint32_t kind;
    std::uint16_t entriesOffset, entryCount, encodingsOffset, encodingCount;
};

constexpr std::uint32_t regularPage = 2, compressedPage = 3;

// Parts of an encoding.
constexpr std::uint32_t handlerDataFlag = 0x40000000;
constexpr std::uint32_t modeMask = 0x0f000000;
constexpr std::uint32_t modeBasePointer = 0x01000000, modeFixedSize = 0x02000000, modeSizeInCode = 0x03000000,
                        modeDwarf = 0x04000000;

std::uint32_t field(std::uint32_t encoding, std::uint32_t mask) {
    return (encoding & mask) / (mask & (~mask + 1));
}

// The registers that encodings name, by their DWARF numbers: rbx, r12 to r15, rbp.
int dwarfRegister(unsigned number) {
    constexpr std::array<int, 7> numbers = {-1, 3, 12, 13, 14, 15, 6};
    if (number == 0 || number >= numbers.size())
        throw FormatError("an unwind entry names an unknown register");
    return numbers[number];
}

class TableReader {
public:
    explicit TableReader(ByteView table) : table_(table), header_(table.record<TableHeader>(0)) {
        if (header_.version != 1) throw FormatError("its unwind table is of an unknown form");
    }

    std::vector<UnwindEntry> read() {
        for (std::uint32_t i = 0; i + 1 < header_.indexCount; ++i)
            readPage(index(i), index(i + 1).function);
        for (std::size_t i = 0; i < entries_.size(); ++i)
            entries_[i].end = i + 1 < entries_.size() ? entries_[i + 1].start : lastFunction();
        return std::move(entries_);
    }

private:
    IndexEntry index(std::uint32_t i) const {
        return table_.record<IndexEntry>(header_.indexOffset + std::uint64_t{i} * sizeof(IndexEntry));
    }

    std::uint32_t lastFunction() const { return index(header_.indexCount - 1).function; }

    void readPage(const IndexEntry& entry, std::uint32_t end) {
        if (entry.page == 0) return;
        const auto kind = table_.record<std::uint32_t>(entry.page);
        if (kind == regularPage)
            readRegularPage(entry);
        else if (kind == compressedPage)
            readCompressedPage(entry);
        else
            throw FormatError("a page of its unwind table is of an unknown form");
        if (!entries_.empty() && entries_.back().start >= end)
            throw FormatError("its unwind table is out of order");
    }

    void readRegularPage(const IndexEntry& entry) {
        const auto offset = table_.record<std::uint16_t>(entry.page + std::uint64_t{4});
        const auto count = table_.record<std::uint16_t>(entry.page + std::uint64_t{6});
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t at = std::uint64_t{entry.page} + offset + i * 8;
            add(table_.record<std::uint32_t>(at), table_.record<std::uint32_t>(at + 4));
        }
    }

    void readCompressedPage(const IndexEntry& entry) {
        const auto page = table_.record<PageHeader>(entry.page);
        for (std::uint64_t i = 0; i < page.entryCount; ++i) {
            const auto word =
                table_.record<std::uint32_t>(std::uint64_t{entry.page} + page.entriesOffset + i * 4);
            const std::uint32_t number = word >> 24;
            const std::uint64_t at = number < header_.commonCount
                                         ? header_.commonOffset + std::uint64_t{number} * 4
                                         : std::uint64_t{entry.page} + page.encodingsOffset +
                                               std::uint64_t{number - header_.commonCount} * 4;
            add(entry.function + (word & 0xffffff), table_.record<std::uint32_t>(at));
        }
    }

    void add(std::uint32_t start, std::uint32_t encoding) {
        if (!entries_.empty() && start < entries_.back().start)
            throw FormatError("its unwind table is out of order");
        UnwindEntry entry;
        entry.start = start;
        entry.encoding = encoding;
        if (const std::uint32_t number = field(encoding, 0x30000000)) {
            if (number > header_.personalityCount)
                throw FormatError("an unwind entry names an unknown handler");
            entry.personality =
                table_.record<std::uint32_t>(header_.personalityOffset + std::uint64_t{number - 1} * 4);
        }
        if (encoding & handlerDataFlag) entry.handlerData = handlerDataOf(start);
        entries_.push_back(entry);
    }

    // The handlers' data stand in one array, in the order of functions, between the first and the last index entry.
    std::uint32_t handlerDataOf(std::uint32_t function) {
        if (handlerData_.empty()) {
            const std::uint32_t first = index(0).handlerData, end = index(header_.indexCount - 1).handlerData;
            for (std::uint64_t at = first; at + 8 <= end; at += 8)
                handlerData_[table_.record<std::uint32_t>(at)] = table_.record<std::uint32_t>(at + 4);
        }
        const auto found = handlerData_.find(function);
        if (found == handlerData_.end()) throw FormatError("an unwind entry lacks the data of its handler");
        return found->second;
    }

    ByteView table_;
    TableHeader header_;
    std::vector<UnwindEntry> entries_;
    std::map<std::uint32_t, std::uint32_t> handlerData_;
};

// Which of six registers were saved, and in which order: the number of the permutation, in mixed radix.
std::vector<unsigned> savedOrder(unsigned count, std::uint32_t permutation) {
    if (count > 6) throw FormatError("an unwind entry saves too many registers");
    std::vector<unsigned> left = {1, 2, 3, 4, 5, 6}, order;
    std::uint32_t radix = 1;
    for (unsigned i = 1; i < count; ++i)
        radix *= 6 - i;
    for (unsigned i = 0; i < count; ++i) {
        const std::uint32_t position = permutation / radix;
        permutation %= radix;
        if (position >= left.size()) throw FormatError("an unwind entry saves an unknown register");
        order.push_back(left[position]);
        left.erase(left.begin() + position);
        if (i + 1 < count) radix /= static_cast<std::uint32_t>(left.size());
    }
    return order;
}

void decodeBasePointer(std::uint32_t encoding, FrameLayout& layout) {
    layout.kind = FrameLayout::basePointer;
    const unsigned words = field(encoding, 0x00ff0000);
    std::uint32_t registers = encoding & 0x7fff;
    for (unsigned i = 0; i < 5; ++i, registers >>= 3) {
        if (registers & 7) layout.saved.push_back({dwarfRegister(registers & 7), 8 * (words + 2 - i)});
    }
}

void decodeStackPointer(std::uint32_t encoding, FrameLayout& layout) {
    const bool fixed = (encoding & modeMask) == modeFixedSize;
    layout.kind = fixed ? FrameLayout::fixedSize : FrameLayout::sizeInCode;
    (fixed ? layout.size : layout.sizeAt) = field(encoding, 0x00ff0000) * (fixed ? 8 : 1);
    layout.adjustment = fixed ? 0 : field(encoding, 0x0000e000) * 8;
    const unsigned count = field(encoding, 0x00001c00);
    const std::vector<unsigned> order = savedOrder(count, encoding & 0x3ff);
    for (unsigned i = 0; i < count; ++i)
        layout.saved.push_back({dwarfRegister(order[i]), 8 + 8 * (count - i)});
}

} // namespace

std::vector<UnwindEntry> readCompactUnwind(ByteView table) { return TableReader(table).read(); }

FrameLayout decodeFrame(std::uint32_t encoding) {
    FrameLayout layout;
    switch (encoding & modeMask) {
        case modeBasePointer:
            decodeBasePointer(encoding, layout);
            break;
        case modeFixedSize:
        case modeSizeInCode:
            decodeStackPointer(encoding, layout);
            break;
        case modeDwarf:
            layout.kind = FrameLayout::dwarf;
            break;
        default:
            break;
    }
    return layout;
}

} // namespace machost
