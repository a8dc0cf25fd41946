// Check-ins of which one system call fails, each call in turn: the request, the reply and what is stored of it.

#include "config/CheckinReply.h"
#include "config/Configuration.h"
#include "config/FilterCheck.h"
#include "support/CheckinWorld.h"
#include "support/ChildNotes.h"
#include "support/ThreadStarts.h"
#include "support/TracedCalls.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

// A service that says nothing is waited for so long, in real time.
constexpr std::int64_t halfASecond = 500000;

constexpr char reply[] = "<a><Dormant>TRUE</Dormant><NextCheckIn>2027-01-02T03:04:05Z</NextCheckIn>"
                         "<ServerName>x</ServerName><ServerName>y</ServerName></a>";

class CheckinFailedCalls : public testsupport::CallsFailIn<testsupport::CheckinWorld> {
protected:
    using Names = std::set<std::string>;

    static bool storeReply() {
        applyCheckinReply(*readCheckinReply(reply));
        return true;
    }

    // What the process holds of the reply.
    static std::string settings() {
        if (!Configuration::filteringDisabled()) {
            EXPECT_TRUE(listedServers().empty());
            return "nothing";
        }
        EXPECT_EQ(listedServers(), (std::vector<std::string>{"x", "y"}));
        return "all";
    }

    // What the file holds of it.
    std::string stored() const {
        if (file().empty()) return "an empty file";
        EXPECT_NE(file().find("</Fernhill>"), std::string::npos);
        if (inFile("FilteringDisabled") != "true") return "nothing";
        return file().find(">y<") == std::string::npos ? "a part" : "all";
    }

    // Runs `act` with each of its calls failing in turn, and stores the whole reply behind it.
    void failEachCallOf(const std::function<bool()>& act) {
        bool done = false;
        testsupport::failEachCallOf(
            [] {
                testsupport::ManualClock::installed().setEventWait(halfASecond, false);
                testsupport::playThreadStarts(testsupport::startNothing); // that of the probe
                Configuration::loadConfig();
                Configuration::saveConfig(true);
            },
            [&] { done = act(); },
            [&] {
                settings_.add((done ? "true, " : "false, ") + settings());
                files_.add(stored());
                EXPECT_TRUE(storeReply());
                EXPECT_EQ(stored(), "all");
                removeFile();
            });
    }

    const testsupport::ChildNotes settings_{};
    const testsupport::ChildNotes files_{};
};

TEST_F(CheckinFailedCalls, SetAllOfTheReplyOrNothingAndTheNextStoresIt) {
    service.reply(reply);
    failEachCallOf(FilterCheck::runCheckin);
    EXPECT_EQ(settings_.seen(), (Names{"true, all", "false, nothing"}));
}

TEST_F(CheckinFailedCalls, OfTheReplysStoringLeaveAFileWithAllOfItAPartOrNothing) {
    failEachCallOf(storeReply);
    EXPECT_EQ(settings_.seen(), (Names{"true, all"}));
    EXPECT_EQ(files_.seen(), (Names{"all", "a part", "an empty file"}));
}

} // namespace
