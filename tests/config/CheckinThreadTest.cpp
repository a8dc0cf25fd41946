// The periodic check-ins, with time moved by the test.

#include "config/Configuration.h"
#include "gp/GPDate.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Await.h"
#include "support/CheckinWorld.h"

#include <cstdlib>
#include <ctime>

namespace {

using testsupport::comesTrue;
using testsupport::ManualClock;

constexpr int hour = 3600;

class CheckinThread : public testsupport::CheckinWorld {
protected:
    CheckinThread() {
        setenv("TZ", "UTC", 1);
        tzset();
        service.start();
    }

    // Starts the periodic check-ins, which sleep for the first time afterwards.
    void start() {
        FilterCheck::startCheckin();
        EXPECT_TRUE(sleeps(30));
    }

    // Whether the thread comes to sleep for so many seconds more.
    bool sleeps(int seconds) {
        slept_ += seconds;
        return comesTrue([&] { return clock.sleptMicroseconds() == slept_ * 1000000LL; }) &&
               clock.waitForSleepers(1);
    }

    // Moves time past a sleep that was asked for; whether the next one is then `next` seconds.
    bool wakesAndSleeps(int seconds, int next) {
        clock.advanceSeconds(seconds);
        return sleeps(next);
    }

    int checkins() const { return static_cast<int>(service.requests().size()); }

    // Stores a next time that far from now.
    void storeNextTime(std::int64_t secondsFromNow) {
        const std::time_t time = clock.seconds() + secondsFromNow;
        char text[64];
        std::strftime(text, sizeof text, "%FT%TZ", std::gmtime(&time));
        Configuration::setCheckInTimeStamp(Owned<GPString>::adopt(new GPString(text)).get());
    }

    ManualClock& clock = ManualClock::installed();

private:
    std::int64_t slept_ = 0;
};

TEST_F(CheckinThread, TheFirstCheckInComesAfterThirtySeconds) {
    service.reply("<a></a>");
    start();
    clock.advanceSeconds(29);
    EXPECT_TRUE(clock.waitForSleepers(1));
    EXPECT_EQ(checkins(), 0);
    EXPECT_TRUE(wakesAndSleeps(1, hour));
    EXPECT_EQ(checkins(), 1);
}

TEST_F(CheckinThread, AfterAFailedFirstCheckInItIsTriedEveryFifteenSecondsUntilItWorksAndOnlyThenHourly) {
    service.reply("<a></a>");
    loseInterfaces();
    start();
    EXPECT_TRUE(wakesAndSleeps(30, 15));
    EXPECT_TRUE(wakesAndSleeps(15, 15));
    EXPECT_EQ(log.countContaining("check-in is not possible at this time."), 2);
    interfaces.show(testsupport::EntryBuilder().link("en0", hardwareAddress).ipv4("en0", "10.0.0.2"));
    EXPECT_TRUE(wakesAndSleeps(15, hour));
    EXPECT_EQ(checkins(), 1);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 2);
}

TEST_F(CheckinThread, ALaterFailureIsTriedAgainAfterFifteenSeconds) {
    service.reply("<a></a>");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    loseInterfaces();
    EXPECT_TRUE(wakesAndSleeps(hour, 15));
    EXPECT_TRUE(wakesAndSleeps(15, 15));
}

TEST_F(CheckinThread, WithoutAStoredTimeTheMachineChecksInEveryHour) {
    service.reply("<a></a>");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 3);
}

TEST_F(CheckinThread, AStoredTimeThatIsNotPastIsLookedAtEveryHour) {
    service.reply("<a></a>");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    storeNextTime(hour + hour / 2);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 1);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 2);
}

TEST_F(CheckinThread, TheStoredTimeMustBeAWholeSecondPast) {
    service.reply("<a></a>");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    storeNextTime(hour);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 1);
    storeNextTime(hour - 1);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 2);
}

TEST_F(CheckinThread, TheReplysTimeRulesTheNextCheckIn) {
    service.reply("<a><NextCheckIn>2026-11-14T08:30:00Z</NextCheckIn></a>"); // two and a half hours on
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 1);
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 2);
}

TEST_F(CheckinThread, ATimeWithAZoneOffsetIsNoDateSoEveryHourlyPollChecksIn) {
    service.reply("<a><NextCheckIn>2026-12-24T08:30:00-07:00</NextCheckIn></a>");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    EXPECT_FALSE(Owned<GPDate>::adopt(Configuration::checkInTimeStamp()));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 3);
}

TEST_F(CheckinThread, ABodyThatDoesNotParseIsWaitedOnForAnHour) {
    service.reply("no document");
    start();
    EXPECT_TRUE(wakesAndSleeps(30, hour));
    EXPECT_TRUE(wakesAndSleeps(hour, hour));
    EXPECT_EQ(checkins(), 2);
}

TEST_F(CheckinThread, TheSystemsRandomGeneratorIsSeededWithTheTime) {
    loseInterfaces(); // the identifier seeds it too
    start();
    EXPECT_TRUE(wakesAndSleeps(30, 15));
    const int drawn = std::rand();
    std::srand(static_cast<unsigned>(clock.seconds()));
    EXPECT_EQ(drawn, std::rand());
}

} // namespace
