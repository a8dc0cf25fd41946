// The control sockets of this system, against an extension that speaks bytes: what is sent and read here is
// spelled out, so that any program can play the extension.

#include "platform/KernelControl.h"

#include "platform/HostPaths.h"
#include "support/ProcessDescriptors.h"
#include "support/ScratchRoot.h"
#include "support/TemporaryFolder.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

using testsupport::TemporaryFolder;

namespace {

// A listening control socket at a path.
int listenAt(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, listen(listener, 4));
    return listener;
}

std::string receiveMessage(int socket) {
    char message[4096];
    const ssize_t size = recv(socket, message, sizeof message, 0);
    return size < 0 ? "(failed)" : std::string(message, static_cast<std::size_t>(size));
}

// A socket that is connected to one that listens at this path.
int connectedTo(const std::string& path) {
    listenAt(path);
    const int end = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(0, connect(end, reinterpret_cast<sockaddr*>(&address), sizeof address));
    return end;
}

class KernelControlSockets : public testing::Test {
protected:
    // Connects the daemon's end of the inbound control.
    int connected() {
        inbound_ = listenAt(platform::HostPaths::inboundControlSocket());
        const int socket = control_.open();
        std::uint32_t id = 0;
        EXPECT_EQ(0, control_.controlId(socket, "twFernhill_inkext", id));
        EXPECT_EQ(0, control_.connect(socket, id));
        return socket;
    }

    // Answers the next option call with these bytes, and keeps what was asked.
    void answerOption(const std::string& answer) {
        if (options_ < 0)
            options_ = listenAt(std::string(platform::HostPaths::inboundControlSocket()) + ".options");
        extension_ = std::thread([this, answer] {
            pollfd waiting = {options_, POLLIN, 0};
            poll(&waiting, 1, -1); // so that the caller's socket is there before this end of it
            const int call = accept(options_, nullptr, nullptr);
            asked_ = receiveMessage(call);
            send(call, answer.data(), answer.size(), MSG_NOSIGNAL);
            close(call);
        });
    }

    // What the option call asked, once it has been answered.
    std::string asked() {
        extension_.join();
        return asked_;
    }

    testsupport::ScratchRoot root_;
    platform::KernelControl& control_ = platform::kernelControlService.backend();
    int inbound_ = -1;
    int options_ = -1;
    std::thread extension_;
    std::string asked_;
};

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (int value : values)
        text += static_cast<char>(value);
    return text;
}

} // namespace

TEST_F(KernelControlSockets, AControlIsKnownByTheNameOfItsSocketWhileThatExists) {
    const int socket = control_.open();
    std::uint32_t in = 0;
    std::uint32_t out = 0;
    EXPECT_EQ(-1, control_.controlId(socket, "twFernhill_inkext", in));
    EXPECT_EQ(ENOENT, errno);

    listenAt(root_.path() + "/var/run/fernhill/twFernhill_inkext");
    listenAt(root_.path() + "/var/run/fernhill/twFernhill_outkext");

    EXPECT_EQ(0, control_.controlId(socket, "twFernhill_inkext", in));
    EXPECT_EQ(0, control_.controlId(socket, "twFernhill_outkext", out));
    EXPECT_NE(in, out);
    EXPECT_EQ(-1, control_.controlId(socket, "twFernhill", in));
}

TEST_F(KernelControlSockets, OneMessageIsOneRecordInEitherDirection) {
    const int daemon = connected();
    const int extension = accept(inbound_, nullptr, nullptr);

    send(extension, "header", 6, MSG_NOSIGNAL);
    send(extension, "packet", 6, MSG_NOSIGNAL);
    EXPECT_EQ("header", receiveMessage(daemon));
    EXPECT_EQ("packet", receiveMessage(daemon));

    send(daemon, "result", 6, MSG_NOSIGNAL);
    EXPECT_EQ("result", receiveMessage(extension));
}

TEST_F(KernelControlSockets, AnUnknownIdOrASocketNobodyListensAtCannotBeConnected) {
    const int socket = control_.open();
    EXPECT_EQ(-1, control_.connect(socket, 0));
    EXPECT_EQ(-1, control_.connect(socket, 3));

    close(listenAt(platform::HostPaths::outboundControlSocket()));
    std::uint32_t id = 0;
    ASSERT_EQ(0, control_.controlId(socket, "twFernhill_outkext", id));
    EXPECT_EQ(-1, control_.connect(socket, id));
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST_F(KernelControlSockets, SettingAnOptionSendsOperationOptionLengthAndValue) {
    const int socket = connected();
    answerOption(bytes({0, 0, 0, 0, 0, 0, 0, 0}));
    const std::int32_t level = 0x01020304;

    EXPECT_EQ(0, control_.setOption(socket, 70, &level, sizeof level));

    EXPECT_EQ(bytes({1, 0, 0, 0, 70, 0, 0, 0, 4, 0, 0, 0, 4, 3, 2, 1}), asked());
}

TEST_F(KernelControlSockets, ReadingAnOptionSendsNoValueAndTakesTheAnswers) {
    const int socket = connected();
    answerOption(bytes({0, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0}));
    std::int32_t version = 0;
    socklen_t length = sizeof version;

    EXPECT_EQ(0, control_.getOption(socket, 201, &version, length));

    EXPECT_EQ(8, version);
    EXPECT_EQ(4u, length);
    EXPECT_EQ(bytes({2, 0, 0, 0, 201, 0, 0, 0, 4, 0, 0, 0}), asked());
}

TEST_F(KernelControlSockets, AnAnswerShorterThanTheRoomTellsItsLengthAndALongerOneIsCut) {
    const int socket = connected();
    char buffer[4] = {'a', 'b', 'c', 'd'};
    socklen_t length = sizeof buffer;
    answerOption(bytes({0, 0, 0, 0, 2, 0, 0, 0}) + "xy");
    EXPECT_EQ(0, control_.getOption(socket, 224, buffer, length));
    EXPECT_EQ(2u, length);
    EXPECT_EQ("xycd", std::string(buffer, 4));
    asked();

    length = sizeof buffer;
    answerOption(bytes({0, 0, 0, 0, 8, 0, 0, 0}) + "12345678");
    EXPECT_EQ(0, control_.getOption(socket, 224, buffer, length));
    EXPECT_EQ(4u, length);
    EXPECT_EQ("1234", std::string(buffer, 4));
    asked();
}

TEST_F(KernelControlSockets, AStatusThatIsNot0IsTheErrorOfTheCall) {
    const int socket = connected();
    std::int32_t version = 5;
    socklen_t length = sizeof version;
    answerOption(bytes({ENOPROTOOPT, 0, 0, 0, 0, 0, 0, 0}));

    EXPECT_EQ(-1, control_.getOption(socket, 201, &version, length));
    EXPECT_EQ(ENOPROTOOPT, errno);
    EXPECT_EQ(5, version);
    asked();
}

TEST_F(KernelControlSockets, AnAnswerThatIsNoneFailsTheCall) {
    const int socket = connected();
    std::int32_t level = 0;
    answerOption("short");
    EXPECT_EQ(-1, control_.setOption(socket, 70, &level, sizeof level));
    EXPECT_EQ(EPROTO, errno);
    asked();

    answerOption("");
    errno = 0;
    EXPECT_EQ(-1, control_.setOption(socket, 70, &level, sizeof level));
    EXPECT_EQ(EPROTO, errno);
    asked();
}

TEST_F(KernelControlSockets, AnOptionCallMayBeDescriptor0) {
    const int socket = connected();
    options_ = listenAt(std::string(platform::HostPaths::inboundControlSocket()) + ".options");
    const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    const std::int32_t level = 7;
    answerOption(bytes({0, 0, 0, 0, 0, 0, 0, 0}));

    const int result = control_.setOption(socket, 70, &level, sizeof level);

    EXPECT_EQ(0, result);
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "the call's socket is left open";
    if (result != 0) shutdown(options_, SHUT_RDWR); // nobody has called
    asked();
    if (kept >= 0) dup2(kept, STDIN_FILENO);
}

TEST_F(KernelControlSockets, TheLongestPathOfAnOptionsSocketIsThatOfTheSystem) {
    const TemporaryFolder folder;
    const std::string suffix = ".options";
    const std::size_t room = sizeof(sockaddr_un::sun_path) - 1;
    const std::size_t length = room - suffix.size() - folder.path().size() - 1;
    const std::int32_t level = 7;
    const std::string path = folder.file(std::string(length, 'n'));
    options_ = listenAt(path + suffix);
    answerOption(bytes({0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0, control_.setOption(connectedTo(path), 70, &level, sizeof level)) << path + suffix;
    asked();

    const std::string longer = folder.file(std::string(length + 1, 'n'));
    EXPECT_EQ(-1, control_.setOption(connectedTo(longer), 70, &level, sizeof level));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(KernelControlSockets, WithoutAnOptionsSocketOrAConnectionTheCallFails) {
    std::int32_t level = 0;
    EXPECT_EQ(-1, control_.setOption(connected(), 70, &level, sizeof level));
    EXPECT_EQ(ENOENT, errno);

    EXPECT_EQ(-1, control_.setOption(control_.open(), 70, &level, sizeof level));
    EXPECT_EQ(ENOTCONN, errno);
}

TEST_F(KernelControlSockets, AnOptionCallThatTheSystemRefusesFailsAndKeepsNoDescriptor) {
    if (!testsupport::canFailCalls())
        GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    const long failures = testsupport::failEachCall([this] {
        std::filesystem::remove_all(root_.path() + "/var/run"); // the sockets of the run before
        const int socket = connected();
        answerOption(bytes({0, 0, 0, 0, 0, 0, 0, 0}));
        const std::int32_t level = 7;
        const auto before = testsupport::descriptorsOf(getpid());
        testsupport::beginCalls();
        const int result = control_.setOption(socket, 70, &level, sizeof level);
        const int error = errno;
        testsupport::endCalls();
        if (result != 0) shutdown(options_, SHUT_RDWR); // nobody may have called
        asked();
        const std::set<int> expected = {EMFILE, ENOTCONN, ECONNREFUSED, ECONNRESET};
        EXPECT_TRUE(result == 0 || (result == -1 && expected.count(error) == 1)) << error;
        EXPECT_EQ(testsupport::descriptorsOf(getpid()), before);
    });
    EXPECT_GE(failures, 5); // the control's name, a socket, its connection, and a message each way
}
