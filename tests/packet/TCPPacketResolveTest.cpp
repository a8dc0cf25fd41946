#include "packet/TCPPacket.h"

#include "config/Configuration.h"
#include "support/FixedNames.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <sys/socket.h>

namespace {

class TCPPacketResolve : public testsupport::SettingsWorld {
protected:
    TCPPacketResolve() { names.install(); }

    testsupport::PlayedNames names;
};

TEST_F(TCPPacketResolve, AnswersTheFirstAddressInHostOrder) {
    names.answer("a.example", AF_INET, {"192.0.2.1", "192.0.2.2"});
    EXPECT_EQ(TCPPacket::resolve("a.example"), 0xc0000201u);
}

TEST_F(TCPPacketResolve, AnswersZeroForANameWithoutIPv4Address) {
    names.answer("six.example", AF_INET6, {"2001:db8::1"});
    EXPECT_EQ(TCPPacket::resolve("six.example"), 0u);
    EXPECT_EQ(TCPPacket::resolve("nobody.example"), 0u);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(TCPPacketResolve, ReportsAFailureWhenVerbose) {
    Configuration::setLogLevel(1);
    EXPECT_EQ(TCPPacket::resolve("nobody.example"), 0u);
    EXPECT_TRUE(log.holds("unable to resolve the host: nobody.example"));
}

TEST_F(TCPPacketResolve, AnAnswerWithoutAnyAddressCountsAsNone) {
    names.answer("empty.example", AF_INET, {});
    EXPECT_EQ(TCPPacket::resolve("empty.example"), 0u);
}

TEST_F(TCPPacketResolve, AnAddressOfAnotherSizeCountsAsNone) {
    testsupport::FixedNames odd({std::string(16, '\x01')});
    odd.install();
    EXPECT_EQ(TCPPacket::resolve("odd.example"), 0u);
}

} // namespace
