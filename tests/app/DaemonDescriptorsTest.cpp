// What the programs that the daemon runs get of its descriptors, while both channels to the extension and the link to
// the agent are open.

#include "app/DaemonWorld.h"
#include "platform/HostPaths.h"
#include "support/ProcessDescriptors.h"

#include <algorithm>
#include <csignal>

using testsupport::DescriptorList;

namespace {

class DaemonDescriptors : public DaemonWorld {
protected:
    // A started daemon with all that it keeps open, of which it is to hand nothing down.
    void startWithEverythingOpen() {
        startDaemon("");
        daemon->changeConsoleUser("alice");
        agent->awaitFrame(3);
        ASSERT_TRUE(testsupport::eventually([this] {
            const DescriptorList own = testsupport::descriptorsOf(daemon->process());
            return count(own, "socket:") >= 3 && count(own, "anon_inode:[eventpoll]") >= 2;
        }));
    }

    // The commands of a program that writes down what it was given.
    // The file is there once all of it is.
    std::string listing() const {
        return std::string(testsupport::listDescriptors) + " > '" + file() + ".new'; mv '" + file() +
               ".new' '" + file() + "'";
    }

    // What it has written down. The standard streams are the test's.
    DescriptorList given() const {
        EXPECT_TRUE(testsupport::eventually([this] { return !testsupport::readAll(file()).empty(); }));
        DescriptorList list = testsupport::readDescriptors(testsupport::readAll(file()));
        EXPECT_GE(list.size(), 3u);
        list.erase(list.begin(), list.lower_bound(3));
        return list;
    }

    // How many of them are of a kind.
    static long count(const DescriptorList& list, const std::string& kind) {
        return std::count_if(list.begin(), list.end(),
                             [&](const auto& entry) { return entry.second.rfind(kind, 0) == 0; });
    }

    static void expectNothingOfTheDaemon(const DescriptorList& list, const std::string& root) {
        EXPECT_EQ(count(list, "socket:"), 0);
        EXPECT_EQ(count(list, "anon_inode:"), 0);
        EXPECT_EQ(count(list, root), 0);
    }

private:
    std::string file() const { return root.path() + "/descriptors"; }
};

} // namespace

TEST_F(DaemonDescriptors, AProgramRunByGPTaskGetsNoneButTheFailPipes) {
    startWithEverythingOpen();
    tools.programs().addAt(platform::HostPaths::dsconfigad(), listing());
    daemon->changeConsoleUser("bob");
    expectNothingOfTheDaemon(given(), root.path());
}

TEST_F(DaemonDescriptors, TheHelperOfAStagedUpdateGetsNone) {
    givenConfiguration("<Fernhill><UpdateReady>true</UpdateReady></Fernhill>");
    tools.programs().addAt(platform::HostPaths::updateCopyHelper(), listing());
    startWithEverythingOpen();
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    expectNothingOfTheDaemon(given(), root.path());
}
