// What the programs that the process starts get of its sockets, as Linux lists it.

#include "gp/GPSockets.h"

#include "gp/GPString.h"
#include "gp/GPTask.h"
#include "gp/Owned.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/ProcessDescriptors.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using testsupport::DescriptorList;

// A connection that has been written to, so that there is a queue as well.
class OpenSockets {
public:
    OpenSockets() : client_(listener_.port(), "127.0.0.1") {
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        testsupport::ManualClock::installed().letSleepsPass(true);
        names_.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
        names_.install();
        EXPECT_TRUE(client_.openConnection());
        EXPECT_TRUE(client_.writeString("ab"));
    }

private:
    testsupport::PlayedNames names_;
    testsupport::LoopbackListener listener_;
    GPSockets client_;
};

std::string listing(const DescriptorList& list) {
    std::string text;
    for (const auto& [number, target] : list)
        text += std::to_string(number) + " -> " + target + "\n";
    return text;
}

DescriptorList listedByGPTask() {
    const auto output = Owned<GPString>::adopt(GPTask::task(testsupport::listDescriptors, true, false));
    return testsupport::readDescriptors(output ? output->cstr() : "");
}

DescriptorList listedBySystem() {
    const testsupport::TemporaryFolder folder;
    const std::string file = folder.file("descriptors");
    EXPECT_EQ(std::system((std::string(testsupport::listDescriptors) + " > " + file).c_str()), 0);
    return testsupport::readDescriptors(testsupport::readAll(file));
}

void expectStandardStreams(const DescriptorList& list) {
    for (const int stream : {0, 1, 2})
        EXPECT_EQ(list.count(stream), 1u) << listing(list);
}

// What an accepted connection's thread sees of the programs that it starts.
void tellWhatSystemSees(GPSockets* client) {
    const std::string text = listing(listedBySystem());
    client->send(text.data(), static_cast<int>(text.size()));
}

TEST(GPSocketsInheritance, AProgramRunBySystemSeesTheStandardStreamsAlone) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        testsupport::closeInheritedDescriptors();
        const OpenSockets open;
        const DescriptorList seen = listedBySystem();
        expectStandardStreams(seen);
        EXPECT_EQ(seen.size(), 3u) << listing(seen);
    }));
}

TEST(GPSocketsInheritance, AProgramRunByGPTaskSeesTheStandardStreamsAndTheTwoEndsOfTheFailPipe) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        testsupport::closeInheritedDescriptors();
        const OpenSockets open;
        const DescriptorList seen = listedByGPTask();
        expectStandardStreams(seen);
        ASSERT_EQ(seen.size(), 5u) << listing(seen);
        const std::string& failPipe = std::next(seen.begin(), 3)->second;
        EXPECT_EQ(failPipe.substr(0, 5), "pipe:") << listing(seen);
        EXPECT_EQ(seen.rbegin()->second, failPipe) << listing(seen);
    }));
}

TEST(GPSocketsInheritance, AProgramRunWhileAConnectionIsServedSeesNeitherItNorTheListener) {
    const int port = testsupport::freePort();
    const testsupport::EndlessChild server([port] {
        testsupport::closeInheritedDescriptors();
        GPSockets listener(port, "127.0.0.1");
        listener.listenConnection(tellWhatSystemSees, 1);
    });
    const DescriptorList seen = testsupport::readDescriptors(testsupport::connectTo(port).readAll());
    expectStandardStreams(seen);
    EXPECT_EQ(seen.size(), 3u) << listing(seen);
}

} // namespace
