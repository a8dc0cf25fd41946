// The daemon on a machine whose extension does not load, or is not the one it knows.

#include "app/DaemonWorld.h"
#include "platform/HostPaths.h"

#include <csignal>
#include <cstddef>
#include <cstdlib>

using platform::HostPaths;

namespace {

class DaemonExtension : public DaemonWorld {
protected:
    // The daemon has no channel, says why, and still ends by a signal.
    void expectUpWithoutAChannel(const std::string& reason) {
        prepare().start();
        EXPECT_TRUE(daemon->awaitLog("[ERROR]: error loading FernhillKext: " + reason))
            << testing::PrintToString(daemon->log());
        EXPECT_EQ(agent->awaitFrame().type, 3u);
        EXPECT_EQ(agent->awaitFrame().type, 3u);
        EXPECT_TRUE(daemon->running());
        EXPECT_FALSE(daemon->logs("Starting OSX System Interface"));
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->awaitEnd(), 0);
    }

    // The daemon ends by itself.
    void expectEndWith(std::int32_t version, const std::vector<std::string>& lastLines) {
        prepare(version);
        if (version == 8) forgetControl(HostPaths::inboundControlSocket());
        daemon->start();
        EXPECT_TRUE(daemon->awaitLog(lastLines.back()));
        EXPECT_EQ(daemon->awaitEnd(), 1);
        const std::vector<std::string> log = daemon->mainLog();
        ASSERT_GE(log.size(), lastLines.size());
        EXPECT_EQ(
            std::vector<std::string>(log.end() - static_cast<std::ptrdiff_t>(lastLines.size()), log.end()),
            lastLines);
        EXPECT_EQ(daemon->output(), "");
    }
};

} // namespace

TEST_F(DaemonExtension, WithoutKextloadTheDaemonStaysUpWithoutAChannel) {
    setenv("PATH", "/usr/bin:/bin", 1);
    expectUpWithoutAChannel("GPTask exec failure: ");
}

TEST_F(DaemonExtension, WhateverKextloadPrintsTheDaemonStaysUpWithoutAChannel) {
    tools.programs().add("kextload", "echo all is well");
    expectUpWithoutAChannel("all is well");
}

TEST_F(DaemonExtension, AnErrorOfKextloadIsInTheLog) {
    tools.programs().add("kextload",
                         "echo 'FernhillKext.kext failed to load - (libkern/kext) not found' >&2");
    expectUpWithoutAChannel("FernhillKext.kext failed to load - (libkern/kext) not found");
}

TEST_F(DaemonExtension, AnUnknownInboundControlEndsTheDaemonWithStatus1) {
    expectEndWith(8, {"ERROR: Could not get ID for FernhillKernel. Make sure it is installed."});
}

TEST_F(DaemonExtension, Version7EndsTheDaemonWithStatus1) {
    expectEndWith(7, {"ERROR: Mis-matching FernhillKernel version (actual: 7, expecting: 8)",
                      "Aborting: FernhillKernel error -1."});
}

TEST_F(DaemonExtension, Version9EndsTheDaemonWithStatus1) {
    expectEndWith(9, {"ERROR: Mis-matching FernhillKernel version (actual: 9, expecting: 8)",
                      "Aborting: FernhillKernel error -1."});
}

TEST_F(DaemonExtension, WithAnUnknownOutboundControlTheInboundSideRunsOn) {
    prepare();
    forgetControl(HostPaths::outboundControlSocket());
    daemon->start();
    EXPECT_TRUE(daemon->awaitLog("ERROR: Could not get ID for FernhillKernel. Make sure it is installed."));
    EXPECT_TRUE(testsupport::eventually(
        [&] { return testsupport::ThreadList::waitOf(daemon->process(), daemon->process()) == "recv"; }));
    EXPECT_FALSE(extension->waitForDaemon(1)); // the inbound one is taken all the same
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_TRUE(daemon->running());
}
