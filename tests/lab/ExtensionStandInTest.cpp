#include "lab/ExtensionStandIn.h"

#include "lab/LabCaptures.h"
#include "lab/LabStage.h"
#include "lab/Policy.h"
#include "lab/RootFolder.h"
#include "platform/HostPaths.h"
#include "platform/KernelControl.h"
#include "support/Eventually.h"
#include "support/Patience.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using lab::Direction;
using lab::ExtensionStandIn;
using lab::RecordForm;

// The daemon's side of the controls, played through the platform's own client of them.
class ExtensionStandInTest : public testing::Test {
protected:
    ExtensionStandInTest() : extension_(root_.path()) {
        platform::HostPaths::setRoot(root_.path().c_str());
        extension_.listen();
        extension_.start();
    }

    int connected(const char* name) {
        const int socket = control_.open();
        std::uint32_t id = 0;
        EXPECT_EQ(control_.controlId(socket, name, id), 0);
        EXPECT_EQ(control_.connect(socket, id), 0);
        return socket;
    }

    void connectBoth() {
        in_ = connected("twFernhill_inkext");
        out_ = connected("twFernhill_outkext");
        ASSERT_TRUE(extension_.waitForDaemon(testsupport::patienceMilliseconds));
    }

    static std::string receive(int socket) {
        char buffer[65536];
        const ssize_t count = recv(socket, buffer, sizeof buffer, 0);
        return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : "";
    }

    // Answers the record whose header these bytes begin with.
    static void answer(int socket, const std::string& header, int kernelResult) {
        sysctl_result result{};
        std::memcpy(&result.packetId, header.data(), sizeof result.packetId);
        result.result = kernelResult;
        send(socket, &result, sizeof result, 0);
    }

    lab::RootFolder root_{""};
    ExtensionStandIn extension_;
    platform::KernelControl& control_ = platform::kernelControlService.backend();
    int in_ = -1;
    int out_ = -1;
};

const std::vector<char> packet = {'p', 'a', 'c', 'k', 'e', 't'};

TEST_F(ExtensionStandInTest, Option70TakesALogLevel) {
    const int socket = connected("twFernhill_inkext");
    const std::int32_t level = 3;
    EXPECT_EQ(control_.setOption(socket, 70, &level, sizeof level), 0);
}

TEST_F(ExtensionStandInTest, Option201IsVersion8OnBothControls) {
    for (const char* name : {"twFernhill_inkext", "twFernhill_outkext"}) {
        std::int32_t version = 0;
        socklen_t length = sizeof version;
        EXPECT_EQ(control_.getOption(connected(name), 201, &version, length), 0);
        EXPECT_EQ(version, 8);
        EXPECT_EQ(length, sizeof version);
    }
}

TEST_F(ExtensionStandInTest, Option224GivesTheStatisticsThatAreAskedFor) {
    char statistics[2000];
    std::memset(statistics, 'x', sizeof statistics);
    socklen_t length = sizeof statistics;
    EXPECT_EQ(control_.getOption(connected("twFernhill_inkext"), 224, statistics, length), 0);
    EXPECT_EQ(length, 2000u);
    EXPECT_EQ(std::string(statistics, sizeof statistics), std::string(2000, '\0'));
}

TEST_F(ExtensionStandInTest, AnyOtherOptionIsNotKnown) {
    const int socket = connected("twFernhill_inkext");
    std::int32_t value = 0;
    socklen_t length = sizeof value;
    EXPECT_EQ(control_.getOption(socket, 202, &value, length), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
    EXPECT_EQ(control_.setOption(socket, 71, &value, sizeof value), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
}

TEST(ExtensionStandIn, AnotherVersionCanBePlayed) {
    const lab::RootFolder root("");
    platform::HostPaths::setRoot(root.path().c_str());
    ExtensionStandIn extension(root.path(), 7);
    extension.listen();
    extension.start();
    platform::KernelControl& control = platform::kernelControlService.backend();
    const int socket = control.open();
    ASSERT_EQ(control.connect(socket, 1), 0);
    std::int32_t version = 0;
    socklen_t length = sizeof version;
    EXPECT_EQ(control.getOption(socket, 201, &version, length), 0);
    EXPECT_EQ(version, 7);
}

TEST_F(ExtensionStandInTest, ARecordIsAHeaderOf24BytesAndThePacketInOneMessage) {
    connectBoth();
    std::string record;
    std::thread daemon([&] {
        record = receive(out_);
        answer(out_, record, 2);
    });
    const auto result = extension_.present(Direction::out, packet, testsupport::patienceMilliseconds);
    daemon.join();
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->result, 2);
    EXPECT_EQ(record.size(), 30u);
    EXPECT_EQ(record.substr(24), "packet");
    EXPECT_EQ(record.substr(8, 16), std::string(16, '\0'));
}

TEST_F(ExtensionStandInTest, AHeaderAloneComesInFrontOfItsPacket) {
    connectBoth();
    std::string header, body;
    std::thread daemon([&] {
        header = receive(in_);
        body = receive(in_);
        answer(in_, header, 0);
    });
    EXPECT_TRUE(
        extension_.present(Direction::in, packet, testsupport::patienceMilliseconds, RecordForm::headerFirst)
            .has_value());
    daemon.join();
    EXPECT_EQ(header.size(), 24u);
    EXPECT_EQ(body, "packet");
}

TEST_F(ExtensionStandInTest, NoRecordIsLargerThanTheDaemonReceives) {
    connectBoth();
    std::string record;
    std::thread daemon([&] {
        record = receive(out_);
        answer(out_, record, 0);
    });
    EXPECT_TRUE(
        extension_.present(Direction::out, std::vector<char>(65575, 'x'), testsupport::patienceMilliseconds)
            .has_value());
    daemon.join();
    EXPECT_EQ(record.size(), 65535u);
}

TEST_F(ExtensionStandInTest, AnAnswerThatComesTooLateIsPassedOver) {
    connectBoth();
    EXPECT_FALSE(extension_.present(Direction::out, packet, 0).has_value());
    const std::string late = receive(out_);
    std::thread daemon([&] {
        const std::string record = receive(out_);
        answer(out_, late, 1);
        answer(out_, record, 3);
    });
    const auto result = extension_.present(Direction::out, packet, testsupport::patienceMilliseconds);
    daemon.join();
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->result, 3);
    EXPECT_TRUE(extension_.connected());
}

TEST_F(ExtensionStandInTest, ADaemonThatAnswersWithoutEndIsNotListenedToSoLong) {
    connectBoth();
    for (int i = 0; i < 20; ++i)
        answer(in_, std::string(sizeof sysctl_result::packetId, 'x'), 1);
    EXPECT_FALSE(extension_.present(Direction::in, packet, 0).has_value());

    int unread = 0;
    ASSERT_EQ(ioctl(in_, SIOCOUTQ, &unread), 0);
    EXPECT_GT(unread, 0);
}

TEST_F(ExtensionStandInTest, ADaemonThatReadsNothingIsNotWaitedForWithoutEnd) {
    connectBoth();
    std::atomic<bool> over{false};
    std::thread reader([&] {
        EXPECT_TRUE(testsupport::eventually([&] { return over.load(); })) << "the daemon has had to read";
        while (!over)
            receive(in_);
    });
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(extension_.present(Direction::in, std::vector<char>(60000), 1));
    over = true;
    reader.join();
    EXPECT_TRUE(extension_.connected());
}

std::atomic<int> signals{0};

// Each millisecond, for whatever call this process waits in.
class Alarms {
public:
    Alarms() {
        struct sigaction noted {};
        noted.sa_handler = [](int) { ++signals; };
        sigaction(SIGALRM, &noted, &before_);
        const itimerval often{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Alarms() {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
        signal(SIGALRM, SIG_IGN); // one that is still on its way is taken back
        sigaction(SIGALRM, &before_, nullptr);
    }
    Alarms(const Alarms&) = delete;
    Alarms& operator=(const Alarms&) = delete;

private:
    struct sigaction before_ {};
};

TEST_F(ExtensionStandInTest, ASignalIsTakenForNoEndOfTheDaemon) {
    connectBoth();
    const std::vector<char> large(60000);
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(extension_.present(Direction::in, large, 0));
    std::atomic<bool> over{false};
    std::thread reader([&] {
        const Alarms alarms;
        const auto awaitMore = [&] {
            for (const int seen = signals; signals < seen + 20 && !over;)
                std::this_thread::yield();
        };
        awaitMore(); // it waits for room, and then for the answer
        pollfd waiting{in_, POLLIN, 0};
        while (!over) {
            if (poll(&waiting, 1, 10) != 1) continue;
            const std::string record = receive(in_);
            awaitMore();
            answer(in_, record, 0);
        }
    });
    EXPECT_TRUE(extension_.present(Direction::in, large, testsupport::patienceMilliseconds));
    over = true;
    reader.join();
    EXPECT_TRUE(extension_.connected());
}

TEST_F(ExtensionStandInTest, ADaemonThatHasGoneIsToldAtOnce) {
    connectBoth();
    EXPECT_TRUE(extension_.connected());
    close(out_);
    EXPECT_FALSE(extension_.present(Direction::out, packet, testsupport::patienceMilliseconds).has_value());
    EXPECT_FALSE(extension_.connected());
}

TEST_F(ExtensionStandInTest, ADaemonThatDoesNotComeIsNotWaitedForWithoutEnd) {
    EXPECT_FALSE(extension_.waitForDaemon(0));
}

TEST(ExtensionStandIn, ARootThatIsTooLongForASocketsNameIsAnError) {
    ExtensionStandIn extension("/" + std::string(100, 'r'));
    EXPECT_THROW(extension.listen(), std::runtime_error);
}

TEST(ExtensionStandIn, AFolderInPlaceOfASocketIsRefusedWithTheWayOut) {
    const testsupport::TemporaryFolder root;
    const std::string place = root.file("var/run/fernhill/twFernhill_outkext.options");
    std::filesystem::create_directories(place);
    ExtensionStandIn extension(root.path());
    try {
        extension.listen();
        ADD_FAILURE() << "it is taken for a socket";
    } catch (const lab::InputError& error) {
        EXPECT_EQ(error.what(), place + ": Is a directory; remove it, or give another folder");
    }
}

TEST(ExtensionStandIn, TheDaemonAnswersARecordThatComesInTwoMessages) {
    labtest::LabStage stage("allow *");
    stage.raise();
    const std::string get = labtest::Talk(47000).out(labtest::pushAck, labtest::get("www.example.org"));
    const auto result = stage.extension().present(Direction::out, {get.begin(), get.end()},
                                                  testsupport::patienceMilliseconds, RecordForm::headerFirst);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->result, labtest::hold);
    EXPECT_EQ(result->urlSeen, 1);
}

} // namespace
