// No backend of this system opens what a program that is started meanwhile would be given.

#include "platform/ClosedOnExec.h"
#include "platform/ConsoleUser.h"
#include "platform/EventQueue.h"
#include "platform/InterfaceEntries.h"
#include "platform/KernelControl.h"
#include "platform/NetworkChanges.h"
#include "platform/UrlSession.h"
#include "platform/linux/LdapNode.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/ProcessDescriptors.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <iterator>
#include <string>

using testsupport::handedDown;
using testsupport::LoopbackListener;
using testsupport::Peer;

namespace {

const testsupport::DescriptorList before = handedDown();

bool isLocal(int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return address.ss_family == AF_UNIX;
}

// The sockets that would be handed down, but for local ones.
testsupport::DescriptorList handedDownNetworkSockets() {
    testsupport::DescriptorList list = handedDown();
    for (auto entry = list.begin(); entry != list.end();) {
        const bool isSocket = entry->second.rfind("socket:", 0) == 0;
        entry = isSocket && !isLocal(entry->first) ? std::next(entry) : list.erase(entry);
    }
    return list;
}

} // namespace

TEST(Descriptors, OfASocketOrAQueueAreNotHandedDown) {
    EXPECT_GE(platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0), 0);
    EXPECT_GE(platform::kqueue(), 0);
    EXPECT_EQ(handedDown(), before);
}

TEST(Descriptors, OfAClosedQueueAreGivenBack) {
    Peer mine;
    Peer other;
    testsupport::connectedPair(mine, other);
    const auto all = testsupport::descriptorsOf(getpid());
    const int queue = platform::kqueue();
    platform::KEvent change;
    change.ident = mine.descriptor();
    change.filter = platform::EVFILT_WRITE;
    change.flags = platform::EV_ADD;
    platform::KEvent event;
    EXPECT_EQ(platform::kevent(queue, &change, &event, 1, 0), 1);
    platform::closeQueue(queue);
    EXPECT_EQ(testsupport::descriptorsOf(getpid()), all);
}

TEST(Descriptors, OfAnAcceptedConnectionAreNotHandedDown) {
    LoopbackListener listener;
    const Peer client = testsupport::connectTo(listener.port());
    EXPECT_GE(platform::closedOnExecAccept(listener.descriptor(), nullptr, nullptr), 0);
    EXPECT_EQ(handedDown(), before);
}

TEST(Descriptors, OfTheServicesAreNotHandedDown) {
    EXPECT_GE(platform::kernelControlService.backend().open(), 0);
    EXPECT_GE(platform::systemInterfaceEntries().open(), 0);
    int error = 0;
    platform::NetworkChanges& network = platform::systemNetworkChanges();
    auto* const addresses = network.create(
        "name", [] {}, error);
    ASSERT_NE(addresses, nullptr);
    platform::ConsoleUser& console = platform::consoleUserService.backend();
    auto* const users = console.create("name", [](const void*, const void*, void*) {});
    ASSERT_NE(users, nullptr);
    EXPECT_EQ(handedDown(), before);
    network.release(addresses);
    console.release(users);
}

// Not said of the pair of local sockets that the library wakes itself with.
TEST(Descriptors, OfADownloadsConnectionAreNotHandedDown) {
    const testsupport::TemporaryFolder temporary;
    setenv("TMPDIR", temporary.path().c_str(), 1);
    testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    const testsupport::DescriptorList atFirst = handedDownNetworkSockets();
    LoopbackListener server;
    std::promise<long> ended;
    platform::urlSessionService.backend().downloadTask(
        ("http://127.0.0.1:" + std::to_string(server.port()) + "/p").c_str(),
        [&](const platform::UrlTaskResult& result) { ended.set_value(result.statusCode); });
    Peer connection = server.accept();
    connection.readUntil("\r\n\r\n");
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\na");
    EXPECT_EQ(handedDownNetworkSockets(), atFirst);
    connection.send("b");
    EXPECT_EQ(ended.get_future().get(), 200);
}

TEST(Descriptors, OfADirectorySearchAreNotHandedDown) {
    LoopbackListener server;
    platform::DirectoryQueryTerms terms;
    terms.recordType = platform::kODRecordTypeUsers;
    terms.attribute = platform::kODAttributeTypeRecordName;
    terms.queryValue = "alice";
    auto search = std::async(std::launch::async, [&] {
        platform::DirectoryRecords records;
        platform::DirectoryError error;
        const std::string uri = "ldap://127.0.0.1:" + std::to_string(server.port());
        return platform::LdapNode({uri, "dc=example"}).find(terms, records, error);
    });
    {
        Peer connection = server.accept();
        connection.read(1);
        EXPECT_EQ(handedDown(), before);
    }
    EXPECT_FALSE(search.get()) << "the server has hung up";
}
