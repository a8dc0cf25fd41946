// The reader of Mach-O files, on whole and on damaged ones.

#include "machost/loader/MachOFile.h"
#include "support/MachOBuilder.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using machost::Bind;
using machost::FormatError;
using machost::MachOFile;
using testsupport::MachOBuilder;
using testsupport::raw;
using namespace std::string_literals;

constexpr std::uint64_t data = MachOBuilder::dataAddress;

// The text of the fault that the file is refused for; empty when it is not.
std::string faultOf(const std::vector<std::uint8_t>& bytes) {
    try {
        const MachOFile file(bytes);
        return "";
    } catch (const FormatError& error) {
        return error.what();
    }
}

// An operation that puts the next pointer at an offset below 128 of the data segment.
std::string at(char offset, char operation) {
    return {static_cast<char>(operation | MachOBuilder::dataSegment), offset};
}

std::string bindTo(const std::string& symbol, char offset, char ordinal = 1) {
    return std::string{static_cast<char>(0x10 | ordinal), 0x40} + symbol + "\0\x51"s + at(offset, 0x70) +
           "\x90";
}

TEST(MachOFile, TellsSegmentsLibrariesAndTheEntry) {
    const MachOFile file(MachOBuilder().library("/usr/lib/libSystem.B.dylib").bytes());
    ASSERT_EQ(file.segments().size(), 2u);
    EXPECT_EQ(file.segments()[0].name, "__TEXT");
    EXPECT_EQ(file.segments()[1].address, data);
    EXPECT_EQ(file.libraries(), std::vector<std::string>{"/usr/lib/libSystem.B.dylib"});
    EXPECT_EQ(file.entry(), MachOBuilder::textAddress + MachOBuilder::codeOffset);
    EXPECT_TRUE(file.positionIndependent());
}

TEST(MachOFile, ReadsARebaseWithThePointerThatTheFileHas) {
    const MachOFile file(
        MachOBuilder().pointer(8, data + 16).rebases("\x11" + at(8, 0x20) + "\x51"s + '\0').bytes());
    ASSERT_EQ(file.rebases().size(), 1u);
    EXPECT_EQ(file.rebases()[0].address, data + 8);
    EXPECT_EQ(file.rebases()[0].target, data + 16);
}

TEST(MachOFile, ReadsARunOfRebasesWithAStepBetween) {
    MachOBuilder builder;
    for (const std::uint64_t offset : {0u, 24u, 48u})
        builder.pointer(offset, data);
    const MachOFile file(builder.rebases("\x11" + at(0, 0x20) + "\x80\x03\x10"s).bytes());
    ASSERT_EQ(file.rebases().size(), 3u);
    EXPECT_EQ(file.rebases()[2].address, data + 48);
}

TEST(MachOFile, ReadsABindWithItsLibraryAndAddend) {
    const MachOFile file(
        MachOBuilder().library("/a").binds("\x11\x60\x7e\x40_name\0\x51"s + at(16, 0x70) + "\x90"s).bytes());
    ASSERT_EQ(file.binds().size(), 1u);
    const Bind& bind = file.binds()[0];
    EXPECT_EQ(bind.symbol, "_name");
    EXPECT_EQ(bind.address, data + 16);
    EXPECT_EQ(bind.ordinal, 1);
    EXPECT_EQ(bind.addend, -2);
    EXPECT_FALSE(bind.weakImport);
}

TEST(MachOFile, ReadsLazyBindsBehindTheEndOfTheOneBefore) {
    const MachOFile file(
        MachOBuilder().library("/a").lazyBinds(bindTo("_one", 0) + '\0' + bindTo("_two", 8) + '\0').bytes());
    ASSERT_EQ(file.binds().size(), 2u);
    EXPECT_EQ(file.binds()[1].symbol, "_two");
}

TEST(MachOFile, TakesTheSpecialOrdinalOfAFlatLookup) {
    const MachOFile file(MachOBuilder().binds("\x3e\x41_any\0\x51"s + at(0, 0x70) + "\x90"s).bytes());
    ASSERT_EQ(file.binds().size(), 1u);
    EXPECT_EQ(file.binds()[0].ordinal, Bind::flatOrdinal);
    EXPECT_TRUE(file.binds()[0].weakImport);
}

TEST(MachOFile, PassesOverAnUnknownCommandThatNeedNotBeKnown) {
    EXPECT_EQ(faultOf(MachOBuilder().unknownCommand(false).bytes()), "");
    EXPECT_EQ(faultOf(MachOBuilder().unknownCommand(true).bytes()),
              "it has a load command that is not known");
}

TEST(MachOFile, RefusesWhatIsNoExecutableForThisProcessor) {
    auto bytes = MachOBuilder().bytes();
    bytes[4] = 0x0c;
    EXPECT_EQ(faultOf(bytes), "it is no Mach-O file for x86-64");
    bytes = MachOBuilder().bytes();
    bytes[12] = 6;
    EXPECT_EQ(faultOf(bytes), "it is no executable");
    EXPECT_EQ(faultOf({}), "it ends too early");
}

TEST(MachOFile, RefusesFixupsOutsideWhatCanBeWritten) {
    const std::string text = {static_cast<char>(0x20 | MachOBuilder::textSegment), 0};
    EXPECT_EQ(faultOf(MachOBuilder().rebases("\x11" + text + "\x51").bytes()),
              "a pointer lies where nothing can be written");
    EXPECT_EQ(faultOf(MachOBuilder().rebases("\x11\x25\x01\x51"s).bytes()),
              "a pointer lies in a segment that is not there");
    // The last pointer of the segment would begin four bytes in front of its end.
    EXPECT_EQ(faultOf(MachOBuilder().rebases("\x11\x21\xfc\x1f\x51"s).bytes()),
              "a pointer lies where nothing can be written");
}

TEST(MachOFile, RefusesAPointerThatPointsOutsideTheProgram) {
    EXPECT_EQ(faultOf(MachOBuilder().pointer(0, 0x42).rebases("\x11" + at(0, 0x20) + "\x51"s).bytes()),
              "a pointer points outside the program");
}

TEST(MachOFile, EndsARunOfAnAbsurdLength) {
    const std::string endless = "\x11" + at(0, 0x20) + "\x60\xff\xff\xff\xff\xff\xff\xff\xff\x7f"s;
    MachOBuilder builder;
    for (std::uint64_t offset = 0; offset < 0x1000; offset += 8)
        builder.pointer(offset, data);
    EXPECT_EQ(faultOf(builder.rebases(endless).bytes()), "a pointer lies where nothing can be written");
    const std::string inPlace =
        "\x11" + at(0, 0x20) + "\x80\x7f\xf8\xff\xff\xff\xff\xff\xff\xff\xff\x01"s; // a step of -8
    EXPECT_EQ(faultOf(MachOBuilder().pointer(0, data).rebases(inPlace).bytes()),
              "a run of rebases stays in its place");
}

TEST(MachOFile, RefusesFixupsOfMemoryThatTheFileHasNoBytesFor) {
    const std::string behind = "\x71\x80\x20"s; // offset 0x1000
    EXPECT_EQ(faultOf(MachOBuilder()
                          .library("/a")
                          .dataMemory(0x2000)
                          .binds("\x11\x40_name\0\x51"s + behind + "\x90")
                          .bytes()),
              "a pointer lies where the file has no bytes");
}

TEST(MachOFile, RefusesMoreFixupsThanItHasRoomFor) {
    MachOBuilder pointers;
    std::string rebases = "\x11", binds = "\x11\x40_name\0\x51"s;
    for (std::uint64_t offset = 0; offset < 0x1000; offset += 8)
        pointers.pointer(offset, data);
    for (int i = 0; i < 10; ++i) {
        rebases += at(0, 0x20) + "\x60\x80\x04"; // all 512 pointers
        binds += at(0, 0x70) + "\xc0\x80\x04\0"s;
    }
    EXPECT_EQ(faultOf(pointers.rebases(rebases).bytes()), "it has more fixups than room for them");
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").binds(binds).bytes()),
              "it has more fixups than room for them");
}

TEST(MachOFile, RefusesSegmentsThatShareBytes) {
    auto bytes = MachOBuilder().bytes();
    constexpr std::size_t dataOffsetAt = 32 + 72 + 40;
    ASSERT_EQ(bytes[dataOffsetAt + 1], 0x10);
    bytes[dataOffsetAt + 1] = 0x0f;
    EXPECT_EQ(faultOf(bytes), "segments __TEXT and __DATA share bytes");
}

TEST(MachOFile, RefusesAMainFunctionThatCannotBeExecuted) {
    EXPECT_EQ(faultOf(MachOBuilder().codeProtection(1).bytes()), "its main function lies outside its code");
}

TEST(MachOFile, TellsWhichMemoryMayBeUsedForWhat) {
    const MachOFile file(MachOBuilder().dataMemory(0x2000).bytes());
    constexpr int read = 1, write = 2, execute = 4;
    EXPECT_TRUE(file.allows(MachOBuilder::textAddress, 0x1000, read | execute));
    EXPECT_FALSE(file.allows(MachOBuilder::textAddress, 1, write));
    EXPECT_FALSE(file.allows(MachOBuilder::textAddress, 0x1001, read)); // over two segments
    EXPECT_TRUE(file.allows(data + 0x1fff, 1, read | write));
    EXPECT_FALSE(file.allows(data + 0x1fff, 2, read));
    EXPECT_FALSE(file.allows(data, ~std::uint64_t{0}, read));
    EXPECT_FALSE(file.allows(MachOBuilder::textAddress - 1, 1, read));
}

TEST(MachOFile, RefusesABindWithoutASymbolOrLibrary) {
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").binds("\x11\x51"s + at(0, 0x70) + "\x90"s).bytes()),
              "a bind has no symbol");
    EXPECT_EQ(faultOf(MachOBuilder().binds(bindTo("_name", 0, 2)).bytes()),
              "_name is bound to a library that the file does not name");
    EXPECT_EQ(faultOf(MachOBuilder().binds("\x11\x40_name"s).bytes()), "a text has no end");
}

TEST(MachOFile, ReadsEveryCutOfAFileOrRefusesIt) {
    const auto whole = MachOBuilder().library("/a").binds(bindTo("_name", 0)).bytes();
    for (std::size_t size = 0; size < whole.size(); size += size < 0x400 || size > 0x1ff0 ? 1 : 97)
        faultOf({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
    EXPECT_EQ(faultOf(whole), "");
}

TEST(MachOFile, ReadsOrRefusesAFileWithAnyByteOfItsCommandsChanged) {
    const auto whole = MachOBuilder()
                           .library("/a")
                           .pointer(8, data)
                           .rebases("\x11" + at(8, 0x20) + "\x51"s)
                           .binds(bindTo("_name", 0))
                           .bytes();
    for (std::size_t place = 0; place < 0x200; ++place) {
        for (const std::uint8_t value : {0x00, 0x01, 0x7f, 0x80, 0xff}) {
            auto changed = whole;
            changed[place] = value;
            faultOf(changed);
        }
    }
    EXPECT_EQ(faultOf(whole), "");
}

// Chained fixups of the data segment's one page, with one import; the chain begins at offset 0.
std::string chains(std::uint16_t pointerFormat, std::uint16_t start = 0) {
    const std::string starts = raw<std::uint32_t>(2) + raw<std::uint32_t>(0) + raw<std::uint32_t>(12) +
                               raw<std::uint32_t>(24) + raw<std::uint16_t>(0x1000) + raw(pointerFormat) +
                               raw<std::uint64_t>(0x1000) + raw<std::uint32_t>(0) + raw<std::uint16_t>(1) +
                               raw(start);
    const auto imports = static_cast<std::uint32_t>(28 + starts.size());
    return raw<std::uint32_t>(0) + raw<std::uint32_t>(28) + raw(imports) + raw(imports + 4) +
           raw<std::uint32_t>(1) + raw<std::uint32_t>(1) + raw<std::uint32_t>(0) + starts +
           raw<std::uint32_t>(1 | 1u << 9) + "\0_name\0"s;
}

TEST(ChainedFixups, GoFromPointerToPointer) {
    constexpr std::uint64_t next = std::uint64_t{4} << 51, bind = std::uint64_t{1} << 63;
    const auto bytes = MachOBuilder()
                           .library("/a")
                           .pointer(0, (data + 64) | next)
                           .pointer(16, bind | std::uint64_t{7} << 24)
                           .chainedFixups(chains(2))
                           .bytes();
    const MachOFile file(bytes);
    ASSERT_EQ(file.rebases().size(), 1u);
    EXPECT_EQ(file.rebases()[0].target, data + 64);
    ASSERT_EQ(file.binds().size(), 1u);
    EXPECT_EQ(file.binds()[0].symbol, "_name");
    EXPECT_EQ(file.binds()[0].address, data + 16);
    EXPECT_EQ(file.binds()[0].addend, 7);
}

TEST(ChainedFixups, CountOffsetsFromTheHeader) {
    const MachOFile file(MachOBuilder().library("/a").pointer(0, 0x1040).chainedFixups(chains(6)).bytes());
    ASSERT_EQ(file.rebases().size(), 1u);
    EXPECT_EQ(file.rebases()[0].target, data + 0x40);
}

TEST(ChainedFixups, EndAtTheEndOfTheirSegment) {
    constexpr std::uint64_t next = std::uint64_t{4095} << 51;
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").pointer(0, data | next).chainedFixups(chains(2)).bytes()),
              "a pointer lies where nothing can be written");
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").pointer(0, ~0ull).chainedFixups(chains(2)).bytes()),
              "a chained bind has no symbol");
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").chainedFixups(chains(3)).bytes()),
              "chained pointers are of an unknown form");
}

TEST(ChainedFixups, ToANamelessSymbolAreRefused) {
    std::string content = chains(2);
    content[content.size() - 6] = '\0';
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").pointer(0, 1ull << 63).chainedFixups(content).bytes()),
              "a chained bind has no symbol");
}

TEST(ChainedFixups, OfPagesOfAnUnknownSizeAreRefused) {
    std::string content = chains(2);
    content.replace(28 + 16, 2, raw<std::uint16_t>(1));
    EXPECT_EQ(faultOf(MachOBuilder().library("/a").pointer(0, data).chainedFixups(content).bytes()),
              "chained pointers do not fit their segment");
}

TEST(ChainedFixups, OfAPageWithoutPointersAreNone) {
    const MachOFile file(
        MachOBuilder().library("/a").pointer(0, ~0ull).chainedFixups(chains(2, 0xffff)).bytes());
    EXPECT_TRUE(file.rebases().empty());
    EXPECT_TRUE(file.binds().empty());
}

} // namespace
