#include "agent/AgentFrames.h"

#include "support/AgentStandIn.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testsupport::AgentStandIn;

namespace {

std::string build(std::size_t space, std::uint32_t type, std::uint32_t sequence, const std::string& body) {
    // A byte in front and one behind show a write outside the buffer.
    std::vector<char> memory(space + 2, '#');
    const std::size_t size = buildAgentFrame(memory.data() + 1, space, type, sequence, body.c_str());
    EXPECT_EQ(memory.front(), '#');
    EXPECT_EQ(memory.back(), '#');
    return std::string(memory.data() + 1, size);
}

// Reads in memory that is exactly as long as the bytes, so that the address check sees a read behind them.
AgentFrameStep read(const std::string& bytes, std::size_t offset, AgentFrame& frame, std::string& body) {
    std::vector<char> exact(bytes.begin(), bytes.end());
    const AgentFrameStep step = readAgentFrame(exact.data(), exact.size(), offset, frame);
    if (step == AgentFrameStep::frame) body.assign(frame.body, frame.bodyLength);
    return step;
}

AgentFrameStep stepOf(const std::string& bytes) {
    AgentFrame frame;
    std::string body;
    return read(bytes, 0, frame, body);
}

} // namespace

TEST(AgentFrames, AFrameIsThreeNumbersInNetworkOrderAndTheBodyWithoutAnEndingNul) {
    EXPECT_EQ(build(512, 3, 7, "{}"), std::string("\0\0\0\x0E\0\0\0\x03\0\0\0\x07{}", 14));
    EXPECT_EQ(build(512, 5, 0x01020304, ""), std::string("\0\0\0\x0C\0\0\0\x05\x01\x02\x03\x04", 12));
}

TEST(AgentFrames, TheLargestBodiesHave4996And500Bytes) {
    EXPECT_EQ(build(agentPolicyFrameSpace, 1, 1, std::string(4996, 'x')).size(), 5008u);
    EXPECT_EQ(build(agentOtherFrameSpace, 3, 1, std::string(500, 'x')).size(), 512u);
}

TEST(AgentFrames, ABodyLargerThanTheBufferIsNotWritten) {
    EXPECT_EQ(build(agentPolicyFrameSpace, 1, 1, std::string(4997, 'x')), "");
    EXPECT_EQ(build(agentOtherFrameSpace, 3, 1, std::string(501, 'x')), "");
    EXPECT_EQ(build(11, 3, 1, ""), "");
}

TEST(AgentFrames, AWholeFrameIsRead) {
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(AgentStandIn::frame(5, 0xA0B0C0D0, "{\"k\":1}"), 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(frame.type, 5u);
    EXPECT_EQ(frame.sequence, 0xA0B0C0D0u);
    EXPECT_EQ(body, "{\"k\":1}");
    EXPECT_EQ(frame.next, 19u);
}

TEST(AgentFrames, AFrameWithoutABodyIsRead) {
    AgentFrame frame;
    std::string body = "untouched";
    ASSERT_EQ(read(AgentStandIn::frame(1, 4, ""), 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(body, "");
    EXPECT_EQ(frame.next, 12u);
}

TEST(AgentFrames, TheFirstBodyStopsAtTheSecondFramesLengthField) {
    const std::string bytes = AgentStandIn::frame(1, 1, "{one}") + AgentStandIn::frame(1, 2, "{two}");
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(bytes, 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(body, "{one}");
    ASSERT_EQ(read(bytes, frame.next, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(frame.sequence, 2u);
    EXPECT_EQ(body, "{two}");
    EXPECT_EQ(read(bytes, frame.next, frame, body), AgentFrameStep::end);
}

TEST(AgentFrames, ABodyRunsToTheEndOfTheBytesHeldAndNotToTheEndOfItsFrame) {
    const std::string bytes = AgentStandIn::frameOfLength(14, 1, 1, "{}tail of something else");
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(bytes, 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(body, "{}tail of something else");
    EXPECT_EQ(frame.next, 14u);
}

TEST(AgentFrames, ABodyEndsAtItsFirstNul) {
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(AgentStandIn::frame(1, 1, std::string("{}\0more", 7)), 0, frame, body),
              AgentFrameStep::frame);
    EXPECT_EQ(body, "{}");
}

TEST(AgentFrames, AFrameThatIsNotWholeYetNeedsMore) {
    const std::string whole = AgentStandIn::frame(1, 1, "{\"redirect\":\"x\"}");
    for (std::size_t held = 1; held < whole.size(); ++held)
        EXPECT_EQ(stepOf(whole.substr(0, held)), AgentFrameStep::needMore) << held;
    EXPECT_EQ(stepOf(whole), AgentFrameStep::frame);
    EXPECT_EQ(stepOf(""), AgentFrameStep::end);
}

TEST(AgentFrames, WhatIsNotReadLeavesTheCallersFrameEmptyAsItWas) {
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(AgentStandIn::frame(1, 7, "{}").substr(0, 13), 0, frame, body), AgentFrameStep::needMore);
    EXPECT_EQ(frame.type, 0u);
    EXPECT_EQ(frame.sequence, 0u);
    EXPECT_EQ(frame.body, nullptr);
    EXPECT_EQ(frame.bodyLength, 0u);
    EXPECT_EQ(frame.next, 0u);
}

TEST(AgentFrames, ALengthOfZeroIsReadOnceAndEndsTheBytesHeld) {
    AgentFrame frame;
    std::string body;
    const std::string bytes = AgentStandIn::frameOfLength(0, 5, 9, "{}");
    ASSERT_EQ(read(bytes, 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(frame.sequence, 9u);
    EXPECT_EQ(frame.next, bytes.size());
    EXPECT_EQ(read(bytes, frame.next, frame, body), AgentFrameStep::end);
}

TEST(AgentFrames, ALengthBelowTheHeadersIsTakenAsItStandsWhileTheHeaderIsThere) {
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(AgentStandIn::frameOfLength(5, 1, 2, "{}"), 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(frame.sequence, 2u);
    EXPECT_EQ(frame.next, 5u);
}

TEST(AgentFrames, ALengthBelowTheHeadersWithoutTheWholeHeaderEndsTheBytesHeld) {
    const std::string header = AgentStandIn::frameOfLength(8, 1, 2, "");
    for (std::size_t held = 8; held < 12; ++held)
        EXPECT_EQ(stepOf(header.substr(0, held)), AgentFrameStep::end) << held;
    EXPECT_EQ(stepOf(std::string(4, '\0')), AgentFrameStep::end);
}

TEST(AgentFrames, AnAbsurdLengthBreaksTheStreamAtOnce) {
    EXPECT_EQ(stepOf(AgentStandIn::frameOfLength(agentFrameLimit - 1, 1, 1, "")), AgentFrameStep::needMore);
    EXPECT_EQ(stepOf(AgentStandIn::frameOfLength(agentFrameLimit, 1, 1, "")), AgentFrameStep::broken);
    EXPECT_EQ(stepOf(AgentStandIn::frameOfLength(0xFFFFFFFF, 1, 1, "")), AgentFrameStep::broken);
    EXPECT_EQ(stepOf("HTTP/1.1 400 Bad Request\r\n"), AgentFrameStep::broken);
}

TEST(AgentFrames, AFrameOf16MiBIsRead) {
    const std::string whole = AgentStandIn::frame(1, 6, std::string((1u << 24) - agentFrameHeader, 'x'));
    AgentFrame frame;
    std::string body;
    ASSERT_EQ(read(whole, 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(frame.sequence, 6u);
    EXPECT_EQ(body.size(), whole.size() - agentFrameHeader);
    EXPECT_EQ(frame.next, whole.size());
}

TEST(AgentFrames, ABodyInFrontOfAFrameOf16MiBTakesInTheFirstByteOfItsLength) {
    AgentFrame frame;
    std::string body;
    const std::string bytes =
        AgentStandIn::frame(1, 1, "{}") + AgentStandIn::frameOfLength(1u << 24, 1, 2, "");
    ASSERT_EQ(read(bytes, 0, frame, body), AgentFrameStep::frame);
    EXPECT_EQ(body, "{}\x01");
    EXPECT_EQ(read(bytes, frame.next, frame, body), AgentFrameStep::needMore);
}

TEST(AgentFrames, AnyBytesAreReadToAnEndInBoundedSteps) {
    std::uint32_t state = 12345;
    const auto random = [&state] { return state = state * 1664525 + 1013904223; };
    for (int round = 0; round < 2000; ++round) {
        std::string bytes;
        for (std::uint32_t i = random() % 80; i > 0; --i)
            bytes += static_cast<char>(random() % 4 ? 0 : random() >> 16);
        AgentFrame frame;
        std::string body;
        std::size_t offset = 0;
        std::size_t steps = 0;
        while (read(bytes, offset, frame, body) == AgentFrameStep::frame) {
            ASSERT_GT(frame.next, offset);
            offset = frame.next;
            ASSERT_LE(++steps, bytes.size());
        }
    }
}
