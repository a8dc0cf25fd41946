#pragma once

// Records and numbers of the Mach-O format for 64-bit files, as <mach-o/loader.h> and <mach-o/fixup-chains.h> of
// Apple's cctools and dyld have them. Numbers are little-endian on disk.

#include <cstddef>
#include <cstdint>

namespace machost::format {

constexpr std::uint32_t magic64 = 0xfeedfacf;
constexpr std::uint32_t cpuX8664 = 0x01000007;
constexpr std::uint32_t fileTypeExecute = 2;
constexpr std::uint32_t flagPositionIndependent = 0x200000;

struct Header {
    std::uint32_t magic, cpuType, cpuSubtype, fileType, commandCount, commandsSize, flags, reserved;
};
static_assert(sizeof(Header) == 32);

struct Command {
    std::uint32_t command, size;
};
static_assert(sizeof(Command) == 8);

// Kinds of load commands; `required` marks those that a loader must know.
constexpr std::uint32_t required = 0x80000000;
constexpr std::uint32_t loadDylib = 0xc;
constexpr std::uint32_t loadWeakDylib = 0x18 | required;
constexpr std::uint32_t segment64 = 0x19;
constexpr std::uint32_t reexportDylib = 0x1f | required;
constexpr std::uint32_t dyldInfo = 0x22;
constexpr std::uint32_t dyldInfoOnly = 0x22 | required;
constexpr std::uint32_t loadUpwardDylib = 0x23 | required;
constexpr std::uint32_t runPath = 0x1c | required;
constexpr std::uint32_t mainEntry = 0x28 | required;
constexpr std::uint32_t dyldExportsTrie = 0x33 | required;
constexpr std::uint32_t dyldChainedFixups = 0x34 | required;

struct SegmentCommand {
    std::uint32_t command, size;
    char name[16];
    std::uint64_t address, memorySize, fileOffset, fileSize;
    std::int32_t maximumProtection, initialProtection;
    std::uint32_t sectionCount, flags;
};
static_assert(sizeof(SegmentCommand) == 72 && offsetof(SegmentCommand, address) == 24);

constexpr std::int32_t protectionRead = 1, protectionWrite = 2, protectionExecute = 4;
constexpr std::uint32_t segmentReadOnlyAfterFixups = 0x10;

struct SectionRecord {
    char name[16], segment[16];
    std::uint64_t address, size;
    std::uint32_t fileOffset, alignment, relocations, relocationCount, flags, reserved1, reserved2, reserved3;
};
static_assert(sizeof(SectionRecord) == 80 && offsetof(SectionRecord, address) == 32);

// The low byte of a section's flags.
enum SectionType : std::uint8_t {
    initialiserPointers = 0x9,
    threadLocalRegular = 0x11,
    threadLocalZeroFill = 0x12,
    threadLocalVariables = 0x13,
    initialiserOffsets = 0x16,
};

struct DylibCommand {
    std::uint32_t command, size, nameOffset, timestamp, currentVersion, compatibilityVersion;
};
static_assert(sizeof(DylibCommand) == 24);

struct DyldInfoCommand {
    std::uint32_t command, size, rebaseOffset, rebaseSize, bindOffset, bindSize, weakBindOffset, weakBindSize,
        lazyBindOffset, lazyBindSize, exportOffset, exportSize;
};
static_assert(sizeof(DyldInfoCommand) == 48);

struct EntryCommand {
    std::uint32_t command, size;
    std::uint64_t fileOffset, stackSize;
};
static_assert(sizeof(EntryCommand) == 24);

struct LinkeditCommand {
    std::uint32_t command, size, dataOffset, dataSize;
};
static_assert(sizeof(LinkeditCommand) == 16);

// Rebase and bind opcodes: the operation in the high half of a byte, an operand in the low one.
enum RebaseOperation : std::uint8_t {
    rebaseDone = 0x00,
    rebaseSetType = 0x10,
    rebaseSetSegmentAndOffset = 0x20,
    rebaseAddAddress = 0x30,
    rebaseAddAddressScaled = 0x40,
    rebaseTimes = 0x50,
    rebaseManyTimes = 0x60,
    rebaseAddingAddress = 0x70,
    rebaseManyTimesSkipping = 0x80,
};

enum BindOperation : std::uint8_t {
    bindDone = 0x00,
    bindSetOrdinal = 0x10,
    bindSetOrdinalNumber = 0x20,
    bindSetSpecialOrdinal = 0x30,
    bindSetSymbol = 0x40,
    bindSetType = 0x50,
    bindSetAddend = 0x60,
    bindSetSegmentAndOffset = 0x70,
    bindAddAddress = 0x80,
    bindOnce = 0x90,
    bindAddingAddress = 0xa0,
    bindAddingAddressScaled = 0xb0,
    bindManyTimesSkipping = 0xc0,
};

constexpr std::uint8_t pointerType = 1; // the one type of rebases and binds on this processor
constexpr std::uint8_t weakImportFlag = 1;

struct ChainedHeader {
    std::uint32_t version, startsOffset, importsOffset, symbolsOffset, importCount, importsFormat,
        symbolsFormat;
};
static_assert(sizeof(ChainedHeader) == 28);

struct ChainedSegment {
    std::uint32_t size;
    std::uint16_t pageSize, pointerFormat;
    std::uint64_t segmentOffset;
    std::uint32_t highestPointer;
    std::uint16_t pageCount;
} __attribute__((packed));
static_assert(sizeof(ChainedSegment) == 22 && offsetof(ChainedSegment, pageCount) == 20);

constexpr std::uint16_t chainNone = 0xffff;
constexpr std::uint16_t pointerByAddress = 2, pointerByOffset = 6;
constexpr std::uint32_t importPlain = 1, importWithAddend = 2, importWithAddend64 = 3;

} // namespace machost::format
