// The locks of the code and of the running daemon, held against the table in docs/architecture.md.

#include "agent/AgentLink.h"
#include "app/DaemonWorld.h"
#include "config/ConfigurationState.h"
#include "filter/FilterQuery.h"
#include "packet/HijackPacket.h"
#include "support/ArchitecturePage.h"
#include "support/HeldLocks.h"
#include "support/Patience.h"
#include "support/ProgramSymbols.h"
#include "support/ShippedProgram.h"

#include <csignal>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

using testsupport::eventually;

namespace {

namespace fs = std::filesystem;

// "FILE NAME" of each lock of the table, with the number of its row.
std::map<std::string, int> documentedLocks() {
    std::map<std::string, int> locks;
    int number = 0;
    for (const std::vector<std::string>& cells : testsupport::architectureTable("Locks")) {
        ++number;
        const std::vector<std::string> words = testsupport::quotedWords(cells.at(0));
        for (std::size_t i = 1; i < words.size(); ++i)
            locks[words[0] + " " + words[i]] = number;
    }
    return locks;
}

// "FILE NAME" of each lock that the code declares.
std::set<std::string> declaredLocks() {
    const std::regex declaration(
        R"(^\s*(static )?(std::atomic<)?(GPMutex|std::\w*mutex|pthread_mutex_t)\b[*&> ]*(const )?(\w+)\s*(=|;|\{).*)");
    std::set<std::string> locks;
    for (const fs::directory_entry& entry :
         fs::recursive_directory_iterator(std::string(OSTLER_TEST_DATA) + "/../src")) {
        const std::string path = entry.path().string();
        const std::string file = entry.path().stem().string();
        if (!entry.is_regular_file() || path.find("/platform/") != std::string::npos || file == "GPMutex")
            continue;
        std::ifstream source(path);
        std::smatch parts;
        for (std::string line; std::getline(source, line);)
            if (std::regex_match(line, parts, declaration)) locks.insert(file + " " + parts[5].str());
    }
    return locks;
}

// A lock that the daemon holds, and the thread that holds it, by what each is called.
using Holding = std::pair<std::string, std::string>;

class DaemonLocks : public DaemonWorld {
protected:
    void SetUp() override {
        if (!testsupport::macProgram().empty()) GTEST_SKIP() << "only this build's own locks can be listed";
    }

    // Found out on this side once the daemon runs, since that takes the locks.
    const std::map<const GPMutex*, std::string>& names() const {
        static const std::map<const GPMutex*, std::string> known = findNames();
        return known;
    }

    static void sendOnTheClosedLink() {
        int error = 0;
        agentLink.sendFrame<agentOtherFrameSpace>(agentLogonFrame, 0, "{}", error);
    }

    static std::map<const GPMutex*, std::string> findNames() {
        const auto variable = [](const char* name) {
            return *reinterpret_cast<GPMutex**>(testsupport::programVariable(name));
        };
        return {
            {testsupport::firstLockOf([] {
                 FilterQuery::lockServers();
                 FilterQuery::unlockServers();
             }),
             "FilterQuery mutex"},
            {variable("disableMutex"), "FilterQuery disableMutex"},
            {variable("buildmutex"), "FilterIPAddresses buildmutex"},
            {configurationState.mutex, "ConfigurationState mutex"},
            {configurationState.valuesMutex, "ConfigurationState valuesMutex"},
            {linkLock(), "OstComm instanceMutex"},
            {testsupport::firstLockOf(sendOnTheClosedLink), "AgentLink commandMutex"},
            {testsupport::firstLockOf([] { agentLink.responseThreadStarted(); }), "AgentLink startedMutex"},
            {testsupport::firstLockOf([] { agentLink.responses().count(); }), "ResponseTable responseMutex"},
            {testsupport::firstLockOf([] { HijackPacket::resolve("", nullptr); }), "HijackPacket mutex"},
            {variable("sslMutex"), "FilterQueryBlockedTLS sslMutex"},
            {variable("sslMutexIpv6"), "FilterQueryBlockedTLS sslMutexIpv6"},
        };
    }

    std::string threadName(pid_t number) const {
        for (const testsupport::ThreadList::Thread& thread : daemon->threads().living())
            if (thread.number == number) return thread.function;
        return "a thread that is gone";
    }

    std::set<Holding> held() const {
        const auto& known = names();
        std::set<Holding> result;
        for (const auto& [mutex, thread] : daemon->locks().held()) {
            const auto name = known.find(mutex);
            result.emplace(name == known.end() ? "another" : name->second, threadName(thread));
        }
        return result;
    }

    bool comesToHold(const std::set<Holding>& expected) const {
        return eventually([&] { return held() == expected; });
    }

    std::set<std::string> waitersAt(const GPMutex* mutex) const {
        std::set<std::string> result;
        for (const pid_t thread : daemon->locks().waitingFor(mutex))
            result.insert(threadName(thread));
        return result;
    }

    // The daemon after a bit of everything: two logons, a query, a pushed setting, another user.
    void runThroughItsWork() {
        startDaemon();
        agent->awaitFrame(3);
        agent->awaitFrame(3);
        request("one.example.org");
        agent->reply(agent->awaitFrame(1).sequence, "{}");
        agent->push(R"({"bypass_on_failure":false,"other":1})");
        EXPECT_TRUE(
            eventually([&] { return configuration().find("<BlockOnFailure>true") != std::string::npos; }));
        daemon->changeConsoleUser("bob");
        agent->awaitFrame(3);
    }

    // While a thread waits for the agent, one more query and a signal wait for that thread.
    void expectCallersToWaitForTheLinkThatIsMadeBy(const std::string& thread) {
        const std::set<Holding> connecting = {{"OstComm instanceMutex", thread}};
        EXPECT_TRUE(comesToHold(connecting)) << testing::PrintToString(held());
        request("one.example.org");
        daemon->signal(SIGTERM);
        EXPECT_TRUE(eventually([&] {
            return waitersAt(linkLock()) == std::set<std::string>{"signalThread", "workThread"};
        })) << testing::PrintToString(waitersAt(linkLock()));
        EXPECT_TRUE(comesToHold(connecting)) << testing::PrintToString(held());
    }

    // From now on each write of the configuration file waits until it is let through.
    void stopWrites() const {
        fs::create_directories(fs::path(root.configurationFile()).parent_path());
        fs::remove(root.configurationFile());
        if (mkfifo(root.configurationFile().c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    }

    static bool tellsWaits() { return testsupport::ThreadList::waitOf(getpid(), getpid()) != "unknown"; }

    // Whether the thread that saves comes to wait there.
    bool awaitStoppedWrite() const {
        return eventually([&] {
            const auto holders = daemon->locks().held();
            const auto saving = holders.find(configurationState.mutex);
            return saving != holders.end() &&
                   testsupport::ThreadList::waitOf(daemon->process(), saving->second) == "open";
        });
    }

    // What the waiting write writes. The next one waits again, unless it was the last to wait.
    std::string letWriteThrough(bool last = false) const {
        if (!awaitStoppedWrite()) throw std::runtime_error("nothing is written");
        const std::string pipe = root.path() + "/stopped-write";
        fs::rename(root.configurationFile(), pipe);
        if (!last) stopWrites();
        return testsupport::readAll(pipe);
    }
};

} // namespace

TEST_F(DaemonLocks, OfTheCodeAreThoseOfTheTable) {
    std::set<std::string> documented;
    for (const auto& [lock, row] : documentedLocks())
        documented.insert(lock);
    EXPECT_GE(documented.size(), 20u);
    EXPECT_EQ(declaredLocks(), documented);
}

TEST_F(DaemonLocks, AreTakenInTheOrderOfTheTable) {
    runThroughItsWork();
    const std::map<std::string, int> rows = documentedLocks();
    const auto& known = names();
    const auto rowOf = [&](const GPMutex* mutex) {
        const auto name = known.find(mutex);
        // The rest are locks in small objects, which come last.
        return name == known.end() ? 1000 : rows.at(name->second);
    };
    const auto pairs = daemon->locks().heldTogether();
    EXPECT_TRUE(daemon->locks().isComplete());
    EXPECT_TRUE(pairs.count({configurationState.mutex, configurationState.valuesMutex}));
    EXPECT_TRUE(pairs.count({linkLock(), testsupport::firstLockOf(sendOnTheClosedLink)}));
    for (const auto& [outer, inner] : pairs) {
        EXPECT_NE(outer, inner) << "taken twice";
        if (rowOf(outer) == 1000 && rowOf(inner) == 1000) continue;
        EXPECT_LT(rowOf(outer), rowOf(inner)) << known.at(outer) << " was held";
    }
}

TEST_F(DaemonLocks, AreAllFreeWhenNothingHappens) {
    runThroughItsWork();
    EXPECT_GE(daemon->locks().taken().size(), 10u);
    EXPECT_TRUE(comesToHold({})) << testing::PrintToString(held());
}

TEST_F(DaemonLocks, AreAllFreeWhileAQueryWaitsForTheAgent) {
    startDaemon();
    request("one.example.org");
    agent->awaitFrame(1);
    EXPECT_TRUE(comesToHold({})) << testing::PrintToString(held());
}

TEST_F(DaemonLocks, OfTheLinkIsHeldThroughTheFirstConnectAndAllCallersWaitAtIt) {
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    expectCallersToWaitForTheLinkThatIsMadeBy("setUserLogonThread");
    agent = std::make_unique<testsupport::AgentStandIn>();
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonLocks, OfTheLinkIsHeldThroughAWholeReconnectAndAllCallersWaitAtIt) {
    startDaemon();
    agent->awaitFrame(3); // of the connect
    agent->awaitFrame(3); // of the user
    agent->stopListening();
    agent->closeConnection();
    const std::set<Holding> reconnecting = {{"OstComm instanceMutex", "responseThread"}};
    EXPECT_TRUE(comesToHold(reconnecting)) << testing::PrintToString(held());

    request("one.example.org");
    daemon->changeConsoleUser("bob");
    EXPECT_TRUE(eventually([&] {
        return waitersAt(linkLock()) == std::set<std::string>{"setUserLogonThread", "workThread"};
    })) << testing::PrintToString(waitersAt(linkLock()));
    EXPECT_TRUE(comesToHold(reconnecting)) << testing::PrintToString(held());

    agent->listenAgain();
    EXPECT_EQ(agent->awaitFrame(1).body, R"({"url":"http://one.example.org/"})");
    EXPECT_TRUE(comesToHold({})) << testing::PrintToString(held());
}

TEST_F(DaemonLocks, OfTheConfigurationIsHeldThroughTheWriteOfTheFileWhilePacketsPass) {
    if (!tellsWaits()) GTEST_SKIP() << "this system does not tell what a thread waits in";
    startDaemon("");
    stopWrites();
    daemon->changeConsoleUser("alice");
    EXPECT_TRUE(comesToHold({{"ConfigurationState mutex", "loginChangeThread"}}))
        << testing::PrintToString(held());
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_TRUE(answers(lab::Direction::out));
    EXPECT_NE(letWriteThrough().find("<LocalUserName>alice"), std::string::npos);
    EXPECT_TRUE(comesToHold({{"ConfigurationState mutex", "loginChangeThread"}}))
        << testing::PrintToString(held());
    EXPECT_NE(letWriteThrough(true).find("<CachedUserName>alice"), std::string::npos);
    EXPECT_EQ(agent->awaitFrame(3).type, 3u);
    EXPECT_TRUE(comesToHold({})) << testing::PrintToString(held());
}

TEST_F(DaemonLocks, OfTheServersIsHeldThroughTheReplacementOfTheListAndItsSave) {
    if (!tellsWaits()) GTEST_SKIP() << "this system does not tell what a thread waits in";
    prepare();
    stopWrites();
    daemon->start("");
    EXPECT_TRUE(comesToHold({{"ConfigurationState mutex", "main"}})) << testing::PrintToString(held());
    EXPECT_EQ(letWriteThrough().find("localhost"), std::string::npos);
    EXPECT_TRUE(comesToHold({{"FilterQuery mutex", "main"}, {"ConfigurationState mutex", "main"}}))
        << testing::PrintToString(held());
    EXPECT_NE(letWriteThrough(true).find("localhost"), std::string::npos);
    EXPECT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    EXPECT_TRUE(comesToHold({})) << testing::PrintToString(held());
}
