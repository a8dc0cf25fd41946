#include "support/MachOBuilder.h"

#include <cstring>

namespace testsupport {
namespace {

constexpr std::uint32_t pageSize = 0x1000;

std::string name(const std::string& text) {
    std::string field = text;
    field.resize(16, '\0');
    return field;
}

std::string filledUp(std::string command) {
    command.resize((command.size() + 7) / 8 * 8, '\0');
    return command;
}

} // namespace

MachOBuilder& MachOBuilder::library(const std::string& path) {
    libraries_.push_back(path);
    return *this;
}

MachOBuilder& MachOBuilder::pointer(std::uint64_t offset, std::uint64_t value) {
    std::memcpy(data_.data() + offset, &value, sizeof value);
    return *this;
}

MachOBuilder& MachOBuilder::section(int segment, const std::string& called, std::uint32_t type,
                                    std::uint64_t offset, std::uint64_t size) {
    const std::uint64_t start = segment == textSegment ? textAddress : dataAddress;
    const auto inFile = static_cast<std::uint32_t>(start - textAddress + offset);
    sections_[segment] += name(called) + name(segment == textSegment ? "__TEXT" : "__DATA") +
                          raw(start + offset) + raw(size) + raw(inFile) + std::string(12, '\0') + raw(type) +
                          std::string(12, '\0');
    return *this;
}

MachOBuilder& MachOBuilder::text(std::uint64_t offset, const std::string& bytes) {
    parts_.push_back({offset, bytes});
    return *this;
}

// With the sections behind it, which have 80 bytes each.
std::string MachOBuilder::segment(int number, const std::string& called, std::uint64_t address,
                                  std::uint64_t offset, std::uint64_t memory, int protection) const {
    const auto size = static_cast<std::uint32_t>(sections_[number].size());
    return raw<std::uint32_t>(0x19) + raw<std::uint32_t>(72 + size) + name(called) + raw(address) +
           raw(memory) + raw(offset) + raw<std::uint64_t>(pageSize) + raw(protection) + raw(protection) +
           raw<std::uint32_t>(size / 80) + raw<std::uint32_t>(0) + sections_[number];
}

MachOBuilder& MachOBuilder::unknownCommand(bool required) {
    more_ += raw<std::uint32_t>(0x7f | (required ? 0x80000000 : 0)) + raw<std::uint32_t>(8);
    ++moreCount_;
    return *this;
}

std::vector<std::uint8_t> MachOBuilder::bytes() const {
    std::string tables;
    const auto place = [&](const std::string& table) {
        const auto offset = static_cast<std::uint32_t>(2 * pageSize + tables.size());
        tables += table;
        return raw(offset) + raw(static_cast<std::uint32_t>(table.size()));
    };
    std::string commands = segment(textSegment, "__TEXT", textAddress, 0, pageSize, codeProtection_) +
                           segment(dataSegment, "__DATA", dataAddress, pageSize, dataMemory_, 3) +
                           raw<std::uint32_t>(0x80000028) + raw<std::uint32_t>(24) + raw(codeOffset) +
                           raw<std::uint64_t>(0);
    std::uint32_t count = 4;
    if (chained_.empty()) {
        commands += raw<std::uint32_t>(0x80000022) + raw<std::uint32_t>(48) + place(rebases_) +
                    place(binds_) + raw<std::uint64_t>(0) + place(lazyBinds_) + raw<std::uint64_t>(0);
    } else {
        commands += raw<std::uint32_t>(0x80000034) + raw<std::uint32_t>(16) + place(chained_);
    }
    for (const std::string& path : libraries_) {
        const std::string text = filledUp(path + '\0');
        commands += raw<std::uint32_t>(0xc) + raw(static_cast<std::uint32_t>(24 + text.size())) +
                    raw<std::uint32_t>(24) + std::string(12, '\0') + text;
        ++count;
    }
    commands += more_;
    count += static_cast<std::uint32_t>(moreCount_);

    std::string file = raw<std::uint32_t>(0xfeedfacf) + raw<std::uint32_t>(0x01000007) +
                       raw<std::uint32_t>(3) + raw<std::uint32_t>(2) + raw(count) +
                       raw(static_cast<std::uint32_t>(commands.size())) + raw<std::uint32_t>(0x200000) +
                       raw<std::uint32_t>(0) + commands;
    file.resize(codeOffset, '\0');
    file += code_;
    file.resize(pageSize, '\0');
    for (const Part& part : parts_)
        file.replace(part.offset, part.bytes.size(), part.bytes);
    file += data_ + tables;
    return {file.begin(), file.end()};
}

} // namespace testsupport
