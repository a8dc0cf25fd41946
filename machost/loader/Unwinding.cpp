#include "machost/loader/Unwinding.h"

#include "machost/loader/CompactUnwind.h"

#include <map>

extern "C" void __register_frame(void* descriptions); // of this system's unwinder

namespace machost {
namespace {

constexpr int stackPointer = 7, basePointer = 6, returnAddress = 16;

// Writes descriptions as the section .eh_frame has them.
class FrameWriter {
public:
    explicit FrameWriter(std::uint64_t header) : header_(header) {}

    void add(const UnwindEntry& entry, std::uint64_t personality, const FrameLayout& layout) {
        const std::size_t common = commonEntry(personality);
        const std::size_t start = begin();
        put<std::uint32_t>(static_cast<std::uint32_t>(bytes_.size() - common));
        put<std::uint64_t>(header_ + entry.start);
        put<std::uint64_t>(entry.end - entry.start);
        putNumber(personality ? 8 : 0);
        if (personality) put<std::uint64_t>(entry.handlerData ? header_ + entry.handlerData : 0);
        if (layout.kind == FrameLayout::basePointer) {
            putFrame(basePointer, 16);
            putSaved(basePointer, 16);
        } else {
            putFrame(stackPointer, layout.size);
        }
        for (const FrameLayout::Saved& saved : layout.saved)
            putSaved(saved.registerNumber, saved.below);
        finish(start);
    }

    std::vector<std::uint8_t> result() {
        put<std::uint32_t>(0);
        return std::move(bytes_);
    }

private:
    // What the descriptions of functions with the same handler have in common; made when it is first asked for.
    std::size_t commonEntry(std::uint64_t personality) {
        const auto known = commonEntries_.find(personality);
        if (known != commonEntries_.end()) return known->second;
        const std::size_t start = begin();
        put<std::uint32_t>(0);
        put<std::uint8_t>(1);
        for (const char letter : std::string(personality ? "zPLR" : "zR"))
            put(letter);
        put<char>('\0');
        putNumber(1);            // code counts in bytes,
        put<std::uint8_t>(0x78); // saved registers in eights downwards
        put<std::uint8_t>(returnAddress);
        constexpr std::uint8_t absolute = 0;
        putNumber(personality ? 11 : 1);
        if (personality) {
            put(absolute);
            put(personality);
            put(absolute);
        }
        put(absolute);
        putFrame(stackPointer, 8);
        putSaved(returnAddress, 8);
        finish(start);
        commonEntries_[personality] = start;
        return start;
    }

    void putFrame(int registerNumber, std::uint64_t offset) {
        put<std::uint8_t>(0x0c);
        putNumber(static_cast<std::uint64_t>(registerNumber));
        putNumber(offset);
    }

    void putSaved(int registerNumber, unsigned below) {
        put(static_cast<std::uint8_t>(0x80 | registerNumber));
        putNumber(below / 8);
    }

    std::size_t begin() {
        const std::size_t start = bytes_.size();
        put<std::uint32_t>(0);
        return start;
    }

    // Fills up with no-operations, and writes the length in front.
    void finish(std::size_t start) {
        while ((bytes_.size() - start) % 8 != 0)
            put<std::uint8_t>(0);
        const auto length = static_cast<std::uint32_t>(bytes_.size() - start - 4);
        std::memcpy(bytes_.data() + start, &length, sizeof length);
    }

    template <class Value>
    void put(Value value) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
        bytes_.insert(bytes_.end(), bytes, bytes + sizeof value);
    }

    void putNumber(std::uint64_t value) {
        do {
            const auto part = static_cast<std::uint8_t>(value & 0x7f);
            value >>= 7;
            put<std::uint8_t>(value ? part | 0x80 : part);
        } while (value);
    }

    const std::uint64_t header_;
    std::vector<std::uint8_t> bytes_;
    std::map<std::uint64_t, std::size_t> commonEntries_;
};

// The lengths of the descriptions, and the distances to what those of functions have in common, stay in the section.
void checkFrames(ByteView frames) {
    for (std::uint64_t at = 0; at < frames.size();) {
        constexpr std::uint64_t word = sizeof(std::uint32_t);
        const std::uint64_t length = frames.size() - at < word ? ~0u : frames.record<std::uint32_t>(at);
        if (length == 0) return;
        const std::uint64_t left = frames.size() - at - word;
        if (length < word || length > left || frames.record<std::uint32_t>(at + word) > at + word)
            throw FormatError("its frame descriptions leave their section");
        at += word + length;
    }
}

} // namespace

std::vector<std::uint8_t> frameDescriptions(ByteView compactTable, ByteView memory, std::uint64_t header) {
    FrameWriter writer(header);
    for (const UnwindEntry& entry : readCompactUnwind(compactTable)) {
        FrameLayout layout = decodeFrame(entry.encoding);
        if (layout.kind == FrameLayout::unknown || layout.kind == FrameLayout::dwarf) continue;
        if (entry.end <= entry.start) throw FormatError("its unwind table has a function without an end");
        if (layout.kind == FrameLayout::sizeInCode)
            layout.size =
                memory.record<std::uint32_t>(std::uint64_t{entry.start} + layout.sizeAt) + layout.adjustment;
        writer.add(entry, entry.personality ? memory.record<std::uint64_t>(entry.personality) : 0, layout);
    }
    return writer.result();
}

void installUnwinding(const Image& image) {
    const MachOFile& file = image.file();
    if (const Section* table = file.section("__TEXT", "__unwind_info")) {
        // The unwinder keeps what it is given.
        auto* descriptions = new std::vector<std::uint8_t>(
            frameDescriptions(file.content(*table), image.readable(), image.here(file.headerAddress())));
        __register_frame(descriptions->data());
    }
    if (const Section* frames = file.section("__TEXT", "__eh_frame")) {
        // The descriptions end with a word of zero, which the file leaves to the room behind the section.
        const auto* bytes =
            image.records<std::uint8_t>(frames->address, frames->size + sizeof(std::uint32_t));
        const ByteView view(bytes, frames->size + sizeof(std::uint32_t));
        const Section* behind = nullptr;
        for (const Segment& segment : file.segments())
            for (const Section& section : segment.sections)
                if (section.address == frames->address + frames->size) behind = &section;
        if (behind || view.record<std::uint32_t>(frames->size) != 0)
            throw FormatError("its frame descriptions have no end");
        checkFrames(view.part(0, frames->size));
        if (frames->size) __register_frame(image.at<void>(frames->address));
    }
}

} // namespace machost
