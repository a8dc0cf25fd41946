// Live runs on machines that lack something or are laid out otherwise: what is said of it, and how soon.

#include "lab/LiveTraffic.h"
#include "lab/divert/PacketQueue.h"
#include "lab/divert/Tools.h"
#include "support/Patience.h"
#include "support/SystemCallFailure.h"

#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

using labtest::LabRun;
using labtest::runLab;
using testsupport::writeAll;

class DivertMachineTest : public labtest::LiveTraffic {
protected:
    LabRun run(const std::vector<std::string>& options = {}) {
        writeAll(policy_, "allow *\n");
        std::vector<std::string> words = {"divert", "--policy", policy_};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), {"--", "true"});
        return runLab(words);
    }

    // From now on all tools are the machine's own, but that one is the script, or for an empty one is not there.
    void playTool(const std::string& name, const std::string& script) {
        const fs::path tools = folder_.file("tools");
        fs::create_directory(tools);
        for (const char* tool :
             {"ip", "sh", "iptables", "ip6tables", "nginx", "dnsmasq", "openssl", "tcpdump", "true"}) {
            const fs::path system = fs::exists(fs::path("/usr/sbin") / tool) ? "/usr/sbin" : "/usr/bin";
            if (tool != name) fs::create_symlink(system / tool, tools / tool);
        }
        if (!script.empty()) {
            writeAll(tools / name, "#!/bin/sh\n" + script);
            fs::permissions(tools / name, fs::perms::owner_all);
        }
        setenv("PATH", tools.c_str(), 1);
    }
};

void expectOneLine(const LabRun& run, const std::string& line) {
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + line + "\n");
}

TEST_F(DivertMachineTest, AKernelWithoutNetfiltersSocketsIsNamedInOneLine) {
    ASSERT_TRUE(testsupport::failSystemCall(SYS_socket, EPROTONOSUPPORT, NETLINK_NETFILTER, 2));
    expectOneLine(run(), "divert: no netfilter socket: Protocol not supported");
}

TEST_F(DivertMachineTest, AQueueThatTheKernelDoesNotGiveIsTold) {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    const lab::PacketQueue queue(1);
    try {
        const lab::PacketQueue same(1); // which has its one owner
        FAIL();
    } catch (const lab::UnavailableError& error) {
        EXPECT_STREQ(error.what(), "divert: this kernel has no NFQUEUE: Operation not permitted");
    }
}

TEST_F(DivertMachineTest, AKernelWithoutTheTargetOfTheRulesIsNamedInOneLine) {
    playTool("iptables", "echo 'Extension NFQUEUE is not supported, missing kernel module?' >&2\nexit 2\n");
    expectOneLine(run(),
                  "'iptables -A INPUT ! -i lo -p tcp -m mark ! --mark 254 -j NFQUEUE --queue-num 0' failed: "
                  "Extension NFQUEUE is not supported, missing kernel module?");
}

TEST_F(DivertMachineTest, AServerThatIsNotInstalledIsNamedAtOnce) {
    playTool("nginx", "");
    const auto begin = std::chrono::steady_clock::now();
    expectOneLine(run(), "divert: nginx does not serve: exec of \"nginx\" failed: No such file or directory");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testsupport::patience);
}

TEST_F(DivertMachineTest, AServerThatEndsIsToldWithWhatItSaid) {
    playTool("dnsmasq", "echo; echo 'dnsmasq: it is not allowed here' >&2; exit 5\n");
    expectOneLine(run(), "divert: dnsmasq does not serve: dnsmasq: it is not allowed here");
}

// Its words would stand among the lab's own.
TEST(DivertHelperTest, AHelperWithoutItsFileIsNotStarted) {
    const pid_t helper = lab::startHelper({"true"}, "/nonexistent/file");
    int status = 0;
    EXPECT_EQ(waitpid(helper, &status, 0), helper);
    EXPECT_EQ(WEXITSTATUS(status), 127);
}

TEST_F(DivertMachineTest, AServerThatEndsWithoutAWordIsToldSo) {
    playTool("dnsmasq", "exit 5\n");
    expectOneLine(run(), "divert: dnsmasq does not serve: it says nothing");
}

TEST_F(DivertMachineTest, ARecorderThatCannotRecordIsToldWithWhatItSaid) {
    playTool("tcpdump", "");
    expectOneLine(run({"--record", folder_.file("x.pcap")}),
                  "divert: tcpdump does not record: tcpdump: No such file or directory");
}

TEST_F(DivertMachineTest, AFileThatCannotBeWrittenIsUnusable) {
    for (const char* option : {"--table", "--json", "--csv", "--watch"})
        expectOneLine(run({option, "/nonexistent/file"}), "/nonexistent/file: No such file or directory");
}

TEST_F(DivertMachineTest, AFileThatWouldEndWithTheRunIsUnusable) {
    for (const char* option : {"--table", "--json", "--csv", "--watch", "--record", "--root"})
        expectOneLine(run({option, "/run/divert.file"}),
                      "/run/divert.file: a live run has a /run of its own, which ends with it");
    fs::current_path("/run");
    EXPECT_EQ(run({"--table", "-"}).status, 0);
    fs::create_directory(folder_.file("run"));
    EXPECT_EQ(run({"--json", folder_.file("run/file")}).status, 0);
}

// Some systems keep what their resolver reads below /run.
TEST_F(DivertMachineTest, NamesAreFoundWhereTheResolversFileIsALinkIntoRun) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    const std::string etc = folder_.file("etc");
    ASSERT_EQ(std::system(("cp -a /etc " + etc).c_str()), 0);
    ASSERT_EQ(mount(etc.c_str(), "/etc", nullptr, MS_BIND, nullptr), 0);
    fs::remove("/etc/resolv.conf");
    fs::create_symlink("../run/divert-test/resolver/resolv.conf", "/etc/resolv.conf");
    const LabRun run = live("allow *\n", "curl -s http://any.test/page");
    EXPECT_NE(run.out.find("The page http://any.test/page"), std::string::npos) << run.out << run.err;
    ASSERT_EQ(umount2("/etc", MNT_DETACH), 0);
}

} // namespace
