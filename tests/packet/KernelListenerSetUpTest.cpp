#include "packet/PacketFilter.h"

#include "config/Configuration.h"
#include "packet/SysctlResult.h" // IWYU pragma: keep (used by a template)
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/PlayedKernelControl.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

using testsupport::PlayedKernelControl;
using testsupport::receiveResult;
using testsupport::sendRecord;

namespace {

int passingCallback(char*, void*) { return 1; }

// What a listener does before its first packet. A listener that is set up waits in recv when the test's
// process ends.
class KernelListenerSetUp : public testing::Test {
protected:
    int start(bool inbound) {
        extension_.install();
        std::thread([inbound] { osxKextInterface(inbound, passingCallback); }).detach();
        return extension_.waitForControl(inbound ? "twFernhill_inkext" : "twFernhill_outkext");
    }

    // Whether the daemon still holds its end of the control socket.
    static bool isOpen(int control) {
        char byte;
        return recv(control, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

    const std::string record_ = std::string(64, 'p');
    testsupport::ScratchRoot root_;
    testsupport::CapturedLog log_;
    PlayedKernelControl& extension_ = testsupport::lastingKernelControl();
};

} // namespace

TEST_F(KernelListenerSetUp, WithoutASocketTheListenerEnds) {
    extension_.install();
    extension_.refuseSockets();

    osxKextInterface(true, passingCallback);

    EXPECT_TRUE(log_.holds("Error: failed to open INPUT System connection."));
}

TEST_F(KernelListenerSetUp, WithoutTheControlNameTheListenerEnds) {
    extension_.install();
    extension_.forget("twFernhill_outkext");

    osxKextInterface(false, passingCallback);

    EXPECT_TRUE(log_.holds("ERROR: Could not get ID for FernhillKernel. Make sure it is installed."));
}

TEST_F(KernelListenerSetUp, ARefusedConnectionEndsTheListener) {
    extension_.install();
    extension_.refuseConnections();

    osxKextInterface(false, passingCallback);

    EXPECT_TRUE(log_.holds("Error: System connect OUTPUT failed -1"));
}

TEST_F(KernelListenerSetUp, AListenerThatEndsLeavesItsSocketOpen) {
    extension_.install();
    extension_.forget("twFernhill_outkext");
    osxKextInterface(false, passingCallback);
    EXPECT_TRUE(isOpen(extension_.lastOpened()));

    extension_.answerVersion(7);
    osxKextInterface(true, passingCallback);
    EXPECT_TRUE(isOpen(extension_.lastOpened()));

    extension_.refuseConnections();
    osxKextInterface(false, passingCallback);
    EXPECT_TRUE(isOpen(extension_.lastOpened()));
}

TEST_F(KernelListenerSetUp, AnotherVersionEndsTheInboundListener) {
    for (int version : {7, 9}) {
        PlayedKernelControl& extension = testsupport::lastingKernelControl();
        extension.install();
        extension.answerVersion(version);

        osxKextInterface(true, passingCallback);

        EXPECT_TRUE(log_.holds("ERROR: Mis-matching FernhillKernel version (actual: " +
                               std::to_string(version) + ", expecting: 8)"));
        EXPECT_TRUE(log_.holds("Aborting: FernhillKernel error -1."));
    }
}

TEST_F(KernelListenerSetUp, AnUnreadableVersionEndsTheInboundListener) {
    extension_.install();
    extension_.failVersion();

    osxKextInterface(true, passingCallback);

    EXPECT_TRUE(log_.holds("Error -1 retreiving Kernel Extension version."));
    EXPECT_TRUE(log_.holds("Aborting: FernhillKernel error -1."));
}

TEST_F(KernelListenerSetUp, TheOutboundListenerAsksForNoVersion) {
    extension_.answerVersion(7);
    const int control = start(false);

    sendRecord(control, record_);

    EXPECT_TRUE(receiveResult(control));
    EXPECT_FALSE(extension_.logLevelSet());
    EXPECT_EQ(-1, extension_.optionSocket(201));
}

TEST_F(KernelListenerSetUp, AnExtensionThatRefusesTheLogLevelIsServedAllTheSame) {
    Configuration::setKernelLogLevel(3);
    extension_.failLogLevel();

    const int control = start(true);

    sendRecord(control, record_);
    EXPECT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("FernhillKernel Log Level set to 3 (result=-1)"));
}

TEST_F(KernelListenerSetUp, AtLogLevel0TheLogLevelIsNotToldOf) {
    const int control = start(true);

    sendRecord(control, record_);
    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ(0, extension_.logLevelSet());
    EXPECT_EQ(std::vector<std::string>{"Starting OSX System Interface: INPUT"}, log_.messages());
}

TEST_F(KernelListenerSetUp, TheInboundListenerHasItsSocketPolledForStatistics) {
    const int control = start(true);
    auto& clock = testsupport::ManualClock::installed();
    ASSERT_TRUE(clock.waitForSleepers(1));

    clock.advanceSeconds(300);

    EXPECT_TRUE(extension_.waitForStatistics(1));
    EXPECT_EQ(control, extension_.optionSocket(70));
    EXPECT_EQ(control, extension_.optionSocket(201));
    EXPECT_EQ(control, extension_.optionSocket(224));
}

TEST_F(KernelListenerSetUp, TheInboundListenerHandsTheExtensionItsLogLevel) {
    Configuration::setKernelLogLevel(3);

    const int control = start(true);

    sendRecord(control, record_);
    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ(3, extension_.logLevelSet());
    EXPECT_TRUE(log_.holds("FernhillKernel Log Level set to 3 (result=0)"));
}

TEST_F(KernelListenerSetUp, FromLogLevel1OnTheLogLevelIsToldOf) {
    Configuration::setKernelLogLevel(1);

    const int control = start(true);

    sendRecord(control, record_);
    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("FernhillKernel Log Level set to 1 (result=0)"));
}

TEST_F(KernelListenerSetUp, WhenVerboseTheSetUpIsToldOf) {
    Configuration::setVerboseMode(true);

    const int control = start(true);

    sendRecord(control, record_);
    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("System connection established - INPUT - (unit=0 id=1)"));
    EXPECT_TRUE(log_.holds("FernhillKernel Log Level set to 0 (result=0)"));
    EXPECT_TRUE(log_.holds("FernhillKernel Version: 8 (result=0)"));
}
