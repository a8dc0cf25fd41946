#include "platform/ControlLayout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

template <class Record>
std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(ControlLayout, ARequestIsAnEmptyNumberAndTheNameWithZeroesBehindIt) {
    const std::string name = "twFernhill_inkext";
    const std::string expected = std::string(4, '\0') + name + std::string(96 - name.size(), '\0');
    EXPECT_EQ(bytesOf(platform::controlRequest(name.c_str())), expected);
}

TEST(ControlLayout, ANameThatFillsItsRoomHasNoZeroBehindIt) {
    const std::string name(96, 'n');
    EXPECT_EQ(bytesOf(platform::controlRequest(name.c_str())), std::string(4, '\0') + name);
}

TEST(ControlLayout, ALongerNameIsCut) {
    const std::string name(200, 'n');
    EXPECT_EQ(bytesOf(platform::controlRequest(name.c_str())), std::string(4, '\0') + name.substr(0, 96));
}

TEST(ControlLayout, TheKernelsAnswerHasTheNumberInFront) {
    const std::string answer = std::string("\x2a\x01\x00\x00", 4) + std::string(96, 'x');
    platform::ControlInfo info;
    ASSERT_EQ(answer.size(), sizeof info);
    std::memcpy(&info, answer.data(), answer.size());
    EXPECT_EQ(info.id, 298u);
}

TEST(ControlLayout, AnAddressHasItsLengthTwoFamiliesTheNumberAndNoUnit) {
    const std::string expected = std::string("\x20\x20\x02\x00\x2a\x01\x00\x00", 8) + std::string(24, '\0');
    EXPECT_EQ(bytesOf(platform::controlAddress(298)), expected);
}

TEST(ControlLayout, TheFirstFourBytesOfAnAddressReadTogetherAre0x22020) {
    std::uint32_t front = 0;
    const platform::ControlAddress address = platform::controlAddress(7);
    std::memcpy(&front, &address, sizeof front);
    EXPECT_EQ(front, 0x22020u);
}

} // namespace
