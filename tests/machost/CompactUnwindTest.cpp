// Compact unwind tables: what they say of frames.

#include "machost/loader/CompactUnwind.h"
#include "machost/loader/Unwinding.h"
#include "support/MachOBuilder.h"

#include <gtest/gtest.h>

namespace {

using machost::ByteView;
using machost::decodeFrame;
using machost::FormatError;
using machost::FrameLayout;
using machost::readCompactUnwind;
using machost::UnwindEntry;
using testsupport::raw;

ByteView view(const std::string& bytes) {
    return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

// Pairs of register and distance, as text.
std::string savedOf(const FrameLayout& layout) {
    std::string text;
    for (const auto& saved : layout.saved)
        text += std::to_string(saved.registerNumber) + "@" + std::to_string(saved.below) + " ";
    return text;
}

// One common encoding, one personality, and a compressed page of two functions, the second with data for its handler.
std::string table(std::uint32_t encoding, std::uint32_t pageKind = 3) {
    constexpr std::uint32_t common = 28, personalities = 32, index = 36, handlerData = 60, page = 68;
    return raw<std::uint32_t>(1) + raw(common) + raw<std::uint32_t>(1) + raw(personalities) +
           raw<std::uint32_t>(1) + raw(index) + raw<std::uint32_t>(2) + raw(encoding) +
           raw<std::uint32_t>(0x3000) + raw<std::uint32_t>(0x1000) + raw(page) + raw(handlerData) +
           raw<std::uint32_t>(0x1100) + raw<std::uint32_t>(0) + raw(handlerData + 8) +
           raw<std::uint32_t>(0x1040) + raw<std::uint32_t>(0x2000) + raw(pageKind) + raw<std::uint16_t>(12) +
           raw<std::uint16_t>(2) + raw<std::uint16_t>(20) + raw<std::uint16_t>(1) + raw<std::uint32_t>(0) +
           raw<std::uint32_t>(0x40 | 1u << 24) + raw<std::uint32_t>(0x51000000);
}

TEST(CompactUnwind, OfABasePointerFrameTellsItsRegisters) {
    // rbx at the lowest place, r14 above it.
    const FrameLayout layout = decodeFrame(0x01020000 | 1 | 4 << 3);
    EXPECT_EQ(layout.kind, FrameLayout::basePointer);
    EXPECT_EQ(savedOf(layout), "3@32 14@24 ");
}

TEST(CompactUnwind, OfAFrameOfFixedSizeTellsThePermutation) {
    // Three registers: rbx, r15, rbp. The first is the lowest in memory.
    const FrameLayout layout = decodeFrame(0x02000000 | 6 << 16 | 3 << 10 | (0 * 20 + 3 * 4 + 3));
    EXPECT_EQ(layout.kind, FrameLayout::fixedSize);
    EXPECT_EQ(layout.size, 48u);
    EXPECT_EQ(savedOf(layout), "3@32 15@24 6@16 ");
}

TEST(CompactUnwind, OfAFrameWhoseSizeStandsInTheCodeTellsWhere) {
    const FrameLayout layout = decodeFrame(0x03000000 | 9 << 16 | 2 << 13);
    EXPECT_EQ(layout.kind, FrameLayout::sizeInCode);
    EXPECT_EQ(layout.sizeAt, 9u);
    EXPECT_EQ(layout.adjustment, 16u);
}

TEST(CompactUnwind, RefusesRegistersThatThereAreNot) {
    EXPECT_THROW(decodeFrame(0x01000000 | 7), FormatError);
    EXPECT_THROW(decodeFrame(0x02000000 | 7 << 10), FormatError);
    EXPECT_THROW(decodeFrame(0x02000000 | 1 << 10 | 6), FormatError);
}

TEST(CompactUnwind, TellsEachFunctionWithItsEndAndHandler) {
    const std::string bytes = table(0x01000000);
    const std::vector<UnwindEntry> entries = readCompactUnwind(view(bytes));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].start, 0x1000u);
    EXPECT_EQ(entries[0].end, 0x1040u);
    EXPECT_EQ(entries[0].personality, 0u);
    EXPECT_EQ(entries[1].end, 0x1100u);
    EXPECT_EQ(entries[1].encoding, 0x51000000u);
    EXPECT_EQ(entries[1].personality, 0x3000u);
    EXPECT_EQ(entries[1].handlerData, 0x2000u);
}

TEST(CompactUnwind, RefusesATableThatIsDamaged) {
    EXPECT_THROW(readCompactUnwind(view(table(0, 4))), FormatError);
    const std::string whole = table(0x01000000);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const std::string cut = whole.substr(0, size);
        EXPECT_THROW(readCompactUnwind(view(cut)), FormatError) << size;
    }
}

TEST(FrameDescriptions, EndWithAnEmptyOneAndHaveOneForEachFunction) {
    std::string memory(0x4000, '\0');
    const std::uint64_t handler = 0x1234567890;
    memory.replace(0x3000, 8, raw(handler));
    const std::string bytes = table(0x01000000);
    const std::vector<std::uint8_t> frames =
        machost::frameDescriptions(view(bytes), view(memory), 0x100000000);
    std::vector<std::uint32_t> lengths;
    for (std::size_t at = 0; at + 4 <= frames.size();) {
        lengths.push_back(view({frames.begin(), frames.end()}).record<std::uint32_t>(at));
        at += 4 + lengths.back();
    }
    // A common part and a function for each of the two kinds, and the end.
    ASSERT_EQ(lengths.size(), 5u);
    EXPECT_EQ(lengths.back(), 0u);
    const std::string text(frames.begin(), frames.end());
    EXPECT_NE(text.find(raw(handler)), std::string::npos);
    EXPECT_NE(text.find(raw<std::uint64_t>(0x100001040)), std::string::npos);
    EXPECT_NE(text.find(raw<std::uint64_t>(0x100002000)), std::string::npos);
}

} // namespace
