// The daemon beside an extension that goes away, takes no results, or sends records of any length.

#include "app/FaultsWorld.h"
#include "platform/ByteOrder.h"
#include "support/SystemCallFailure.h"
#include "support/Thorough.h"

#include <csignal>
#include <sys/syscall.h>

using lab::Direction;

namespace {

constexpr std::size_t recordHeader = 24;
constexpr std::size_t largestRecord = 65535;

class DaemonExtensionFaults : public FaultsWorld {
protected:
    // A record of that length: its id is the length, and its packet, which says that it is as long as it is, asks for
    // a page as far as it goes.
    static std::vector<char> recordOf(std::size_t length) {
        static const std::string packet =
            testsupport::PacketBuilder::ipv4()
                .payload("GET / HTTP/1.1\r\nHost: records.test\r\nCookie: " + std::string(largestRecord, 'a'))
                .put(2, std::string(2, '\0'))
                .bytes();
        std::vector<char> record(std::max(length, recordHeader + 4));
        platform::writeNative(record.data(), std::uint64_t{length});
        if (length > recordHeader)
            std::copy_n(packet.begin(), length - recordHeader, record.begin() + recordHeader);
        platform::writeBig16(&record[recordHeader + 2], static_cast<std::uint16_t>(length - recordHeader));
        record.resize(length);
        return record;
    }

    // What the daemon answers to it; -1 where it answers nothing, and the next packet as ever.
    int resultOf(Direction direction, std::size_t length) {
        EXPECT_TRUE(extension->sendBytes(direction, recordOf(length)));
        if (length <= recordHeader) return answers(direction) && extension->hasOnlyAnswered() ? -1 : -2;
        const auto result = extension->awaitAnyResult(direction, testsupport::patienceMilliseconds);
        return result && result->packetId == length ? result->result : -2;
    }

    // Records of every length up to 210 and of the longest, and of those between each, or every 15th. `urlFrom` is the
    // length from which on one is held; 0 for none.
    void expectAnswersToLengths(Direction direction, std::size_t urlFrom) {
        const std::size_t distance = testsupport::thorough() ? 1 : 15;
        static_assert((largestRecord - 210) % 15 == 0);
        for (std::size_t length = 0; length <= largestRecord; length += length < 210 ? 1 : distance) {
            if (length == recordHeader) continue; // its packet is the next message
            const int expected = length < recordHeader               ? -1
                                 : urlFrom != 0 && length >= urlFrom ? int{resultHold}
                                                                     : int{resultPass};
            ASSERT_EQ(resultOf(direction, length), expected) << length;
        }
    }

    // Whether the text is in some file of the log.
    bool someLogHas(const std::string& text) const {
        const std::filesystem::directory_iterator files(root.path() + "/Library/Logs/TarnwickSystems");
        return std::any_of(begin(files), end(files), [&](const auto& file) {
            return testsupport::readAll(file.path()).find(text) != std::string::npos;
        });
    }

    // The record's length with the packet's first line and its host whole.
    static constexpr std::size_t firstWithUrl =
        recordHeader + 40 + sizeof "GET / HTTP/1.1\r\nHost: records.test\r\n" - 1;
};

} // namespace

TEST_F(DaemonExtensionFaults, RecordsOfEveryLengthAreAnsweredOnTheWayOut) {
    startLinked();
    expectAnswersToLengths(Direction::out, firstWithUrl);
    EXPECT_NE(agent->awaitFrame(1).body.find("records.test"), std::string::npos);
    expectAPageToPass(40000);
}

TEST_F(DaemonExtensionFaults, RecordsOfEveryLengthAreAnsweredOnTheWayIn) {
    startLinked();
    expectAnswersToLengths(Direction::in, 0);
    expectAPageToPass(40000);
}

TEST_F(DaemonExtensionFaults, AHeaderAloneTakesTheNextMessageForItsPacket) {
    startLinked();
    for (Direction direction : {Direction::in, Direction::out}) {
        // A second message of up to 24 bytes is given up, and the first longer one is the packet.
        for (std::size_t second = 1; second <= recordHeader; ++second) {
            ASSERT_TRUE(extension->sendBytes(direction, recordOf(recordHeader)));
            ASSERT_TRUE(extension->sendBytes(direction, std::vector<char>(second)));
            ASSERT_TRUE(answers(direction)) << second;
        }
        ASSERT_TRUE(extension->sendBytes(direction, recordOf(recordHeader)));
        ASSERT_TRUE(extension->sendBytes(direction, std::vector<char>(recordHeader + 1)));
        const auto result = extension->awaitAnyResult(direction, testsupport::patienceMilliseconds);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->packetId, recordHeader);
        EXPECT_EQ(result->result, resultPass);
    }
    EXPECT_TRUE(extension->hasOnlyAnswered());
}

TEST_F(DaemonExtensionFaults, AnExtensionThatHasGoneLeavesTheLinkAndTheEndAsTheyWere) {
    startLinked();
    EXPECT_TRUE(answersBothDirections()); // so that both listeners have begun
    extension.reset();
    // Either direction alone fills the log's first file.
    EXPECT_TRUE(testsupport::eventually([this] { return someLogHas("INPUT bytes received -- IGNORED"); }));
    EXPECT_TRUE(testsupport::eventually([this] { return someLogHas("OUTPUT bytes received -- IGNORED"); }));
    daemon->changeConsoleUser("bob");
    EXPECT_NE(agent->awaitFrame(3).body.find("bob"), std::string::npos);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonExtensionFaults, AResultThatIsNotTakenIsToldOfAndTheNextPacketIsRead) {
    surroundings = [this] {
        playClock();
        // A send of a result answers 0 from now on, as though nothing had been taken.
        EXPECT_TRUE(testsupport::failSystemCall(SYS_sendto, 0, sizeof(sysctl_result), 2));
    };
    startLinked();
    for (const auto& [direction, name] :
         {std::pair(Direction::in, "INPUT"), std::pair(Direction::out, "OUTPUT")}) {
        for (const std::size_t number : {100, 101}) {
            ASSERT_TRUE(extension->sendBytes(direction, recordOf(number)));
            char line[120];
            std::snprintf(line, sizeof line,
                          "[0x%zx] Error sending %s result packet to system; bytes sent=0 expected=1072",
                          number, name);
            EXPECT_TRUE(daemon->awaitLog(line)) << line;
        }
    }
    EXPECT_NE(agent->awaitFrame(1).body.find("records.test"), std::string::npos);
}
