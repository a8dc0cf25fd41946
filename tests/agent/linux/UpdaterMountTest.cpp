// The folder of update packages with a disk mounted on it, for which Linux gives a test a disk of its own.

#include "agent/Updater.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/AnswerServer.h"
#include "support/CapturedLog.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

TEST(UpdaterMount, ADiskInTheWorkingDirectorysPlaceIsRefusedWhoeverItSaysThatItIsOf) {
    const testsupport::ScratchRoot root;
    testsupport::ManualClock::installed().letSleepsPass(true);
    const fs::path folder = platform::HostPaths::packageDirectory();
    fs::create_directories(folder);
    const auto result = testsupport::runOnSmallDisk(folder, 65536, [&] {
        fs::permissions(folder, fs::perms::owner_all);
        testsupport::CapturedLog log;
        testsupport::AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\ncontent"});
        const auto url = Owned<GPString>::adopt(new GPString(server.url("/pkg.zip").c_str()));
        EXPECT_FALSE(Updater::processZip(url.get()));
        testsupport::connectTo(server.port()); // the one connection that the server waits for
        EXPECT_EQ(server.request(), "");
        EXPECT_TRUE(fs::is_empty(folder));
    });
    if (result == testsupport::NamespaceResult::unavailable) GTEST_SKIP() << "no disk of its own";
    EXPECT_EQ(result, testsupport::NamespaceResult::passed);
}
