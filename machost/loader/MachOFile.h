#pragma once

// An x86-64 Mach-O executable as bytes: what is to be mapped where, and what is to be written into it before it
// runs. Pure: nothing is mapped. A file that is damaged, or is no such executable, makes the constructor throw
// FormatError; whatever a file object answers has been checked against the file and its segments. Any thread.

#include "machost/loader/ByteView.h"
#include "machost/loader/MachOFormat.h"

#include <optional>
#include <string>
#include <vector>

namespace machost {

struct Section {
    std::string name;
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    std::uint8_t type = 0;      // a format::SectionType, or one that the loader does not look at
    std::uint8_t alignment = 0; // as a power of two
};

struct Segment {
    std::string name;
    std::uint64_t address = 0;
    std::uint64_t memorySize = 0;
    ByteView content; // from the start of the segment; what it lacks of the memory is zero
    std::int32_t protection = 0;
    bool readOnlyAfterFixups = false;
    std::vector<Section> sections;
};

// A pointer into the file's own memory, which moves with it.
struct Rebase {
    std::uint64_t address = 0; // where the pointer lies
    std::uint64_t target = 0;  // what it points at
};

// A pointer to something of a library.
struct Bind {
    static constexpr int ownOrdinal = 0, mainOrdinal = -1, flatOrdinal = -2, weakOrdinal = -3;

    std::uint64_t address = 0; // where the pointer lies
    int ordinal = 0;           // the library by its position, from 1, or one of the above
    std::string symbol;
    std::int64_t addend = 0;
    bool weakImport = false; // null where the library lacks the symbol
};

class MachOFile {
public:
    explicit MachOFile(std::vector<std::uint8_t> bytes);

    MachOFile(const MachOFile&) = delete;
    MachOFile& operator=(const MachOFile&) = delete;

    const std::vector<Segment>& segments() const { return segments_; }
    const std::vector<std::string>& libraries() const { return libraries_; }
    const std::vector<Rebase>& rebases() const { return rebases_; }
    const std::vector<Bind>& binds() const { return binds_; }

    // Address of `main`, and of the header, from which compact tables count.
    std::uint64_t entry() const { return entry_; }
    std::uint64_t headerAddress() const { return headerAddress_; }

    bool positionIndependent() const { return positionIndependent_; }

    // Whether that many bytes from the address on lie in one segment that the program may use in all these ways once
    // it runs: bits of format::protection….
    bool allows(std::uint64_t address, std::uint64_t size, std::int32_t protection) const;

    // Sections of that type, or the one of that name; null where there is none.
    std::vector<const Section*> sectionsOfType(std::uint8_t type) const;
    const Section* section(const std::string& segment, const std::string& name) const;

    // The bytes of a section as the file has them.
    ByteView content(const Section& section) const;

private:
    void readCommands();
    void readSegment(const ByteView& command);
    void readLibrary(const ByteView& command);
    void findEntry();
    ByteView file() const { return {bytes_.data(), bytes_.size()}; }

    std::vector<std::uint8_t> bytes_;
    std::vector<Segment> segments_;
    std::vector<std::string> libraries_;
    std::vector<Rebase> rebases_;
    std::vector<Bind> binds_;
    std::optional<std::uint64_t> entryOffset_;
    std::optional<format::DyldInfoCommand> dyldInfo_;
    std::optional<format::LinkeditCommand> chainedFixups_;
    std::uint64_t entry_ = 0;
    std::uint64_t headerAddress_ = 0;
    bool positionIndependent_ = false;
};

} // namespace machost
