#include "machost/loader/ChainedFixups.h"

#include "machost/loader/FixupOperations.h"

namespace machost {
namespace {

constexpr std::uint64_t stride = 4; // what a step to the next pointer counts in

std::uint64_t bits(std::uint64_t value, unsigned first, unsigned count) {
    return value >> first & ((std::uint64_t{1} << count) - 1);
}

// Ordinals of the two shorter forms are bytes, of which the highest are the special ones.
int shortOrdinal(std::uint64_t value) {
    return value > 0xf0 ? static_cast<std::int8_t>(value) : static_cast<int>(value);
}

std::vector<Bind> readImports(ByteView fixups, const format::ChainedHeader& header) {
    std::vector<Bind> imports;
    for (std::uint64_t i = 0; i < header.importCount; ++i) {
        Bind import;
        std::uint64_t name = 0;
        if (header.importsFormat == format::importWithAddend64) {
            const auto word = fixups.record<std::uint64_t>(header.importsOffset + i * 16);
            import.ordinal = static_cast<std::int16_t>(bits(word, 0, 16));
            import.weakImport = bits(word, 16, 1);
            name = bits(word, 32, 32);
            import.addend = fixups.record<std::int64_t>(header.importsOffset + i * 16 + 8);
        } else {
            const std::uint64_t size = header.importsFormat == format::importWithAddend ? 8 : 4;
            const auto word = fixups.record<std::uint32_t>(header.importsOffset + i * size);
            import.ordinal = shortOrdinal(bits(word, 0, 8));
            import.weakImport = bits(word, 8, 1);
            name = bits(word, 9, 23);
            if (size == 8) import.addend = fixups.record<std::int32_t>(header.importsOffset + i * size + 4);
        }
        import.symbol = fixups.text(header.symbolsOffset + name);
        imports.push_back(std::move(import));
    }
    return imports;
}

class ChainWalk {
public:
    ChainWalk(const std::vector<Segment>& segments, std::uint64_t base, const std::vector<Bind>& imports,
              std::vector<Rebase>& rebases, std::vector<Bind>& binds)
        : segments_(segments), base_(base), imports_(imports), rebases_(rebases), binds_(binds) {}

    void walkSegment(const Segment& segment, ByteView starts) {
        const auto record = starts.record<format::ChainedSegment>(0);
        if (record.pointerFormat != format::pointerByAddress &&
            record.pointerFormat != format::pointerByOffset)
            throw FormatError("chained pointers are of an unknown form");
        targetBase_ = record.pointerFormat == format::pointerByOffset ? base_ : 0;
        const bool knownPages = record.pageSize == 0x1000 || record.pageSize == 0x4000;
        if (base_ + record.segmentOffset != segment.address || !knownPages)
            throw FormatError("chained pointers do not fit their segment");
        for (std::uint64_t page = 0; page < record.pageCount; ++page) {
            const auto start = starts.record<std::uint16_t>(sizeof record + page * 2);
            checkNumber(segments_, rebases_.size() + binds_.size());
            if (start != format::chainNone) walk(segment.address + page * record.pageSize + start);
        }
    }

private:
    // A step goes forwards only, so every chain comes to its end or to the segment's.
    void walk(std::uint64_t address) {
        for (;;) {
            const std::uint64_t pointer = pointerAt(segments_, address);
            if (bits(pointer, 63, 1))
                bind(address, pointer);
            else
                rebase(address, pointer);
            const std::uint64_t step = bits(pointer, 51, 12);
            if (step == 0) return;
            address += step * stride;
        }
    }

    void rebase(std::uint64_t address, std::uint64_t pointer) {
        const std::uint64_t target = targetBase_ + bits(pointer, 0, 36);
        checkTarget(segments_, target);
        rebases_.push_back({address, target | bits(pointer, 36, 8) << 56});
    }

    void bind(std::uint64_t address, std::uint64_t pointer) {
        const std::uint64_t import = bits(pointer, 0, 24);
        if (import >= imports_.size() || imports_[import].symbol.empty())
            throw FormatError("a chained bind has no symbol");
        Bind bind = imports_[import];
        bind.address = address;
        bind.addend += static_cast<std::int64_t>(bits(pointer, 24, 8));
        binds_.push_back(std::move(bind));
    }

    const std::vector<Segment>& segments_;
    const std::uint64_t base_;
    const std::vector<Bind>& imports_;
    std::uint64_t targetBase_ = 0;
    std::vector<Rebase>& rebases_;
    std::vector<Bind>& binds_;
};

} // namespace

void readChainedFixups(ByteView fixups, const std::vector<Segment>& segments, std::uint64_t base,
                       std::vector<Rebase>& rebases, std::vector<Bind>& binds) {
    const auto header = fixups.record<format::ChainedHeader>(0);
    if (header.version != 0 || header.symbolsFormat != 0 || header.importsFormat < format::importPlain ||
        header.importsFormat > format::importWithAddend64)
        throw FormatError("its chained fixups are of an unknown form");
    const std::vector<Bind> imports = readImports(fixups, header);

    const auto segmentCount = fixups.record<std::uint32_t>(header.startsOffset);
    if (segmentCount > segments.size()) throw FormatError("its chained fixups name too many segments");
    ChainWalk walk(segments, base, imports, rebases, binds);
    for (std::uint32_t i = 0; i < segmentCount; ++i) {
        const auto offset = fixups.record<std::uint32_t>(header.startsOffset + 4 + std::uint64_t{i} * 4);
        if (offset == 0) continue;
        const std::uint64_t at = std::uint64_t{header.startsOffset} + offset;
        walk.walkSegment(segments[i], fixups.part(at, at > fixups.size() ? 0 : fixups.size() - at));
    }
}

} // namespace machost
