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

std::string segment(const std::string& called, std::uint64_t address, std::uint64_t offset,
                    std::uint64_t size, int protection) {
    return raw<std::uint32_t>(0x19) + raw<std::uint32_t>(72) + name(called) + raw(address) +
           raw<std::uint64_t>(pageSize) + raw(offset) + raw(size) + raw(protection) + raw(protection) +
           raw<std::uint32_t>(0) + raw<std::uint32_t>(0);
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
    std::string commands = segment("__TEXT", textAddress, 0, pageSize, 5) +
                           segment("__DATA", dataAddress, pageSize, pageSize, 3) +
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
    file += data_ + tables;
    return {file.begin(), file.end()};
}

} // namespace testsupport
