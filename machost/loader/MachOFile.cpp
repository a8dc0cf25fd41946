#include "machost/loader/MachOFile.h"

#include "machost/loader/ChainedFixups.h"
#include "machost/loader/FixupOperations.h"

#include <algorithm>

namespace machost {
namespace {

constexpr std::uint64_t pageSize = 4096;
constexpr std::uint64_t highestAddress = std::uint64_t{1} << 46;

// A name in a field of 16 bytes, which it may fill.
std::string fieldText(const char (&field)[16]) { return {field, std::find(field, field + 16, '\0')}; }

bool within(const Segment& segment, const Section& section) {
    const std::uint64_t end = segment.address + segment.memorySize;
    return section.address >= segment.address && section.address <= end &&
           section.size <= end - section.address;
}

bool shareBytes(const ByteView& one, const ByteView& other) {
    return one.data() < other.data() + other.size() && other.data() < one.data() + one.size();
}

} // namespace

MachOFile::MachOFile(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {
    const auto header = file().record<format::Header>(0);
    if (header.magic != format::magic64 || header.cpuType != format::cpuX8664)
        throw FormatError("it is no Mach-O file for x86-64");
    if (header.fileType != format::fileTypeExecute) throw FormatError("it is no executable");
    positionIndependent_ = header.flags & format::flagPositionIndependent;

    readCommands();
    findEntry();
    if (chainedFixups_) {
        const ByteView fixups = file().part(chainedFixups_->dataOffset, chainedFixups_->dataSize);
        readChainedFixups(fixups, segments_, headerAddress_, rebases_, binds_);
    }
    if (dyldInfo_) {
        const auto part = [&](std::uint32_t offset, std::uint32_t size) {
            return size ? file().part(offset, size) : ByteView();
        };
        readRebaseOperations(part(dyldInfo_->rebaseOffset, dyldInfo_->rebaseSize), segments_, rebases_);
        readBindOperations(part(dyldInfo_->bindOffset, dyldInfo_->bindSize), segments_, binds_);
        readLazyBindOperations(part(dyldInfo_->lazyBindOffset, dyldInfo_->lazyBindSize), segments_, binds_);
    }
    const auto known = static_cast<int>(libraries_.size());
    for (const Bind& bind : binds_) {
        if (bind.ordinal > known || bind.ordinal < Bind::weakOrdinal)
            throw FormatError(bind.symbol + " is bound to a library that the file does not name");
    }
}

void MachOFile::readCommands() {
    const auto header = file().record<format::Header>(0);
    const ByteView commands = file().part(sizeof header, header.commandsSize);
    std::uint64_t offset = 0;
    for (std::uint32_t i = 0; i < header.commandCount; ++i) {
        const auto command = commands.record<format::Command>(offset);
        if (command.size < sizeof command) throw FormatError("a load command has no size");
        const ByteView bytes = commands.part(offset, command.size);
        offset += command.size;
        switch (command.command) {
            case format::segment64:
                readSegment(bytes);
                break;
            case format::loadDylib:
            case format::loadWeakDylib:
            case format::reexportDylib:
            case format::loadUpwardDylib:
                readLibrary(bytes);
                break;
            case format::mainEntry:
                entryOffset_ = bytes.record<format::EntryCommand>(0).fileOffset;
                break;
            case format::dyldInfo:
            case format::dyldInfoOnly:
                dyldInfo_ = bytes.record<format::DyldInfoCommand>(0);
                break;
            case format::dyldChainedFixups:
                chainedFixups_ = bytes.record<format::LinkeditCommand>(0);
                break;
            case format::runPath:
            case format::dyldExportsTrie:
                break;
            default:
                if (command.command & format::required)
                    throw FormatError("it has a load command that is not known");
        }
    }
}

void MachOFile::readSegment(const ByteView& bytes) {
    const auto command = bytes.record<format::SegmentCommand>(0);
    Segment segment;
    segment.name = fieldText(command.name);
    segment.address = command.address;
    segment.memorySize = command.memorySize;
    segment.protection = command.initialProtection;
    segment.readOnlyAfterFixups = command.flags & format::segmentReadOnlyAfterFixups;
    if (segment.address % pageSize || segment.memorySize > highestAddress ||
        segment.address > highestAddress - segment.memorySize)
        throw FormatError("segment " + segment.name + " lies outside memory");
    if (command.fileSize > command.memorySize)
        throw FormatError("segment " + segment.name + " has more bytes than memory");
    if (command.fileSize) segment.content = file().part(command.fileOffset, command.fileSize);
    for (const Segment& other : segments_) {
        if (segment.address < other.address + other.memorySize &&
            other.address < segment.address + segment.memorySize)
            throw FormatError("segments " + other.name + " and " + segment.name + " overlap");
        if (shareBytes(segment.content, other.content))
            throw FormatError("segments " + other.name + " and " + segment.name + " share bytes");
    }

    std::uint64_t offset = sizeof command;
    for (std::uint32_t i = 0; i < command.sectionCount; ++i, offset += sizeof(format::SectionRecord)) {
        const auto record = bytes.record<format::SectionRecord>(offset);
        Section section;
        section.name = fieldText(record.name);
        section.address = record.address;
        section.size = record.size;
        section.type = static_cast<std::uint8_t>(record.flags);
        section.alignment = static_cast<std::uint8_t>(std::min<std::uint32_t>(record.alignment, 255));
        if (!within(segment, section))
            throw FormatError("section " + section.name + " lies outside its segment");
        if (section.alignment > 12) throw FormatError("section " + section.name + " is aligned too coarsely");
        segment.sections.push_back(section);
    }
    segments_.push_back(std::move(segment));
}

void MachOFile::readLibrary(const ByteView& bytes) {
    libraries_.push_back(bytes.text(bytes.record<format::DylibCommand>(0).nameOffset));
}

void MachOFile::findEntry() {
    const auto text = std::find_if(segments_.begin(), segments_.end(),
                                   [](const Segment& segment) { return segment.name == "__TEXT"; });
    if (text == segments_.end()) throw FormatError("it has no code");
    headerAddress_ = text->address;
    if (!entryOffset_) throw FormatError("it names no main function");
    if (*entryOffset_ >= text->content.size() || !(text->protection & format::protectionExecute))
        throw FormatError("its main function lies outside its code");
    entry_ = text->address + *entryOffset_;
}

bool MachOFile::allows(std::uint64_t address, std::uint64_t size, std::int32_t protection) const {
    return std::any_of(segments_.begin(), segments_.end(), [&](const Segment& segment) {
        const std::int32_t lost = segment.readOnlyAfterFixups ? format::protectionWrite : 0;
        return (segment.protection & ~lost & protection) == protection && address >= segment.address &&
               size <= segment.memorySize && address - segment.address <= segment.memorySize - size;
    });
}

std::vector<const Section*> MachOFile::sectionsOfType(std::uint8_t type) const {
    std::vector<const Section*> found;
    for (const Segment& segment : segments_)
        for (const Section& section : segment.sections)
            if (section.type == type) found.push_back(&section);
    return found;
}

const Section* MachOFile::section(const std::string& segmentName, const std::string& name) const {
    for (const Segment& segment : segments_)
        for (const Section& section : segment.sections)
            if (segment.name == segmentName && section.name == name) return &section;
    return nullptr;
}

ByteView MachOFile::content(const Section& section) const {
    for (const Segment& segment : segments_)
        if (within(segment, section) && segment.content.size())
            return segment.content.part(section.address - segment.address, section.size);
    throw FormatError("section " + section.name + " has no bytes");
}

} // namespace machost
