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

    // Records of the image that other parts of the loader go by, from that address of the file's on. Throws FormatError
    // unless all of them lie in one segment that may be used so.
    template <class Record>
    Record* records(std::uint64_t address, std::uint64_t count = 1,
                    std::int32_t protection = format::protectionRead) const {
        // NOLINTNEXTLINE(bugprone-sizeof-expression): a record may be a pointer
        require(address, sizeof(Record), count, protection);
        return at<Record>(address);
    }

    // The same from where a pointer of the image's own points.
    template <class Record>
    Record* pointed(Record* pointer, std::uint64_t count = 1,
                    std::int32_t protection = format::protectionRead) const {
        require(reinterpret_cast<std::uint64_t>(pointer) - slide_, sizeof(Record), count, protection);
        return pointer;
    }

    // A text that a pointer points at; throws FormatError where it or its end lies outside.
    const char* text(const char* pointer) const;

    // The bytes from the header on up to where they cannot be read.
    ByteView readable() const;

private:
    void require(std::uint64_t address, std::uint64_t size, std::uint64_t count,
                 std::int32_t protection) const;
    void map();
    void fill() const;
    void fixUp(const Resolver& resolve) const;
    void protect() const;

    const MachOFile& file_;
    std::uint64_t slide_ = 0;
};

} // namespace machost
