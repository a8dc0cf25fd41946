// What becomes of answers that a world gives, as they should be and as they should not.

#include "machost/world/World.h"
#include "machost/Imports.h"
#include "machost/Settings.h"
#include "machost/world/Changes.h"
#include "machost/world/Dialogs.h"
#include "machost/world/Directory.h"
#include "machost/world/Downloads.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

using machost::world::Words;
using testing::ExitedWithCode;

template <class Function>
Function* played(const char* symbol) {
    return reinterpret_cast<Function*>(const_cast<void*>(machost::findImport("", symbol)->address));
}

// Answers every question with the same messages, one after the other, whatever is asked.
class ForeignWorld : public testing::Test {
protected:
    ForeignWorld() {
        machost::settings().world = folder.file("world");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        machost::settings().world.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 8), 0);
    }

    // From now on; the thread goes with the process.
    void answer(const std::vector<Words>& answers, int handedOver = -1) const {
        std::thread([listener = listener, answers, handedOver] {
            for (;;) {
                const int connection = accept(listener, nullptr, nullptr);
                char question[4096];
                static_cast<void>(recv(connection, question, sizeof question, 0));
                for (const Words& words : answers)
                    send(connection, words, handedOver);
                char byte = 0; // until the asker hangs up
                while (recv(connection, &byte, 1, 0) > 0) {
                }
                close(connection);
            }
        }).detach();
    }

    testsupport::TemporaryFolder folder;

private:
    static void send(int connection, const Words& words, int handedOver) {
        std::string message;
        for (const std::string& word : words)
            message += word + '\0';
        iovec part{message.data(), message.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof handedOver)] = {};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        if (handedOver >= 0) {
            header.msg_control = control;
            header.msg_controllen = sizeof control;
            cmsghdr* extra = CMSG_FIRSTHDR(&header);
            extra->cmsg_level = SOL_SOCKET;
            extra->cmsg_type = SCM_RIGHTS;
            extra->cmsg_len = CMSG_LEN(sizeof handedOver);
            std::memcpy(CMSG_DATA(extra), &handedOver, sizeof handedOver);
        }
        EXPECT_EQ(sendmsg(connection, &header, MSG_NOSIGNAL), static_cast<ssize_t>(message.size()));
    }

    int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
};

using ForeignWorldDeathTest = ForeignWorld;

// struct hostent of the Mac.
struct HostEntry {
    char* name;
    char** aliases;
    int family, length;
    char** addresses;
};

TEST_F(ForeignWorld, AnswersOfAnyLengthComeWhole) {
    Words words = {"yes", "many.example"};
    for (int i = 0; i < 10000; ++i)
        words.push_back("10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250));
    answer({words});
    const HostEntry* host = played<HostEntry*(const char*, int)>("_gethostbyname2")("many.example", 2);
    ASSERT_NE(host, nullptr);
    int count = 0;
    while (host->addresses[count])
        ++count;
    EXPECT_EQ(count, 10000);
}

TEST_F(ForeignWorld, InterfacesAreListedWhileMoreThanOneEntrysRoomIsLeft) {
    const std::string entry = "656e3000" + std::string(24, '0') + "1002" + std::string(28, '0'); // en0, IPv4
    answer({{"yes", entry + entry}});
    const auto listedIn = [](std::int32_t size) {
        char room[128];
        struct {
            std::int32_t length;
            char* room;
        } __attribute__((packed)) list = {size, room};
        EXPECT_EQ(played<int(int, unsigned long, ...)>("_ioctl")(0, 0xc00c6924UL, &list), 0);
        return list.length;
    };
    EXPECT_EQ(listedIn(32), 0);
    EXPECT_EQ(listedIn(33), 32);
    EXPECT_EQ(listedIn(64), 32); // as bsd/net/if.c of xnu has it
    EXPECT_EQ(listedIn(65), 64);
    EXPECT_EQ(listedIn(128), 64);
}

TEST_F(ForeignWorld, AnInterfaceThatIsCutIsLeftOut) {
    answer({{"yes", "656e3000" + std::string(24, '0') + "ff02"}});
    char room[512];
    struct {
        std::int32_t length;
        char* room;
    } __attribute__((packed)) list = {sizeof room, room};
    EXPECT_EQ(played<int(int, unsigned long, ...)>("_ioctl")(0, 0xc00c6924UL, &list), 0);
    EXPECT_EQ(list.length, 0);
}

TEST_F(ForeignWorld, AnUnansweredQuestionIsThisMachines) {
    machost::settings().world = folder.file("nobody");
    EXPECT_GT(played<std::int64_t(std::int64_t*)>("_time")(nullptr), 1000000000);
}

constexpr const char* nonsense = "machost: the world's answer is nonsense: ";

TEST_F(ForeignWorldDeathTest, AFirstWordThatThereIsNotEndsTheProgram) {
    answer({{"perhaps"}});
    const auto ask = [] { played<HostEntry*(const char*, int)>("_gethostbyname2")("name", 2); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "perhaps");
}

TEST_F(ForeignWorldDeathTest, AnEmptyFirstWordEndsTheProgram) {
    answer({{""}});
    int error = 0;
    EXPECT_EXIT(machost::world::watchNetwork("name", error), ExitedWithCode(72), nonsense);
}

TEST_F(ForeignWorldDeathTest, ATimeThatIsNoNumberEndsTheProgram) {
    answer({{"yes", "soon"}});
    const auto ask = [] { played<std::int64_t(std::int64_t*)>("_time")(nullptr); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "soon");
}

TEST_F(ForeignWorldDeathTest, ATimeThatIsMissingEndsTheProgram) {
    answer({{"yes"}});
    const auto ask = [] { played<std::int64_t(std::int64_t*)>("_time")(nullptr); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), nonsense);
}

TEST_F(ForeignWorldDeathTest, ATimesMemoryThatIsTooSmallEndsTheProgram) {
    answer({{"yes"}}, memfd_create("time", 0));
    const auto ask = [] { played<std::int64_t(std::int64_t*)>("_time")(nullptr); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), nonsense);
}

TEST_F(ForeignWorldDeathTest, InterfacesThatAreNoDigitsEndTheProgram) {
    answer({{"yes", "0g"}});
    char room[64];
    struct {
        std::int32_t length;
        char* room;
    } __attribute__((packed)) list = {sizeof room, room};
    const auto ask = [&] { played<int(int, unsigned long, ...)>("_ioctl")(0, 0xc00c6924UL, &list); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "0g");
}

TEST_F(ForeignWorldDeathTest, AReasonThatIsNoNumberEndsTheProgram) {
    answer({{"no", "because"}});
    int error = 0;
    EXPECT_EXIT(machost::world::watchConsole("name", error), ExitedWithCode(72),
                std::string(nonsense) + "because");
}

TEST_F(ForeignWorldDeathTest, ADialogsFlagsThatAreNoNumberEndTheProgram) {
    answer({{"yes"}, {"yes", "left"}});
    const auto ask = [] { machost::world::showDialog(0, 0, {})->awaitAnswer(); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "left");
}

TEST_F(ForeignWorldDeathTest, AStatusThatIsNoNumberEndsTheProgram) {
    answer({{"yes", "fine", "", ""}});
    const auto ask = [] { machost::world::transfer({"GET", "http://name/", ""}, [](const auto&) {}); };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "fine");
}

TEST_F(ForeignWorldDeathTest, ACountOfValuesThatIsNoNumberEndsTheProgram) {
    answer({{"yes"}, {"yes", "1"}, {"yes", "7", "type", "record"}, {"yes", "name", "-1", "value"}});
    const auto ask = [] {
        std::string problem;
        machost::world::DirectoryRecords records;
        machost::world::DirectoryDetails details;
        const auto node = machost::world::directoryNodeNamed("/Search", problem);
        node->query({}, problem)->results(false, records, problem);
        static_cast<void>(records.at(0)->details({"name"}, details, problem));
    };
    EXPECT_EXIT(ask(), ExitedWithCode(72), std::string(nonsense) + "-1");
}

TEST_F(ForeignWorldDeathTest, AQuestionThatFindsNoRoomEndsTheProgram) {
    answer({});
    const auto ask = [] {
        machost::world::transfer({"POST", "http://name/", std::string(4000000, 'x')}, [](const auto&) {});
    };
    EXPECT_EXIT(ask(), ExitedWithCode(72), "machost: the question \"url\" is too long for the world");
}

} // namespace
