#include "gp/GPDate.h"

#include "gp/GPAutoReleasePool.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using testsupport::ManualClock;

// 2026-11-14 05:56:50 UTC, where the tests' clock begins.
constexpr long start = ManualClock::start / 1000000;

// Runs under a local time zone of the test's own, in POSIX form: "EST5" lies five hours behind.
class GPDateTest : public testing::Test {
protected:
    void SetUp() override { inZone("UTC0"); }
    void TearDown() override { pool_->drain(); }

    void inZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    // Seconds of a universal clock time.
    static long utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
        struct tm fields = {};
        fields.tm_year = year - 1900;
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        fields.tm_hour = hour;
        fields.tm_min = minute;
        fields.tm_sec = second;
        return timegm(&fields);
    }

    static void moveClockTo(long seconds) {
        ManualClock::installed().set(static_cast<std::int64_t>(seconds) * 1000000);
    }

    static std::string read(const char* text) {
        const auto date = Owned<GPDate>::adopt(GPDate::dateFromString(text));
        if (!date) return "null";
        date->setFormat("%Y-%m-%d %H:%M:%S");
        return std::string(date->cString());
    }

private:
    GPAutoReleasePool* pool_ = new GPAutoReleasePool; // takes the texts of dates
};

TEST_F(GPDateTest, ANewDateIsNow) {
    EXPECT_EQ(GPDate().toRawTime(), start);
    ManualClock::installed().advanceSeconds(7);
    EXPECT_EQ(GPDate().toRawTime(), start + 7);
}

TEST_F(GPDateTest, ADateOfSecondsHasThatRawTime) { EXPECT_EQ(GPDate(12345L).toRawTime(), 12345); }

TEST_F(GPDateTest, NowIsViewedInLocalTimeAndUTCInUniversalTime) {
    inZone("EST5");
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    const auto universal = Owned<GPDate>::adopt(GPDate::UTC());
    EXPECT_EQ(now->hour(), 0);
    EXPECT_EQ(universal->hour(), 5);
    EXPECT_EQ(now->toRawTime(), universal->toRawTime());
}

TEST_F(GPDateTest, TwoDatesDoNotDisturbEachOther) {
    inZone("EST5");
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    const auto universal = Owned<GPDate>::adopt(GPDate::UTC());
    universal->setYear(1999);
    EXPECT_EQ(now->year(), 126);
    EXPECT_EQ(now->hour(), 0);
}

TEST_F(GPDateTest, IsTimeValuesMakesTheViewInLocalTimeOnce) {
    inZone("EST5");
    GPDate date(start);
    date.isTimeValues();
    EXPECT_EQ(date.hour(), 0);
    const auto universal = Owned<GPDate>::adopt(GPDate::UTC());
    universal->isTimeValues();
    EXPECT_EQ(universal->hour(), 5) << "a view that is there stays";
}

TEST_F(GPDateTest, GettersGiveTheRawFields) {
    GPDate date(start);
    EXPECT_EQ(date.second(), 50);
    EXPECT_EQ(date.minute(), 56);
    EXPECT_EQ(date.hour(), 5);
    EXPECT_EQ(date.day(), 14);
    EXPECT_EQ(date.month(), 10);
    EXPECT_EQ(date.year(), 126);
    EXPECT_EQ(date.dayOfWeek(), 6);
    EXPECT_EQ(date.dayOfYear(), 317);
    EXPECT_EQ(date.daylightSaving(), 0);
}

TEST_F(GPDateTest, MonthsCountFromOneInTheSetterAndFromZeroInTheGetter) {
    GPDate date(start);
    date.setMonth(3);
    EXPECT_EQ(date.month(), 2);
    EXPECT_EQ(date.toRawTime(), utc(2026, 3, 14, 5, 56, 50));
}

TEST_F(GPDateTest, AMonthBelowOneIsJanuary) {
    GPDate date(start);
    date.setMonth(0);
    EXPECT_EQ(date.month(), 0);
    date.setMonth(-2147483647 - 1);
    EXPECT_EQ(date.month(), 0);
}

TEST_F(GPDateTest, YearsAreFullInTheSetterAndSince1900InTheGetter) {
    GPDate date(start);
    date.setYear(2019);
    EXPECT_EQ(date.year(), 119);
    EXPECT_EQ(date.toRawTime(), utc(2019, 11, 14, 5, 56, 50));
}

TEST_F(GPDateTest, AYearBelowTheRangeOfIntWrapsAroundAndDoesNoHarm) {
    GPDate date(start);
    date.setYear(-2147483647 - 1);
    EXPECT_EQ(date.year(), 2147481748);
}

TEST_F(GPDateTest, SettersOfTheClockAndTheDayMoveTheRawTime) {
    GPDate date(start);
    date.setHour(18);
    date.setMinute(0);
    date.setSecond(1);
    date.setDay(2);
    EXPECT_EQ(date.toRawTime(), utc(2026, 11, 2, 18, 0, 1));
}

TEST_F(GPDateTest, SettersNormaliseTheFields) {
    GPDate date(utc(2026, 11, 14, 23, 59, 59));
    date.setSecond(61);
    EXPECT_EQ(date.second(), 1);
    EXPECT_EQ(date.minute(), 0);
    EXPECT_EQ(date.hour(), 0);
    EXPECT_EQ(date.day(), 15);
}

TEST_F(GPDateTest, DayOfWeekAndDayOfYearAloneChangeNoDate) {
    GPDate date(start);
    date.setDayOfWeek(2);
    date.setDayOfYear(5);
    EXPECT_EQ(date.toRawTime(), start);
    EXPECT_EQ(date.dayOfWeek(), 6);
    EXPECT_EQ(date.dayOfYear(), 317);
}

TEST_F(GPDateTest, DayOfWeekAndDayOfYearBringBackTheTimeOfTheView) {
    const auto broughtBackBy = [](void (GPDate::*set)(int)) {
        GPDate date(start);
        date.second();
        date.timeInFuture(3600);
        (date.*set)(2);
        return date.toRawTime();
    };
    EXPECT_EQ(broughtBackBy(&GPDate::setDayOfWeek), start);
    EXPECT_EQ(broughtBackBy(&GPDate::setDayOfYear), start);
}

TEST_F(GPDateTest, SetDaylightSavingReadsTheClockAsSummerTime) {
    inZone("CET-1CEST,M3.5.0,M10.5.0/3");
    GPDate date(utc(2026, 1, 15, 11));
    date.setDaylightSaving(1);
    EXPECT_EQ(date.toRawTime(), utc(2026, 1, 15, 10));
}

TEST_F(GPDateTest, ToStringWithoutAFormatIsTheStyleOfCtimeWithItsLineBreak) {
    GPDate date(start);
    EXPECT_STREQ(date.toString()->cstr(), "Sat Nov 14 05:56:50 2026\n");
    EXPECT_STREQ(date.cString(), "Sat Nov 14 05:56:50 2026\n");
}

TEST_F(GPDateTest, ToStringMakesTheBrokenDownViewWithAFormatAndWithoutOne) {
    for (const char* format : {static_cast<const char*>(nullptr), "%H"}) {
        GPDate date(start);
        date.setFormat(format);
        date.toString();
        date.timeInFuture(3600);
        EXPECT_EQ(date.hour(), 5) << "the hour of before";
    }
    GPDate untouched(start);
    untouched.timeInFuture(3600);
    EXPECT_EQ(untouched.hour(), 6);
}

TEST_F(GPDateTest, ToStringFollowsTheFormatThatWasSet) {
    GPDate date(start);
    date.setFormat("%d.%m.%Y");
    EXPECT_STREQ(date.toString()->cstr(), "14.11.2026");
    date.setFormat(nullptr);
    EXPECT_STREQ(date.toString()->cstr(), "Sat Nov 14 05:56:50 2026\n");
}

TEST_F(GPDateTest, ATextThatDoesNotFitIsEmpty) {
    const std::string longFormat(300, 'x');
    GPDate date(start);
    date.setFormat(longFormat.c_str());
    EXPECT_STREQ(date.toString()->cstr(), "");
}

TEST_F(GPDateTest, ADateBeyondTheCalendarHasAnEmptyTextAndDoesNoHarm) {
    GPDate date(9223372036854775807L);
    EXPECT_STREQ(date.toString()->cstr(), "");
    EXPECT_EQ(date.hour(), 0);
}

TEST_F(GPDateTest, ISOStringChoosesTheFormatAndConvertsNothing) {
    inZone("EST5");
    GPDate date(start);
    EXPECT_STREQ(date.ISOString(true)->cstr(), "2026-11-14T00:56:50Z");
    EXPECT_STREQ(date.ISOString(false)->cstr(), "2026-11-14T00:56:50-0500");
}

TEST_F(GPDateTest, TimeInFutureMovesTheRawTime) {
    GPDate date(start);
    date.timeInFuture(60);
    EXPECT_EQ(date.toRawTime(), start + 60);
    date.timeInFuture(-120);
    EXPECT_EQ(date.toRawTime(), start - 60);
}

TEST_F(GPDateTest, TimeInFutureLeavesTheHourOfAViewThatWasAlreadyMade) {
    GPDate date(utc(2026, 11, 14, 5, 59, 30));
    EXPECT_EQ(date.hour(), 5);
    date.timeInFuture(60);
    EXPECT_EQ(date.hour(), 5);

    GPDate fresh(utc(2026, 11, 14, 5, 59, 30));
    fresh.timeInFuture(60);
    EXPECT_EQ(fresh.hour(), 6);
}

TEST_F(GPDateTest, CompareDateIsTheDifferenceInSeconds) {
    GPDate earlier(1000L);
    GPDate later(1060L);
    EXPECT_EQ(earlier.compareDate(&later), -60);
    EXPECT_EQ(later.compareDate(&earlier), 60);
    EXPECT_EQ(later.compareDate(1060L), 0);
    EXPECT_EQ(later.compareDate(1059L), 1);
}

TEST_F(GPDateTest, ClockTimeIsComparableWithTheTimersClock) {
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    EXPECT_EQ(now->clockTime(), static_cast<unsigned long>(GPTimer::getClockTime()));
    GPDate fresh(start);
    EXPECT_EQ(fresh.clockTime(), static_cast<unsigned long>(start) * 1000000);
}

TEST_F(GPDateTest, AFullTextGivesDateAndClockTime) {
    EXPECT_EQ(read("2019-02-15T10:30:00Z"), "2019-02-15 10:30:00");
    EXPECT_EQ(read("2019-02-15T10:30:59.5"), "2019-02-15 10:30:59");
}

TEST_F(GPDateTest, TheClockTimeIsSetFromTheHourOnSoThatTooManySecondsMakeAMinute) {
    EXPECT_EQ(read("2019-02-15T10:59:75"), "2019-02-15 11:00:15");
}

TEST_F(GPDateTest, ATextThatEndsInZIsReadAsLocalTimeWithoutCorrection) {
    inZone("EST5");
    const auto date = Owned<GPDate>::adopt(GPDate::dateFromString("2019-02-15T10:30:00Z"));
    ASSERT_TRUE(date);
    EXPECT_EQ(date->toRawTime(), utc(2019, 2, 15, 15, 30, 0));
}

TEST_F(GPDateTest, ADateWithoutAClockTimeKeepsTheUniversalClockTimeOfTheCall) {
    inZone("EST5");
    EXPECT_EQ(read("2019-02-15"), "2019-02-15 05:56:50");
}

TEST_F(GPDateTest, CalledOnThe31stOfAMonthADateInFebruaryCanLandInMarch) {
    moveClockTo(utc(2026, 10, 31, 12));
    EXPECT_EQ(read("2019-02-15"), "2019-03-15 12:00:00");
}

TEST_F(GPDateTest, ATextWithoutAHyphenIsNoDate) { EXPECT_EQ(read("20190215"), "null"); }

TEST_F(GPDateTest, ATextWhoseFirstHyphenStandsAtPositionZeroIsNoDate) { EXPECT_EQ(read("-5-6-7"), "null"); }

TEST_F(GPDateTest, NullAndTextsWithOtherThanThreePartsAreNoDates) {
    EXPECT_EQ(GPDate::dateFromString(nullptr), nullptr);
    EXPECT_EQ(read(""), "null");
    EXPECT_EQ(read("2019-02"), "null");
    EXPECT_EQ(read("2019-02-15T10:30:00-07:00"), "null");
}

TEST_F(GPDateTest, ATimeWithFewerThanThreeFieldsIsNoDate) {
    EXPECT_EQ(read("2019-02-15T10:30"), "null");
    EXPECT_EQ(read("2019-02-15T10"), "null");
    EXPECT_EQ(read("2019-02-15T"), "null");
}

TEST_F(GPDateTest, ATAtTheBeginningOfTheDayStartsNoClockTime) {
    EXPECT_EQ(read("2019-02-T10:30:00"), "2019-01-30 05:56:50") << "no number is the day -1";
}

TEST_F(GPDateTest, NumbersBeyondTheCalendarDoNoHarm) {
    const auto date =
        Owned<GPDate>::adopt(GPDate::dateFromString("99999999999-99999999999-99999999999T1:2:3"));
    ASSERT_TRUE(date);
    EXPECT_EQ(date->second(), 3);
}

} // namespace
