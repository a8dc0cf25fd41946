// Reading, writing and closing over a connection whose other end the test plays.

#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/Eventually.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <string>

namespace {

using testsupport::CapturedLog;
using testsupport::ManualClock;
using testsupport::Peer;

std::string textOf(const GPData* data) {
    return data ? std::string(data->bytes(), static_cast<std::size_t>(data->length())) : "(null)";
}

std::string readText(GPSockets& socket) { return textOf(Owned<GPData>::adopt(socket.readData()).get()); }

// A GPSockets on one end of a connection whose other end the test plays.
class GPSocketsConnected : public testing::Test {
protected:
    GPSocketsConnected() {
        signal(SIGPIPE, SIG_IGN);
        testsupport::connectedPair(mine_, peer_);
        descriptor_ = mine_.descriptor();
        fcntl(descriptor_, F_SETFL, O_NONBLOCK);
        socket_.openConnection(mine_.handOver());
        waitsLastAtMost(testsupport::patienceMicroseconds);
    }

    static void waitsLastAtMost(std::int64_t realMicroseconds, bool movesTime = false) {
        ManualClock::installed().setEventWait(realMicroseconds, movesTime);
    }

    // Sends until the connection takes no more, nor comes to do so: what is on its way makes room when it arrives, of which
    // a system may tell 200 ms later.
    void fillTheConnection() {
        const std::string block(65536, 'x');
        pollfd room{descriptor_, POLLOUT, 0};
        do {
            while (socket_.send(block.data(), static_cast<int>(block.size())))
                filled_ += block.size();
        } while (poll(&room, 1, 500) > 0);
    }

    // Until what the peer sent or did has arrived.
    void waitForTheFirstByte() {
        pollfd arrived{descriptor_, POLLIN, 0};
        poll(&arrived, 1, testsupport::patienceMilliseconds);
    }

    Peer mine_;
    Peer peer_;
    int descriptor_ = -1;
    std::size_t filled_ = 0;
    GPSockets socket_;
};

TEST_F(GPSocketsConnected, WriteStringSendsTheTextWithItsZeroByte) {
    EXPECT_TRUE(socket_.writeString("ab"));
    socket_.closeConnection();
    EXPECT_EQ(peer_.readAll(), std::string("ab\0", 3));
}

TEST_F(GPSocketsConnected, WriteDataOfAGPStringSendsTheTextAlone) {
    GPString text("ab");
    EXPECT_TRUE(socket_.writeData(&text));
    socket_.closeConnection();
    EXPECT_EQ(peer_.readAll(), "ab");
}

TEST_F(GPSocketsConnected, WriteDataOfAGPDataSendsItsBytes) {
    const auto data = Owned<GPData>::adopt(GPData::dataWithData("a\0b", 3));
    EXPECT_TRUE(socket_.writeData(data.get()));
    EXPECT_EQ(peer_.read(3), std::string("a\0b", 3));
}

TEST_F(GPSocketsConnected, NothingToWriteIsRefused) {
    EXPECT_FALSE(socket_.writeString(nullptr));
    EXPECT_FALSE(socket_.writeData(nullptr, 4));
    EXPECT_FALSE(socket_.writeData("abc", -1));
    EXPECT_FALSE(socket_.writeData(static_cast<GPString*>(nullptr)));
    EXPECT_FALSE(socket_.writeData(static_cast<GPData*>(nullptr)));
}

TEST_F(GPSocketsConnected, ReadDataGivesWhatIsThereAtOneMoment) {
    peer_.send("first");
    EXPECT_EQ(readText(socket_), "first");
    peer_.send("second");
    long count = 0;
    EXPECT_EQ(textOf(Owned<GPData>::adopt(socket_.readData(count)).get()), "second");
    EXPECT_EQ(count, 6);
}

TEST_F(GPSocketsConnected, ReadStringStopsAtTheFirstZeroByteAndCountsAllBytes) {
    peer_.send(std::string("ab\0cd", 5));
    long count = 0;
    const auto text = Owned<GPString>::adopt(socket_.readString(count));
    EXPECT_STREQ(text->cstr(), "ab");
    EXPECT_EQ(count, 5);
    peer_.close();
    EXPECT_EQ(socket_.readString(), nullptr);
}

TEST_F(GPSocketsConnected, SocketStreamAppendsToTheDataItIsGiven) {
    GPData* data = GPData::dataWithData("have ", 5);
    const auto owner = Owned<GPData>::adopt(data);
    long count = 0;
    peer_.send("more");
    EXPECT_TRUE(socket_.socketStream(true, data, count));
    EXPECT_EQ(data, owner.get());
    EXPECT_EQ(textOf(data), "have more");
    EXPECT_EQ(count, 4);
}

TEST_F(GPSocketsConnected, AQuietPeerWithTimeoutFivePrintsTimeoutAfterFiveSecondsAndLeavesErrorAtZero) {
    waitsLastAtMost(0, true);
    const auto before = ManualClock::installed().seconds();
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Timeout\n");
    EXPECT_EQ(ManualClock::installed().seconds() - before, 5);
    EXPECT_EQ(socket_.error(), 0);
}

TEST_F(GPSocketsConnected, ATimeoutOfZeroWaitsWithoutLimit) {
    waitsLastAtMost(0, true);
    const auto before = ManualClock::installed().seconds();
    socket_.setTimeout(0);
    auto read = std::async(std::launch::async, [&] { return readText(socket_); });
    EXPECT_EQ(read.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    peer_.send("at last");
    EXPECT_EQ(read.get(), "at last");
    EXPECT_EQ(ManualClock::installed().seconds(), before) << "no limit was asked for";
}

TEST_F(GPSocketsConnected, APeerThatClosesWithDataWaitingGivesTheDataFirstThenNullWithErrorFromErrno) {
    peer_.send("last words");
    peer_.close();
    EXPECT_EQ(readText(socket_), "last words");
    EXPECT_EQ(socket_.error(), 0);
    errno = EXDEV;
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_EQ(socket_.error(), EXDEV);
}

TEST_F(GPSocketsConnected, AnOrderlyCloseWithErrnoAtZeroIsAnErrorAllTheSame) {
    peer_.close();
    errno = 0;
    long count = 7;
    EXPECT_EQ(socket_.readData(count), nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(socket_.error(), ECONNRESET);
}

TEST_F(GPSocketsConnected, ABrokenConnectionLeavesItsErrno) {
    peer_.reset();
    errno = 0;
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_EQ(socket_.error(), ECONNRESET);
}

TEST(GPSockets, AReadEventWithNoBytesIsReadAsNothing) {
    ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    Peer receiver(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(receiver.descriptor(), reinterpret_cast<sockaddr*>(&address), length);
    getsockname(receiver.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    sendto(receiver.descriptor(), "", 0, 0, reinterpret_cast<sockaddr*>(&address), length);
    GPSockets socket;
    socket.openConnection(receiver.handOver());
    long count = 7;
    EXPECT_EQ(socket.readData(count), nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_NE(socket.error(), 0);
}

TEST_F(GPSocketsConnected, AnErrorThatOneThreadMeetsIsSeenByAnother) {
    const auto reader = std::async(std::launch::async, [this] { readText(socket_); });
    EXPECT_EQ(socket_.error(), 0);
    peer_.close();
    EXPECT_TRUE(testsupport::eventually([this] { return socket_.error() != 0; }));
    reader.wait();
}

TEST_F(GPSocketsConnected, ASetErrorIsReadBack) {
    socket_.setError(EPIPE);
    EXPECT_EQ(socket_.error(), EPIPE);
    socket_.setError(0);
    EXPECT_EQ(socket_.error(), 0);
}

TEST_F(GPSocketsConnected, AWriteThatCannotGoOutTimesOut) {
    fillTheConnection();
    waitsLastAtMost(0);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(socket_.writeData("more", 4));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Timeout\n");
    EXPECT_EQ(socket_.error(), 0);
}

TEST_F(GPSocketsConnected, AReadDropsTheWriteEventThatATimedOutWriteLeftBehind) {
    fillTheConnection();
    waitsLastAtMost(0);
    EXPECT_FALSE(socket_.writeData("more", 4));
    waitsLastAtMost(testsupport::patienceMicroseconds);
    peer_.read(filled_);
    peer_.send("reply");
    EXPECT_EQ(readText(socket_), "reply");
    peer_.send("another");
    EXPECT_EQ(readText(socket_), "another");
}

TEST_F(GPSocketsConnected, AWritePassesOverUnreadDataThatWasReportedBefore) {
    peer_.send("one");
    EXPECT_EQ(readText(socket_), "one");
    peer_.send("two");
    EXPECT_TRUE(socket_.writeData("answer", 6));
    EXPECT_EQ(peer_.read(6), "answer");
    EXPECT_EQ(readText(socket_), "two");
}

TEST_F(GPSocketsConnected, AWriteThatCannotGoOutMeetsUnreadDataOnceAndTimesOut) {
    peer_.send("one");
    EXPECT_EQ(readText(socket_), "one");
    fillTheConnection();
    peer_.send("two");
    waitForTheFirstByte();
    waitsLastAtMost(0);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(socket_.writeData("more", 4));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Timeout\n");
    EXPECT_EQ(readText(socket_), "two");
}

TEST_F(GPSocketsConnected, AWriteThatMeetsTheEndOfThePeersStreamFailsAtOnce) {
    const CapturedLog log;
    peer_.send("one");
    EXPECT_EQ(readText(socket_), "one");
    fillTheConnection();
    shutdown(peer_.descriptor(), SHUT_WR);
    waitForTheFirstByte();
    waitsLastAtMost(0);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(socket_.writeData("more", 4));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "this is no time-out";
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(socket_.error(), 0);
}

TEST_F(GPSocketsConnected, AWaitThatASignalInterruptsEndsAsATimeOut) {
    EXPECT_TRUE(testsupport::passesInChild([this] {
        struct sigaction interrupting {};
        interrupting.sa_handler = [](int) {};
        sigaction(SIGALRM, &interrupting, nullptr);
        socket_.setTimeout(0);
        ualarm(20000, 20000);
        testing::internal::CaptureStdout();
        EXPECT_EQ(socket_.readData(), nullptr);
        ualarm(0, 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Timeout\n");
        EXPECT_EQ(socket_.error(), 0);
    }));
}

TEST_F(GPSocketsConnected, AWriteAfterAReadSawTheEndOfTheStreamFails) {
    peer_.reset();
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_FALSE(socket_.writeData("x", 1));
}

TEST_F(GPSocketsConnected, AQueueMayHaveTheNumberZero) {
    EXPECT_TRUE(testsupport::passesInChild([this] {
        close(0);
        peer_.send("text");
        EXPECT_EQ(readText(socket_), "text");
        EXPECT_NE(fcntl(0, F_GETFD), -1);
        socket_.closeConnection();
        EXPECT_EQ(fcntl(0, F_GETFD), -1) << "closed like every other";
    }));
}

TEST_F(GPSocketsConnected, AnErrorEventIsLoggedAndTheNextReadMakesANewQueue) {
    const CapturedLog log;
    peer_.send("first");
    EXPECT_EQ(readText(socket_), "first");
    // Away with the descriptor and back again.
    const int kept = dup(descriptor_);
    close(descriptor_);
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_TRUE(log.holds("ERROR: EV_ERROR - " + std::to_string(EBADF)));
    EXPECT_EQ(socket_.error(), 0) << "an error event is not a closed peer";
    ASSERT_EQ(dup2(kept, descriptor_), descriptor_);
    close(kept);
    peer_.send("second");
    EXPECT_EQ(readText(socket_), "second");
}

TEST_F(GPSocketsConnected, SendSendsEverythingAtOnceOrSaysFalse) {
    EXPECT_TRUE(socket_.send("plain", 5));
    EXPECT_EQ(peer_.read(5), "plain");
    EXPECT_TRUE(socket_.send("", 0));
    EXPECT_FALSE(socket_.send("x", -1));
    const std::string block(16 * 1024 * 1024, 'x');
    EXPECT_FALSE(socket_.send(block.data(), static_cast<int>(block.size()))) << "a full buffer is a failure";
}

TEST_F(GPSocketsConnected, SendToAClosedPeerIsFalse) {
    peer_.reset();
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_FALSE(socket_.send("x", 1));
}

TEST_F(GPSocketsConnected, CloseConnectionEndsTheStreamBothWays) {
    socket_.closeConnection();
    EXPECT_EQ(peer_.readAll(), "");
    EXPECT_EQ(fcntl(descriptor_, F_GETFD), -1);
}

TEST_F(GPSocketsConnected, CloseConnectionEndsTheStreamForAnotherHolderOfItToo) {
    const Peer kept(dup(descriptor_));
    socket_.closeConnection();
    EXPECT_EQ(peer_.readAll(), "");
    char byte = 0;
    EXPECT_EQ(recv(kept.descriptor(), &byte, 1, MSG_DONTWAIT), 0) << "shut for reading";
    EXPECT_EQ(send(kept.descriptor(), "x", 1, MSG_DONTWAIT), -1) << "shut for writing";
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(GPSocketsConnected, ClosingTwiceLeavesTheNextOwnerOfTheNumberAlone) {
    socket_.closeConnection();
    ASSERT_EQ(dup2(peer_.descriptor(), descriptor_), descriptor_);
    socket_.closeConnection();
    EXPECT_NE(fcntl(descriptor_, F_GETFD), -1);
    close(descriptor_);
}

TEST_F(GPSocketsConnected, AClosedObjectIsNotOpenedAgainByAWriteNorReadsFromTheNextOwnerOfTheNumber) {
    const CapturedLog log;
    Peer next;
    Peer sender;
    testsupport::connectedPair(next, sender);
    socket_.closeConnection();
    ASSERT_EQ(dup2(next.descriptor(), descriptor_), descriptor_);
    sender.send("not for you");
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_FALSE(socket_.writeData("x", 1));
    EXPECT_EQ(log.countContaining("ERROR: EV_ERROR - "), 2);
    EXPECT_EQ(next.read(11), "not for you");
    close(descriptor_);
}

// An object that has taken over a second descriptor, while its queue still watches the first.
class GPSocketsWithAnOldDescriptor : public GPSocketsConnected {
protected:
    GPSocketsWithAnOldDescriptor() {
        peer_.send("first");
        EXPECT_EQ(readText(socket_), "first");
        Peer second;
        testsupport::connectedPair(second, newPeer_);
        socket_.openConnection(second.handOver());
    }
    ~GPSocketsWithAnOldDescriptor() override { close(descriptor_); }

    Peer newPeer_;
};

TEST_F(GPSocketsWithAnOldDescriptor, AReadPassesOverAnEventOfTheOldOne) {
    peer_.send("stray");
    waitForTheFirstByte();
    newPeer_.send("wanted");
    EXPECT_EQ(readText(socket_), "wanted");
    EXPECT_EQ(socket_.error(), 0);
}

TEST_F(GPSocketsWithAnOldDescriptor, AReadEndsWithAnErrorWhenThePeerOfTheOldOneCloses) {
    const CapturedLog log;
    peer_.close();
    waitForTheFirstByte();
    errno = EXDEV;
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_EQ(socket_.error(), 32768);
    EXPECT_TRUE(log.holds("EV_EOF error " + std::to_string(EXDEV)));
}

int lowestFreeDescriptor() {
    const int lowest = dup(2);
    close(lowest);
    return lowest;
}

TEST(GPSockets, AnErrorEventGivesTheQueueBack) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        const CapturedLog log;
        const int before = lowestFreeDescriptor();
        GPSockets socket;
        socket.openConnection(1000); // nobody's
        EXPECT_EQ(socket.readData(), nullptr);
        EXPECT_EQ(log.countContaining("ERROR: EV_ERROR - "), 1);
        EXPECT_EQ(lowestFreeDescriptor(), before);
    }));
}

TEST(GPSockets, ClosingGivesTheQueueBackEvenIfNothingWasEverOpened) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        int quiet[2];
        ASSERT_EQ(pipe(quiet), 0);
        ASSERT_EQ(dup2(quiet[0], 0), 0);
        ManualClock::installed().setEventWait(0, false);
        const int before = lowestFreeDescriptor();
        GPSockets socket;
        EXPECT_EQ(socket.readData(), nullptr);
        EXPECT_NE(lowestFreeDescriptor(), before);
        socket.closeConnection();
        EXPECT_EQ(lowestFreeDescriptor(), before);
    }));
}

} // namespace
