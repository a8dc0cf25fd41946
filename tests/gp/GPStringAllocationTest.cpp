// A change of the text costs one allocation.

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace {

template <class Change>
long allocationsOf(const char* text, Change change) {
    GPString string(text);
    const testsupport::AllocationCounter allocations;
    change(string);
    return allocations.count();
}

template <class Make>
long allocationsOfMaking(Make make) {
    const testsupport::AllocationCounter allocations;
    const auto string = Owned<GPString>::adopt(make());
    return allocations.count();
}

template <class Make>
std::size_t bytesOfMaking(Make make) {
    const testsupport::AllocationCounter allocations;
    const auto string = Owned<GPString>::adopt(make());
    return static_cast<std::size_t>(allocations.bytes());
}

} // namespace

TEST(GPStringAllocations, AMakersStringIsOnePieceOfMemory) {
    const std::string longText(1000, 'x');
    const GPString other("other");
    EXPECT_EQ(allocationsOfMaking([&] { return GPString::of("https://", "www.example.org"); }), 1);
    EXPECT_EQ(allocationsOfMaking([&] { return GPString::of(longText, longText, longText); }), 1);
    EXPECT_EQ(allocationsOfMaking([&] { return GPString::staticstring("text"); }), 1);
    EXPECT_EQ(allocationsOfMaking([&] { return GPString::string("text"); }), 1);
    EXPECT_EQ(allocationsOfMaking([&] { return other.copy(); }), 1);
}

TEST(GPStringAllocations, AMakersStringHasRoomForItsTextAndNoMore) {
    const std::string longText(1000, 'x');
    EXPECT_EQ(bytesOfMaking([] { return GPString::of(""); }), sizeof(GPString) + 1);
    EXPECT_EQ(bytesOfMaking([] { return GPString::of("a", "bc", "def"); }), sizeof(GPString) + 7);
    EXPECT_EQ(bytesOfMaking([&] { return GPString::of(longText, longText); }), sizeof(GPString) + 2001);
}

TEST(GPStringAllocations, AConstructorsTextHasRoomForItselfAndNoMore) {
    EXPECT_EQ(bytesOfMaking([] { return new GPString; }), sizeof(GPString) + 1);
    EXPECT_EQ(bytesOfMaking([] { return new GPString('a'); }), sizeof(GPString) + 2);
    EXPECT_EQ(bytesOfMaking([] { return new GPString('\0'); }), sizeof(GPString) + 1);
    EXPECT_EQ(bytesOfMaking([] { return new GPString("text", 2); }), sizeof(GPString) + 3);
}

TEST(GPStringAllocations, AMakersStringLeavesNothingBehindOnceItHasChanged) {
    const testsupport::AllocationCounter allocations;
    for (const char* text : {"", "text", "a text that no small room holds, whatever its size may be"}) {
        const auto string = Owned<GPString>::adopt(GPString::of(text));
        string->append("more")->append("still more");
    }
    EXPECT_EQ(allocations.left(), 0);
}

TEST(GPStringAllocations, AConstructorsStringLeavesNothingBehind) {
    const testsupport::AllocationCounter allocations;
    {
        const GPString empty, letter('a'), start("text", 2), taken(new char[1](), -1);
        GPString text("text");
        const GPString copy(&text);
        text.append("more");
    }
    EXPECT_EQ(allocations.left(), 0);
}

TEST(GPStringAllocations, TheCheckerSeesWhoReadsBeyondAMakersText) {
#ifdef OSTLER_ADDRESSES_CHECKED
    const auto string = Owned<GPString>::adopt(GPString::of("text of", " two"));
    const volatile char* const text = string->cstr();
    EXPECT_DEATH(static_cast<void>(text[string->length() + 1]), "heap-buffer-overflow");
#else
    GTEST_SKIP() << "an address checker alone sees it";
#endif
}

TEST(GPStringAllocations, TheCheckerSeesWhoReadsAMakersTextThatHasChanged) {
#ifdef OSTLER_ADDRESSES_CHECKED
    const auto string = Owned<GPString>::adopt(GPString::of("text"));
    const volatile char* const before = string->cstr();
    string->append("more");
    EXPECT_DEATH(static_cast<void>(before[0]), "use-after-poison");
#else
    GTEST_SKIP() << "an address checker alone sees it";
#endif
}

TEST(GPStringAllocations, AChangeOfTheTextCostsOne) {
    const GPString other("other");
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.reset("other"); }), 1);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.append("more"); }), 1);
    EXPECT_EQ(allocationsOf("text", [&](GPString& s) { s += &other; }), 1);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.append("more", 2); }), 1);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.appendFormat("%s %d", s.cstr(), 7); }), 1);
    EXPECT_EQ(allocationsOf("a-b-c", [](GPString& s) { s.replace("-", "+"); }), 1);
    EXPECT_EQ(allocationsOf("a-b-c", [](GPString& s) { s.replace("-", "longer than a small text"); }), 1);
    EXPECT_EQ(allocationsOf("a--b", [](GPString& s) { s.replace("--", ""); }), 1);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.subString(1, 2); }), 1);
    EXPECT_EQ(allocationsOf(" text ", [](GPString& s) { s.trim(); }), 1);
    EXPECT_EQ(allocationsOf("a b", [](GPString& s) { s.encode(); }), 1);
    EXPECT_EQ(allocationsOf("a%20b", [](GPString& s) { s.decode(); }), 1);
    EXPECT_EQ(allocationsOf("a&amp;b", [](GPString& s) { s.domDecode(); }), 1);
}

TEST(GPStringAllocations, WhatChangesBytesInPlaceOrNothingCostsNone) {
    EXPECT_EQ(allocationsOf("Text", [](GPString& s) { s.lowercase()->uppercase()->reverse(); }), 0);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.replace("-", "+"); }), 0);
    EXPECT_EQ(allocationsOf("text", [](GPString& s) { s.find("ext", false); }), 0);
}
