// Real programs meet the daemon over real TCP: what arrives, what does not, and how soon.

#include "lab/LiveTraffic.h"
#include "support/Eventually.h"
#include "support/FixedPorts.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

namespace {

namespace fs = std::filesystem;

using labtest::LabRun;
using labtest::linesOf;
using labtest::LiveTraffic;
using labtest::runLab;
using testsupport::readAll;
using testsupport::writeAll;

using DivertTest = LiveTraffic;

constexpr char servedFile[] = "/run/fernhill-lab/www/noise";
constexpr char longName[] =
    "'a browser with a name so long that the redirect has room in place of the request'";

// A curl that tells its status, the time that it took, the HTTP status and where it ended.
std::string curl(const std::string& arguments) {
    return "curl -s --max-time 30 -w '%{exitcode} %{time_total} %{http_code} %{url_effective}\\n' -A " +
           std::string(longName) + " " + arguments + "\n";
}

struct Outcome {
    int status = -1; // of curl
    double seconds = 0;
    int httpStatus = 0;
    std::string url;
};

Outcome outcomeOf(const std::string& line) {
    Outcome outcome;
    std::istringstream(line) >> outcome.status >> outcome.seconds >> outcome.httpStatus >> outcome.url;
    return outcome;
}

// What became of a connection; a repeated packet of the server's can have been dropped on the way.
std::string kindOf(const std::string& verdict) {
    return verdict.rfind("passed, ", 0) == 0 ? "passed" : verdict;
}

TEST_F(DivertTest, AnAllowedPageArrivesUnchangedOverEachProtocol) {
    std::string script;
    for (const char* way : {"-4 http", "-6 http", "-4 https", "-6 https"})
        script += curl(std::string(way) + "://good.test/noise -o " + folder_.file("page")) + "cmp " +
                  folder_.file("page") + " " + servedFile + " && echo unchanged\n";
    const LabRun run = live("allow *good.test*\n", script);
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 8u) << run.out << run.err;
    for (std::size_t i = 0; i < lines.size(); i += 2) {
        EXPECT_EQ(outcomeOf(lines[i]).httpStatus, 200) << lines[i];
        EXPECT_EQ(lines[i + 1], "unchanged");
    }
    ASSERT_EQ(connections().size(), 4u);
    for (const auto& connection : connections())
        EXPECT_EQ(kindOf(connection["verdict"]), "passed") << connection;
}

TEST_F(DivertTest, ABlockedPageEndsAtTheBlockPageByWayOfThe302) {
    const LabRun run =
        live("block *bad* http://localhost:6543/blocked\n",
             curl("-4 -o /dev/null http://bad.test/page") + curl("-6 -o /dev/null http://bad.test/page") +
                 curl("-L -4 http://bad.test/followed") + curl("-L 'http://[fd53:2::2]/bad'"));
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 6u) << run.out << run.err;
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_EQ(outcomeOf(lines[i]).httpStatus, 302) << lines[i];
    for (std::size_t i = 2; i < 6; i += 2) {
        EXPECT_NE(lines[i].find("This page is blocked"), std::string::npos) << lines[i];
        EXPECT_EQ(outcomeOf(lines[i + 1]).httpStatus, 200);
        EXPECT_EQ(outcomeOf(lines[i + 1]).url, "http://localhost:6543/blocked");
    }
    for (const auto& connection : connections())
        EXPECT_EQ(connection["verdict"], "redirected") << connection;
}

TEST_F(DivertTest, TheServerNeverSeesABlockedRequestAndItsConnectionIsClosed) {
    const LabRun run = live("block *bad* http://localhost:6543/blocked\n",
                            curl("-4 -o /dev/null http://bad.test/page") +
                                "wc -c < /run/fernhill-lab/nginx.access\n"
                                "ip netns exec servers cat /proc/net/tcp | grep -c ':0050 .* 01 '\n");
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 3u) << run.out << run.err;
    EXPECT_EQ(lines[1], "0");
    EXPECT_EQ(lines[2], "0");
}

TEST_F(DivertTest, ABlockedTlsConnectionFailsAtOnce) {
    const LabRun run = live("block https://bad.test http://localhost:6543/blocked\n",
                            curl("-4 https://bad.test/") + curl("-6 https://bad.test/"));
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 2u) << run.out << run.err;
    for (const std::string& line : lines) {
        EXPECT_EQ(outcomeOf(line).status, 35) << line; // ended in the handshake, not timed out
    }
    for (const auto& connection : connections())
        EXPECT_EQ(connection["verdict"], "redirected") << connection;
}

TEST_F(DivertTest, ASlowAnswerOnlyDelays) {
    const LabRun run = live("slow 600 *slow.test*\n", curl("-4 -o /dev/null http://slow.test/noise") +
                                                          curl("-6 -o /dev/null https://slow.test/noise"));
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 2u) << run.out << run.err;
    for (const std::string& line : lines) {
        EXPECT_EQ(outcomeOf(line).httpStatus, 200) << line;
        EXPECT_GE(outcomeOf(line).seconds, 0.6) << line;
    }
}

TEST_F(DivertTest, AQuestionThatTheAgentWantsAgainIsAskedAgainAndThenAllowed) {
    const LabRun run = live("retry 2 *again.test*\n", curl("-4 -o /dev/null http://again.test/noise"));
    EXPECT_EQ(outcomeOf(run.out).httpStatus, 200) << run.out;
    EXPECT_EQ(connectionOf("http://again.test/noise")["answer"], "retry x2, allow");
}

TEST_F(DivertTest, ASilentAgentLeavesRequestsHeld) {
    const LabRun run = live("silent *\n", curl("--max-time 5 -4 http://one.test/") +
                                              curl("--max-time 5 -6 https://two.test/"));
    for (const std::string& line : linesOf(run.out))
        EXPECT_EQ(outcomeOf(line).status, 28) << line; // timed out
    EXPECT_EQ(connectionOf("http://one.test/")["verdict"], "held to the end");
    EXPECT_EQ(connectionOf("https://two.test")["verdict"], "held to the end");
}

TEST_F(DivertTest, AnAbsentAgentLeavesRequestsHeld) {
    const LabRun run =
        live("allow *\n", curl("--max-time 5 -4 http://one.test/"), {"--no-agent", "--bof", "on"});
    EXPECT_EQ(outcomeOf(run.out).status, 28) << run.out << run.err;
    EXPECT_EQ(connectionOf("http://one.test/")["verdict"], "held to the end");
    EXPECT_EQ(connectionOf("http://one.test/")["answer"], "none");
}

TEST_F(DivertTest, ANonsenseAnswerPassesWithBlockOnFailureOff) {
    const LabRun run =
        live("garble *\n", curl("-L -4 -o /dev/null http://page.test/noise"), {"--bof", "off"});
    EXPECT_EQ(outcomeOf(run.out).url, "http://page.test/noise");
    EXPECT_EQ(outcomeOf(run.out).httpStatus, 200);
}

TEST_F(DivertTest, ANonsenseAnswerEndsAtTheBlockPageWithBlockOnFailureOn) {
    const LabRun run = live("garble *\n", curl("-L -4 -o /dev/null http://page.test/noise"), {"--bof", "on"});
    EXPECT_EQ(outcomeOf(run.out).url, "http://localhost:6543/block_screen.html/?id=error");
    EXPECT_EQ(outcomeOf(run.out).httpStatus, 200);
}

TEST_F(DivertTest, ABlockedRequestShorterThanThe302IsHeldAndALongerOneRedirected) {
    const LabRun run = live("block * http://localhost:6543/blocked\n",
                            curl("--max-time 5 -4 -A '' -H Accept: http://bad.test/short") +
                                curl("-4 -o /dev/null http://bad.test/long"));
    const auto lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 2u) << run.out << run.err;
    EXPECT_EQ(outcomeOf(lines[0]).status, 28);
    EXPECT_EQ(outcomeOf(lines[1]).httpStatus, 302);
    EXPECT_EQ(connectionOf("http://bad.test/short")["verdict"], "held to the end");
    EXPECT_EQ(connectionOf("http://bad.test/long")["verdict"], "redirected");
}

TEST_F(DivertTest, UdpPasses) {
    writeAll(folder_.file("echo.py"), "import socket, sys\n"
                                      "peer = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)\n"
                                      "if sys.argv[1] == 'serve':\n"
                                      "    peer.bind(('::', 7))\n"
                                      "    print('ready', flush=True)\n"
                                      "    while True: peer.sendto(*peer.recvfrom(2000))\n"
                                      "for server in '::ffff:10.53.2.2', 'fd53:2::2':\n"
                                      "    peer.sendto(server.encode() * 50, (server, 7))\n"
                                      "    peer.settimeout(5)\n"
                                      "    print(peer.recv(2000) == server.encode() * 50)\n");
    const std::string program = "python3 " + folder_.file("echo.py");
    const LabRun run = live("block * http://localhost:6543/blocked\n",
                            "coproc ip netns exec servers " + program + " serve\nread -u ${COPROC[0]}\n" +
                                program + " ask\n");
    EXPECT_EQ(linesOf(run.out), (std::vector<std::string>{"True", "True"})) << run.err;
    EXPECT_NE(run.err.find("The daemon was shown 4 packets and left 0 without an answer: 4 passed"),
              std::string::npos)
        << run.err;
}

TEST_F(DivertTest, NothingBeyondTheNetworksOfTheLabCanBeReached) {
    const LabRun run = live("allow *\n", "ip -br link | grep -vcE '^(lo|c0@.*) '\n"
                                         "ip netns exec router ip -br link | grep -vcE '^(lo|r0@.*|r1@.*) '\n"
                                         "ip netns exec servers ip -br link | grep -vcE '^(lo|s0@.*) '\n");
    EXPECT_EQ(linesOf(run.out), (std::vector<std::string>{"0", "0", "0"})) << run.err;
}

TEST_F(DivertTest, EndsWithTheStatusOfTheCommand) {
    EXPECT_EQ(live("allow *\n", "exit 7").status, 7);
    EXPECT_EQ(live("allow *\n", "kill -9 $$").status, 128 + 9);
}

TEST_F(DivertTest, TheCommandHasNoneOfTheLabsFiles) {
    const LabRun run = live("allow *\n", "for file in /proc/$$/fd/*; do readlink $file; done; echo end",
                            {"--table", folder_.file("table"), "--watch", folder_.file("watch")});
    EXPECT_NE(run.out.find("end\n"), std::string::npos) << run.err;
    EXPECT_EQ(run.out.find("/run/fernhill-lab"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find(folder_.path()), std::string::npos) << run.out;
}

TEST_F(DivertTest, WithoutACommandThereIsAShell) {
    writeAll(policy_, "allow *\n");
    writeAll(folder_.file("shell"), "#!/bin/sh\necho the shell; ip -br link show c0 | cut -d@ -f1\n");
    fs::permissions(folder_.file("shell"), fs::perms::owner_all);
    setenv("SHELL", folder_.file("shell").c_str(), 1);
    const LabRun run = runLab({"divert", "--policy", policy_});
    EXPECT_EQ(run.out, "the shell\nc0\n") << run.err;
}

// All processes in the namespace of that name.
long processesIn(const std::string& processNamespace) {
    long count = 0;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        if (fs::read_symlink(entry.path() / "ns/pid", ignored) == processNamespace) ++count;
    }
    return count;
}

TEST_F(DivertTest, LeavesNothingBehindWhenItIsKilled) {
    writeAll(policy_, "allow *\n");
    const std::string mark = folder_.file("mark");
    std::string processNamespace;
    const auto killIt = [&](pid_t lab) {
        for (int tries = 0; tries < 4 && readAll(mark).empty(); ++tries)
            testsupport::eventually([&] { return !readAll(mark).empty(); });
        ASSERT_EQ(linesOf(readAll(mark)).size(), 1u);
        processNamespace = linesOf(readAll(mark))[0];
        EXPECT_GE(processesIn(processNamespace), 5); // with servers, daemon and command
        kill(lab, SIGKILL);
    };
    runLab({"divert", "--policy", policy_, "--", "sh", "-c",
            "readlink /proc/self/ns/pid > " + mark + "; sleep 60"},
           killIt);
    EXPECT_TRUE(testsupport::eventually([&] { return processesIn(processNamespace) == 0; }));
    EXPECT_FALSE(fs::exists("/run/fernhill-lab"));
}

TEST_F(DivertTest, LeavesNothingBehindWhenItIsKilledBeforeItsNetworksAreMade) {
    writeAll(policy_, "allow *\n");
    std::string processNamespace;
    runLab({"divert", "--policy", policy_, "--", "sleep", "60"}, [&](pid_t lab) {
        const fs::path child = "/proc/" + std::to_string(labtest::awaitChildOf(lab));
        processNamespace = fs::read_symlink(child / "ns/pid");
        kill(lab, SIGKILL);
    });
    EXPECT_NE(processNamespace, fs::read_symlink("/proc/self/ns/pid"));
    EXPECT_TRUE(testsupport::eventually([&] { return processesIn(processNamespace) == 0; }));
}

TEST_F(DivertTest, ItsConnectionsComeAsCommaSeparatedValuesToo) {
    const std::string csv = folder_.file("rows.csv");
    live("block *bad* http://localhost:6543/blocked\n", curl("-4 -o /dev/null http://bad.test/page"),
         {"--csv", csv});
    const auto lines = linesOf(readAll(csv));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "at,local,remote,questions,url,answer,held,packets,verdict\r");
    EXPECT_NE(lines[1].find(",1,\"http://bad.test/page\",\"block\","), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find(",\"redirected\"\r"), std::string::npos) << lines[1];
}

TEST_F(DivertTest, ItsConnectionsGoToStandardOutputWhereThatIsWanted) {
    writeAll(policy_, "allow *\n");
    const LabRun run = runLab({"divert", "--policy", policy_, "--json", "-", "--", "curl", "-4", "-s", "-o",
                               "/dev/null", "http://good.test/page"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("\"url\":\"http://good.test/page\""), std::string::npos) << run.out;
}

TEST_F(DivertTest, OptionsThatContradictEachOtherAreRefused) {
    writeAll(policy_, "allow *\n");
    const std::string file = folder_.file("file");
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"--no-agent", "--restart-agent", "5"},
                                               {"--through", "nothing", "--json", file},
                                               {"--through", "nothing", "--csv", file},
                                               {"--json", "-", "--csv", "-"},
                                               {"--through", "nothing", "--watch", file},
                                               {"--through", "nothing", "--restart-agent", "5"}}) {
        std::vector<std::string> words = {"divert", "--policy", policy_};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), {"--", "true"});
        const LabRun run = runLab(words);
        EXPECT_EQ(run.status, 2) << options[0] << run.err;
        EXPECT_NE(run.err, "");
    }
}

TEST_F(DivertTest, WithoutRootItSaysSoInOneLine) {
    writeAll(policy_, "allow *\n");
    fs::permissions(folder_.path(), fs::perms::all);
    testsupport::claimFixedPorts(); // while root: another user can be refused a network, and root's lock
    ASSERT_EQ(setuid(65534), 0);
    const LabRun run = runLab({"divert", "--policy", policy_, "--", "true"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: divert needs root: it makes network namespaces and diverts packets\n");
}

TEST_F(DivertTest, WithoutItsToolsItSaysSoInOneLine) {
    writeAll(policy_, "allow *\n");
    setenv("PATH", "/nonexistent", 1);
    const LabRun run = runLab({"divert", "--policy", policy_, "--", "/bin/true"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: 'ip netns add router' failed: ip: No such file or directory\n");
}

// What became of each connection that a replay shows, by the client's end.
std::map<std::string, std::string> replayedVerdicts(const std::string& rows) {
    std::map<std::string, std::string> verdicts;
    for (const std::string& line : linesOf(rows)) {
        const auto row = nlohmann::json::parse(line);
        const bool outbound = row["dir"] == "out";
        const std::string local = row[outbound ? "src" : "dst"];
        std::string& verdict = verdicts[local];
        if (verdict.empty()) verdict = "passed";
        if (row["result"] == 2) verdict = "redirected";
        if (row["result"] == 3) verdict = "held to the end";
    }
    return verdicts;
}

TEST_F(DivertTest, TheSameTrafficRecordedAndReplayedGetsTheSameVerdicts) {
    const std::string capture = folder_.file("live.pcap");
    const LabRun run = live(
        "block *bad.test* http://localhost:6543/blocked\nslow 300 *slow.test*\nsilent *silent.test*\n"
        "retry 1 *again.test*\n",
        curl("-4 -o /dev/null http://good.test/noise") + curl("-6 -o /dev/null https://good.test/noise") +
            curl("-4 http://bad.test/page") + curl("-6 http://bad.test/page") + curl("-4 https://bad.test/") +
            curl("-6 https://bad.test/") + curl("-4 http://slow.test/") + curl("-6 https://slow.test/") +
            curl("-4 http://again.test/") + curl("--max-time 5 -4 http://silent.test/"),
        {"--record", capture});
    ASSERT_EQ(connections().size(), 10u) << run.err;
    std::map<std::string, std::string> seen;
    std::map<std::string, int> kinds;
    for (const auto& connection : connections()) {
        seen[connection["local"]] = kindOf(connection["verdict"]);
        ++kinds[kindOf(connection["verdict"])];
    }
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"passed", 5}, {"redirected", 4}, {"held to the end", 1}}));

    const LabRun replayed = runLab({"replay", capture, "--policy", policy_, "--json", "-"});
    ASSERT_EQ(replayed.status, 0) << replayed.err;
    auto verdicts = replayedVerdicts(replayed.out);
    for (auto entry = verdicts.begin(); entry != verdicts.end();)
        entry = seen.count(entry->first) ? std::next(entry) : verdicts.erase(entry); // name look-ups
    EXPECT_EQ(verdicts, seen);
}

} // namespace
