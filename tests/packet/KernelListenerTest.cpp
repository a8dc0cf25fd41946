#include "packet/PacketFilter.h"

#include "config/Configuration.h"
#include "packet/SysctlResult.h"
#include "platform/ByteOrder.h"
#include "support/CapturedLog.h"
#include "support/ForkedChild.h"
#include "support/PacketBuilder.h"
#include "support/PlayedKernelControl.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

using testsupport::CapturedLog;
using testsupport::PacketBuilder;
using testsupport::PlayedKernelControl;
using testsupport::receiveResult;
using testsupport::sendRecord;

namespace {

// A receive is asked for this many bytes of record, of which the packet has the rest behind its header.
constexpr std::size_t largestRecord = 65535;
constexpr std::size_t largestPacket = largestRecord - 24;

// What the callback of the listener under test answers, and what it was given.
std::atomic<int> verdict{1};
std::mutex givenMutex;
std::string givenUrl;
std::string givenPacket;
std::string givenBehind; // what the buffer holds behind the largest packet
sysctl_result givenResult;

int recordingCallback(char* packet, void* result) {
    std::lock_guard<std::mutex> lock(givenMutex);
    givenPacket.assign(packet, 40);
    givenBehind.assign(packet + largestPacket - 1, 64);
    auto* record = static_cast<sysctl_result*>(result);
    givenResult = *record;
    std::memcpy(record->redirectUrl, givenUrl.data(), givenUrl.size());
    return verdict;
}

std::string bytesOf(const sysctl_result& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// A listener over a played extension. Its thread waits in recv when the test's process ends.
class KernelListener : public testing::Test {
protected:
    int start(bool inbound) {
        extension_.install();
        std::thread([inbound] { osxKextInterface(inbound, recordingCallback); }).detach();
        return extension_.waitForControl(inbound ? "twFernhill_inkext" : "twFernhill_outkext");
    }

    void answer(int code, const std::string& url = {}) {
        std::lock_guard<std::mutex> lock(givenMutex);
        verdict = code;
        givenUrl = url;
    }

    std::string packetGiven() {
        std::lock_guard<std::mutex> lock(givenMutex);
        return givenPacket;
    }

    std::string behindGiven() {
        std::lock_guard<std::mutex> lock(givenMutex);
        return givenBehind;
    }

    sysctl_result resultGiven() {
        std::lock_guard<std::mutex> lock(givenMutex);
        return givenResult;
    }

    static std::string recordOf(std::uint64_t id, const std::string& packet) {
        return testsupport::PacketBuffer(id, packet).record();
    }

    // Lets the extension send messages of any size that a test wants.
    static void makeRoom(int control) {
        int room = 1 << 20;
        setsockopt(control, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }

    testsupport::ScratchRoot root_;
    CapturedLog log_;
    PlayedKernelControl& extension_ = testsupport::lastingKernelControl();
};

} // namespace

TEST(KernelResult, EachVerdictCodeHasItsKernelResult) {
    EXPECT_EQ(1, kernelResult(0));
    EXPECT_EQ(0, kernelResult(1));
    EXPECT_EQ(1, kernelResult(2));
    EXPECT_EQ(1, kernelResult(3));
    EXPECT_EQ(2, kernelResult(4));
    EXPECT_EQ(1, kernelResult(5));
    EXPECT_EQ(2, kernelResult(6));
    EXPECT_EQ(3, kernelResult(7));
}

TEST(KernelResult, AnyOtherCodeGoesOutAsItStands) {
    EXPECT_EQ(8, kernelResult(8));
    EXPECT_EQ(-1, kernelResult(-1));
}

TEST_F(KernelListener, AFirstReadOf25BytesIsOneRecord) {
    const int control = start(false);
    answer(7);

    sendRecord(control, std::string(24, '\1') + "E");

    const auto result = receiveResult(control);
    ASSERT_TRUE(result);
    EXPECT_EQ(3, result->result);
    EXPECT_EQ('E', packetGiven()[0]);
}

TEST_F(KernelListener, AHeaderThatComesAloneIsFollowedByItsPacket) {
    const int control = start(false);
    const std::string packet(25, 'p');

    sendRecord(control, recordOf(77, ""));
    sendRecord(control, packet);

    const auto result = receiveResult(control);
    ASSERT_TRUE(result);
    EXPECT_EQ(77u, platform::readNative<std::uint64_t>(&*result));
    EXPECT_EQ(packet, packetGiven().substr(0, 25));
}

TEST_F(KernelListener, APacketOf20BytesBehindItsHeaderIsIgnoredWithoutAResult) {
    const int control = start(false);

    sendRecord(control, recordOf(1, ""));
    sendRecord(control, std::string(20, 'p'));
    sendRecord(control, recordOf(2, std::string(40, 'q')));

    const auto result = receiveResult(control);
    ASSERT_TRUE(result);
    EXPECT_EQ(2u, platform::readNative<std::uint64_t>(&*result));
}

TEST_F(KernelListener, ARecordShorterThanItsHeaderIsIgnoredAndSaidSoWhenVerbose) {
    Configuration::setVerboseMode(true);
    const int control = start(false);

    sendRecord(control, std::string(23, 'x'));
    sendRecord(control, recordOf(2, std::string(40, 'q')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("WARNING: data too small! Packet ignored. (received 23, expected at least 24)"));
}

TEST_F(KernelListener, ARecordThatIsTooShortIsToldOfAtLevel32Too) {
    Configuration::setLogLevel(32);
    const int control = start(false);

    sendRecord(control, std::string(23, 'x'));
    sendRecord(control, recordOf(2, std::string(40, 'q')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ(1, log_.countContaining("WARNING: data too small! Packet ignored. (received 23, "));
}

TEST_F(KernelListener, ARecordThatIsTooShortIsNotToldOfAtAnyOtherLevel) {
    Configuration::setLogLevel(~(1 | 32));
    const int control = start(false);

    sendRecord(control, std::string(23, 'x'));
    sendRecord(control, recordOf(1, ""));
    sendRecord(control, std::string(20, 'p'));
    sendRecord(control, recordOf(2, std::string(40, 'q')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ(std::vector<std::string>{"Starting OSX System Interface: OUTPUT"}, log_.messages());
}

TEST_F(KernelListener, VerdictsGoOutAsKernelResults) {
    const int control = start(true);
    const std::string record = recordOf(5, std::string(40, 'p'));
    const int expected[][2] = {{7, 3}, {6, 2}, {1, 0}, {0, 1}};

    for (const auto& [code, kernel] : expected) {
        answer(code);
        sendRecord(control, record);
        const auto result = receiveResult(control);
        ASSERT_TRUE(result);
        EXPECT_EQ(kernel, result->result) << "verdict " << code;
    }
}

TEST_F(KernelListener, TheCallbackGetsAZeroedRecordWithThePacketIdAlone) {
    const int control = start(true);

    sendRecord(control, recordOf(0x1122334455667788, std::string(40, 'p')));

    ASSERT_TRUE(receiveResult(control));
    sysctl_result expected{};
    platform::writeNative<std::uint64_t>(&expected, 0x1122334455667788);
    EXPECT_EQ(bytesOf(expected), bytesOf(resultGiven()));
}

TEST_F(KernelListener, TheBytesBehindTheUrlAreZeroAfterALongerUrlOnTheSameListener) {
    const int control = start(true);
    const std::string record = recordOf(1, std::string(40, 'p'));
    answer(6, std::string(1024, 'u'));
    sendRecord(control, record);
    ASSERT_TRUE(receiveResult(control));

    answer(6, "short");
    sendRecord(control, record);

    const auto result = receiveResult(control);
    ASSERT_TRUE(result);
    std::string field(reinterpret_cast<const char*>(result->redirectUrl), sizeof result->redirectUrl);
    EXPECT_EQ("short" + std::string(1019, '\0'), field);
}

TEST_F(KernelListener, ARecordOfTheLargestSizeIsAnswered) {
    const int control = start(false);
    makeRoom(control);

    sendRecord(control, recordOf(9, std::string(largestPacket, 'p')));

    const auto result = receiveResult(control);
    ASSERT_TRUE(result);
    EXPECT_EQ(9u, platform::readNative<std::uint64_t>(&*result));
}

TEST_F(KernelListener, AReceiveIsAskedFor65535BytesThoughTheBufferHasMore) {
    const int control = start(false);
    makeRoom(control);

    sendRecord(control, recordOf(9, std::string(largestPacket + 60, 'p')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ("p" + std::string(63, '\0'), behindGiven());
}

TEST_F(KernelListener, APacketBehindItsHeaderIsAskedFor65511Bytes) {
    const int control = start(false);
    makeRoom(control);

    sendRecord(control, recordOf(9, ""));
    sendRecord(control, std::string(largestPacket + 60, 'p'));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ("p" + std::string(63, '\0'), behindGiven());
}

TEST_F(KernelListener, AnEmptyMessageIsWarnedOfAndTheLoopGoesOn) {
    const int control = start(true);

    ASSERT_EQ(0, send(control, "", 0, MSG_NOSIGNAL));
    sendRecord(control, recordOf(3, std::string(40, 'p')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("Warning: invalid 0 INPUT bytes received -- IGNORED"));
}

TEST_F(KernelListener, AFailingReceiveIsRetriedWithoutLimit) {
    EXPECT_TRUE(testsupport::neverEnds([this] {
        extension_.install();
        std::thread([this] { close(extension_.waitForControl("twFernhill_outkext")); }).detach();
        osxKextInterface(false, recordingCallback);
    }));
    EXPECT_LT(1, log_.countContaining("OUTPUT bytes received -- IGNORED"));
}

TEST_F(KernelListener, AResultThatCannotBeSentIsReportedAndTheLoopGoesOn) {
    static std::atomic<bool> isShut{false};
    EXPECT_TRUE(testsupport::neverEnds([this] {
        signal(SIGPIPE, SIG_IGN);
        extension_.install();
        std::thread([this] {
            const int control = extension_.waitForControl("twFernhill_outkext");
            sendRecord(control, recordOf(0x2a, std::string(40, 'p')));
            shutdown(control, SHUT_RD);
            isShut = true;
        }).detach();
        osxKextInterface(false, [](char*, void*) {
            while (!isShut)
                std::this_thread::yield();
            return 1;
        });
    }));
    EXPECT_TRUE(
        log_.holds("[0x2a] Error sending OUTPUT result packet to system; bytes sent=-1 expected=1072"));
}

TEST_F(KernelListener, AtLevel32EachPacketIsToldOf) {
    Configuration::setLogLevel(32);
    const int control = start(false);

    sendRecord(control, PacketBuilder::ipv4().id(0xabcdef0112345678).build().record());

    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("[0x12345678] -processing OUTPUT -- 64 bytes"));
    EXPECT_TRUE(
        log_.holds("[0x12345678] processed OUTPUT - src=0xa000002 p=50000 (10.0.0.2) -dst=0x5db8d822 p=80 "
                   "(93.184.216.34) (tcpres=1)"));
}

TEST_F(KernelListener, AtLevel32ARecordInTwoStepsIsToldOf) {
    Configuration::setLogLevel(32);
    const int control = start(false);

    sendRecord(control, recordOf(0x2a, ""));
    sendRecord(control, std::string(30, 'p'));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_TRUE(log_.holds("[0x2a] - processing OUTPUT only received 24 header bytes; 2nd receive=30 bytes"));
}

TEST_F(KernelListener, TheLoopLogsNothingUnlessAsked) {
    const int control = start(false);

    sendRecord(control, recordOf(1, std::string(40, 'p')));

    ASSERT_TRUE(receiveResult(control));
    EXPECT_EQ(std::vector<std::string>{"Starting OSX System Interface: OUTPUT"}, log_.messages());
}
