// The reader of Mach-O files: whatever a file object answers lies in its segments.

#include "machost/loader/MachOFile.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using machost::MachOFile;

bool isInside(const MachOFile& file, std::uint64_t address, std::uint64_t size) {
    const auto& segments = file.segments();
    return std::any_of(segments.begin(), segments.end(), [&](const machost::Segment& segment) {
        return address >= segment.address && segment.memorySize >= size &&
               address - segment.address <= segment.memorySize - size;
    });
}

void require(bool kept) {
    if (!kept) std::abort();
}

// The bytes that the file has of a section, which may be none.
std::uint64_t bytesOf(const MachOFile& file, const machost::Section& section) {
    try {
        return file.content(section).size();
    } catch (const machost::FormatError&) {
        return 0;
    }
}

void lookAt(const MachOFile& file, std::size_t size) {
    for (const machost::Rebase& rebase : file.rebases())
        require(isInside(file, rebase.address, 8));
    for (const machost::Bind& bind : file.binds()) {
        require(isInside(file, bind.address, 8) && !bind.symbol.empty());
        require(bind.ordinal <= static_cast<int>(file.libraries().size()));
    }
    require(file.rebases().size() <= 2 * size && file.binds().size() <= 2 * size);
    for (const machost::Segment& segment : file.segments()) {
        require(segment.content.size() <= segment.memorySize);
        for (const machost::Section& section : segment.sections) {
            require(section.size == 0 || isInside(file, section.address, section.size));
            require(bytesOf(file, section) <= section.size);
        }
    }
    require(isInside(file, file.entry(), 1) && isInside(file, file.headerAddress(), 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        lookAt(MachOFile({data, data + size}), size);
    } catch (const machost::FormatError&) {
    }
    return 0;
}
