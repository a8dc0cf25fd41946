#pragma once

// A Mach-O executable in this process's memory: mapped, its pointers moved and bound, protected as it asks, ready to
// run. It lies at its own address where that is free, elsewhere if it can be moved. It is never unmapped. Made on
// the main thread, before any other runs.

#include "machost/loader/MachOFile.h"

#include <functional>

namespace machost {

class Image {
public:
    // What a bind is bound to; the second argument is the library's path, empty for a flat look-up.
    using Resolver = std::function<std::uint64_t(const Bind& bind, const std::string& library)>;

    // Throws FormatError for a file that cannot be mapped.
    Image(const MachOFile& file, const Resolver& resolve);

    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    const MachOFile& file() const { return file_; }

    // Where something of the file lies now, by the address that the file gives it.
    std::uint64_t here(std::uint64_t address) const { return address + slide_; }

    template <class Record>
    Record* at(std::uint64_t address) const {
        return reinterpret_cast<Record*>(here(address));
    }

private:
    void map();
    void fill() const;
    void fixUp(const Resolver& resolve) const;
    void protect() const;

    const MachOFile& file_;
    std::uint64_t slide_ = 0;
};

} // namespace machost
