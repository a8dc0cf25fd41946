#include "config/CheckinReply.h"

#include <gtest/gtest.h>

using Names = std::vector<std::string>;

namespace {

// The reply in a body that is a document.
CheckinReply read(const char* body) {
    const auto reply = readCheckinReply(body);
    EXPECT_TRUE(reply) << body;
    return reply ? *reply : CheckinReply();
}

} // namespace

TEST(CheckinReply, TextWithoutAStartTagIsNoReply) {
    EXPECT_FALSE(readCheckinReply(""));
    EXPECT_FALSE(readCheckinReply("plain text"));
    EXPECT_FALSE(readCheckinReply("a < b"));
    EXPECT_FALSE(readCheckinReply("<?xml version=\"1.0\"?><!-- nothing -->"));
}

TEST(CheckinReply, AnElementWithNothingInItSaysNothing) {
    const CheckinReply reply = read("<a>");
    EXPECT_FALSE(reply.dormant);
    EXPECT_EQ(reply.nextCheckIn, "");
    EXPECT_EQ(reply.serverNames, Names{});
    EXPECT_EQ(reply.zip, "");
}

TEST(CheckinReply, DormantIsABooleanText) {
    for (const char* on : {"TRUE", "true", "True", "1", "7"})
        EXPECT_EQ(read(("<a><Dormant>" + std::string(on) + "</Dormant></a>").c_str()).dormant, true) << on;
    for (const char* off : {"false", "0", "yes", "on", " "})
        EXPECT_EQ(read(("<a><Dormant>" + std::string(off) + "</Dormant></a>").c_str()).dormant, false) << off;
}

TEST(CheckinReply, DormantWithAnEmptyOrAMissingTextMeansFalse) {
    EXPECT_EQ(read("<a><Dormant></Dormant></a>").dormant, false);
    EXPECT_EQ(read("<a><Dormant/></a>").dormant, false);
    EXPECT_EQ(read("<a><Dormant>true").dormant, false);
    EXPECT_EQ(read("<a><Dormant><b>true</b></Dormant></a>").dormant, false);
}

TEST(CheckinReply, TheFirstOfRepeatedElementsCounts) {
    const CheckinReply reply =
        read("<a><Dormant>true</Dormant><Dormant>false</Dormant><NextCheckIn>1</NextCheckIn>"
             "<NextCheckIn>2</NextCheckIn><Zip>one</Zip><Zip>two</Zip></a>");
    EXPECT_EQ(reply.dormant, true);
    EXPECT_EQ(reply.nextCheckIn, "1");
    EXPECT_EQ(reply.zip, "one");
}

TEST(CheckinReply, AnEmptyFirstPackageHidesTheSecond) {
    EXPECT_EQ(read("<a><Zip></Zip><Zip>two</Zip></a>").zip, "");
}

TEST(CheckinReply, EveryServerNameIsReadInOrderEmptyOnesToo) {
    EXPECT_EQ(read("<a><ServerName>x</ServerName><b><ServerName></ServerName></b><ServerName>y</ServerName>"
                   "<ServerName/></a>")
                  .serverNames,
              (Names{"x", "", "y", ""}));
}

TEST(CheckinReply, TheRootItselfMayBeAnElementOfTheReply) {
    EXPECT_EQ(read("<Dormant>true</Dormant>").dormant, true);
    EXPECT_EQ(read("<ServerName>x</ServerName>").serverNames, Names{"x"});
}

TEST(CheckinReply, NamesOfElementsAreExact) {
    const CheckinReply reply = read("<a><dormant>true</dormant><ServerNames>x</ServerNames></a>");
    EXPECT_FALSE(reply.dormant);
    EXPECT_EQ(reply.serverNames, Names{});
}

TEST(CheckinReply, TextsAreRaw) {
    EXPECT_EQ(read("<a><Zip>h/p?a=1&amp;b=2 </Zip></a>").zip, "h/p?a=1&amp;b=2 ");
}
