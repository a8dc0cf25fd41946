// The threads of the running daemon, held against the table in docs/architecture.md.

#include "app/DaemonWorld.h"
#include "support/ArchitecturePage.h"
#include "support/Sanitizers.h"
#include "support/ShippedProgram.h"

#include <algorithm>
#include <map>
#include <set>

using testsupport::eventually;
using testsupport::ThreadList;

namespace {

struct Row {
    std::string lives;
    std::string wait; // up to the first comma or colon
};

// The table of threads by the functions that they run.
std::map<std::string, Row> documentedThreads() {
    std::map<std::string, Row> rows;
    for (const std::vector<std::string>& cells : testsupport::architectureTable("Threads")) {
        std::string wait = cells.at(3).substr(0, cells.at(3).find_first_of(",:"));
        wait.erase(std::remove(wait.begin(), wait.end(), '`'), wait.end());
        for (const std::string& function : testsupport::quotedWords(cells.at(0)))
            rows[function] = {cells.at(2), wait};
    }
    return rows;
}

using Names = std::multiset<std::string>;

class DaemonThreads : public DaemonWorld {
protected:
    Names living() const {
        Names names;
        for (const ThreadList::Thread& thread : daemon->threads().living())
            names.insert(thread.function);
        return names;
    }

    // The threads that the table says are always there.
    Names always() const {
        Names names;
        for (const auto& [function, row] : rows)
            if (row.lives == "always") names.insert(function);
        return names;
    }

    // A run loop of the Mac's program waits until its sources signal it.
    static bool isRunLoop(const std::string& wait) {
        return wait == "run loop" || (wait == "semaphore" && !testsupport::macProgram().empty());
    }

    // Each living thread waits where the table says.
    bool allWaitAsDocumented() const {
        const auto threads = daemon->threads().living();
        return std::all_of(threads.begin(), threads.end(), [&](const ThreadList::Thread& thread) {
            const std::string wait = ThreadList::waitOf(daemon->process(), thread.number);
            const std::string& documented = rows.at(thread.function).wait;
            return documented == "run loop" ? isRunLoop(wait) : wait == documented;
        });
    }

    std::string waits() const {
        std::string text;
        for (const ThreadList::Thread& thread : daemon->threads().living())
            text += thread.function + ": " + ThreadList::waitOf(daemon->process(), thread.number) + "\n";
        return text;
    }

    std::map<std::string, Row> rows = documentedThreads();
};

} // namespace

TEST_F(DaemonThreads, OfTheRunningDaemonAreThoseOfTheTable) {
    ASSERT_EQ(always().size(), 8u);
    startDaemon();
    EXPECT_TRUE(eventually([&] { return living() == always(); })) << testing::PrintToString(living());
}

TEST_F(DaemonThreads, AreAllThatTheProcessHas) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker may have threads of its own";
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "machost has threads of its own";
    startDaemon();
    ASSERT_TRUE(eventually([&] { return living() == always(); }));
    const auto tasks = [this] {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon->process()) + "/task");
        return std::distance(begin(all), end(all));
    };
    // A thread whose function has returned is there a moment longer.
    EXPECT_TRUE(eventually([&] { return tasks() == 8; })) << tasks();
}

TEST_F(DaemonThreads, WaitWhereTheTableSays) {
    startDaemon();
    ASSERT_TRUE(eventually([&] { return living() == always(); }));
    if (ThreadList::waitOf(daemon->process(), daemon->process()) == "unknown")
        GTEST_SKIP() << "this system does not tell what a thread waits in";
    EXPECT_TRUE(eventually([&] { return allWaitAsDocumented(); })) << waits();
}

TEST_F(DaemonThreads, OfQueriesLiveUntilTheAnswer) {
    startDaemon();
    ASSERT_TRUE(eventually([&] { return living() == always(); }));
    request("one.example.org");
    const auto question = agent->awaitFrame(1);
    Names expected = always();
    expected.insert("workThread");
    EXPECT_TRUE(eventually([&] { return living() == expected; })) << testing::PrintToString(living());
    EXPECT_TRUE(eventually([&] { return allWaitAsDocumented(); })) << waits();
    agent->reply(question.sequence, "{}");
    EXPECT_TRUE(eventually([&] { return living() == always(); })) << testing::PrintToString(living());
}

TEST_F(DaemonThreads, OfShortLifeAreNotLeftBehind) {
    startDaemon();
    ASSERT_TRUE(eventually([&] { return living() == always(); }));
    agent->awaitConnections(1); // a thread is told of before the agent has accepted
    agent->push(R"({"bypass_on_failure":false,"other":1})");
    EXPECT_TRUE(eventually([&] {
        return configuration().find("<BlockOnFailure>true") != std::string::npos && living() == always();
    })) << testing::PrintToString(living());
    daemon->changeConsoleUser("bob");
    EXPECT_TRUE(eventually([&] { return daemon->logs("<bob>") && living() == always(); }))
        << testing::PrintToString(living());
}
