#pragma once

// Calendar time: seconds since the epoch with a broken-down view that is made when it is first needed. The
// view is the object's own, so two dates do not disturb each other; one date belongs to one thread at a time.

#include "gp/GPObject.h"

#include <ctime>

class GPString;

class GPDate : public GPObject {
public:
    // Now, with no broken-down view yet.
    GPDate();

    // Seconds since the epoch.
    explicit GPDate(long seconds);

    // Now, broken down in universal time if `utc`, else in local time.
    explicit GPDate(bool utc);

    // New dates of this moment, viewed in local or universal time. The caller owns them.
    static GPDate* now();
    static GPDate* UTC();

    // Reads "YEAR-MONTH-DAY", or "YEAR-MONTH-DAYTHOUR:MINUTE:SECOND" with whatever follows, as local time, a
    // trailing "Z" notwithstanding. Without a clock time the universal clock of the moment stays. Null for
    // null and for a text that has not exactly three parts at its hyphens. The caller owns the result.
    static GPDate* dateFromString(const char* text);

    // Sets the strftime format of toString; the text is not copied. Null means the style of ctime.
    void setFormat(const char* format);

    time_t toRawTime() const;

    // Makes the broken-down view, in local time, if there is none.
    void isTimeValues();

    // The date as autoreleased text, and that text itself.
    GPString* toString();
    const char* cString();

    // "%FT%TZ" if `utc`, else "%FT%T%z", as autoreleased text. The flag chooses the format only.
    GPString* ISOString(bool utc);

    // Moves the date ahead; the broken-down view stays as it is.
    void timeInFuture(int seconds);

    // Seconds from the other date to this one, below 0 when this one is earlier.
    long compareDate(GPDate* other) const;
    long compareDate(long seconds) const;

    // The broken-down view as microseconds since the epoch, comparable with GPTimer::getClockTime.
    unsigned long clockTime();

    // A setter takes the calendar's usual numbers (months and weekdays from 1, full years) and normalises
    // the date, read as local time; a getter gives the raw field (months and weekdays from 0, years since
    // 1900). Weekday and day of the year alone change no date.
    void setSecond(int second);
    void setMinute(int minute);
    void setHour(int hour);
    void setDay(int day);
    void setMonth(int month);
    void setYear(int year);
    void setDayOfWeek(int day);
    void setDayOfYear(int day);
    void setDaylightSaving(int saving);

    int second();
    int minute();
    int hour();
    int day();
    int month();
    int year();
    int dayOfWeek();
    int dayOfYear();
    int daylightSaving();

private:
    void setField(int tm::*field, int value);
    int getField(int tm::*field);

    time_t rawTime_;
    bool hasTimeValues_ = false;
    struct tm timeValues_ = {}; // made when first needed
    const char* format_ = nullptr;
};
