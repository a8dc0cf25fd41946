// A change of the text costs one allocation.

#include "gp/GPString.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

namespace {

template <class Change>
long allocationsOf(const char* text, Change change) {
    GPString string(text);
    const testsupport::AllocationCounter allocations;
    change(string);
    return allocations.count();
}

} // namespace

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
