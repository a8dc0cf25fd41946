#pragma once

// Builds small Mach-O executables as bytes: a segment of code at 0x100000000 that begins with the header, a segment
// of data a page behind it, and the tables of fixups. A test may change any byte of the result.

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

class MachOBuilder {
public:
    static constexpr std::uint64_t textAddress = 0x100000000, dataAddress = 0x100001000;
    static constexpr std::uint64_t codeOffset = 0x800;
    static constexpr int textSegment = 0, dataSegment = 1;

    // Operations of LC_DYLD_INFO, each text of bytes behind the earlier ones.
    MachOBuilder& rebases(const std::string& operations) { return add(rebases_, operations); }
    MachOBuilder& binds(const std::string& operations) { return add(binds_, operations); }
    MachOBuilder& lazyBinds(const std::string& operations) { return add(lazyBinds_, operations); }

    // The content of LC_DYLD_CHAINED_FIXUPS, in place of LC_DYLD_INFO.
    MachOBuilder& chainedFixups(const std::string& content) { return add(chained_, content); }

    MachOBuilder& code(const std::string& bytes) { return add(code_, bytes); }
    MachOBuilder& library(const std::string& path);

    // A pointer in the data segment, as the file has it.
    MachOBuilder& pointer(std::uint64_t offset, std::uint64_t value);

    // A section of one of the two segments, which begins at the offset into it.
    MachOBuilder& section(int segment, const std::string& name, std::uint32_t type, std::uint64_t offset,
                          std::uint64_t size);

    // What the code segment may be used for at first, in place of reading and executing.
    MachOBuilder& codeProtection(int protection) {
        codeProtection_ = protection;
        return *this;
    }

    // How much memory the data segment takes, of which the file fills a page.
    MachOBuilder& dataMemory(std::uint64_t size) {
        dataMemory_ = size;
        return *this;
    }

    // Bytes of the code segment behind its header, anywhere that `code` leaves free.
    MachOBuilder& text(std::uint64_t offset, const std::string& bytes);

    // A load command that no loader knows, which it must or need not.
    MachOBuilder& unknownCommand(bool required);

    std::vector<std::uint8_t> bytes() const;

private:
    struct Part {
        std::uint64_t offset;
        std::string bytes;
    };

    std::string segment(int number, const std::string& called, std::uint64_t address, std::uint64_t offset,
                        std::uint64_t memory, int protection) const;

    MachOBuilder& add(std::string& to, const std::string& bytes) {
        to += bytes;
        return *this;
    }

    std::string rebases_, binds_, lazyBinds_, chained_, code_;
    std::string data_ = std::string(0x1000, '\0');
    std::vector<std::string> libraries_;
    std::vector<Part> parts_;
    std::string sections_[2];
    int codeProtection_ = 5;
    std::uint64_t dataMemory_ = 0x1000;
    std::string more_;
    int moreCount_ = 0;
};

// A value's bytes, lowest first.
template <class Value>
std::string raw(Value value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

} // namespace testsupport
