#include "gp/GPDate.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "gp/TimeZoneLock.h"
#include "platform/Clock.h"

namespace {

// Months and weekdays count from 0 in the broken-down view.
int fromOne(int value) { return value > 0 ? value - 1 : 0; }

// Below the range of int the subtraction wraps around.
int sinceNineteenHundred(int year) { return static_cast<int>(static_cast<unsigned>(year) - 1900u); }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
GPString* formatted(const char* format, const struct tm& view) {
    char text[256] = {};
    const TimeZoneLock lock;
    if (strftime(text, sizeof text, format, &view) == 0) text[0] = 0;
    return GPString::string(text);
}
#pragma GCC diagnostic pop

time_t secondsOf(struct tm* view) {
    const TimeZoneLock lock;
    return mktime(view);
}

int numberAt(GPArray& parts, int index) {
    return static_cast<GPString*>(parts.objectAtIndex(index))->intValue();
}

} // namespace

GPDate::GPDate() : rawTime_(platform::clock().seconds()) {}

GPDate::GPDate(long seconds) : rawTime_(seconds) {}

GPDate::GPDate(bool utc) : GPDate() {
    if (!utc) {
        isTimeValues();
        return;
    }
    const TimeZoneLock lock;
    gmtime_r(&rawTime_, &timeValues_);
    hasTimeValues_ = true;
}

GPDate* GPDate::now() { return new GPDate(false); }

GPDate* GPDate::UTC() { return new GPDate(true); }

GPDate* GPDate::dateFromString(const char* text) {
    if (!text) return nullptr;
    const auto whole = Owned<GPString>::adopt(new GPString(text));
    if (whole->find("-", false) < 1) return nullptr;
    const auto parts = Owned<GPArray>::adopt(whole->split("-"));
    if (parts->count() != 3) return nullptr;

    // The order is fixed: each setter normalises, so the 31st of this month can move the month read.
    auto date = Owned<GPDate>::adopt(GPDate::UTC());
    date->setYear(numberAt(*parts, 0));
    date->setMonth(numberAt(*parts, 1));
    date->setDay(numberAt(*parts, 2));

    auto* last = static_cast<GPString*>(parts->objectAtIndex(2));
    const int clock = last->find("T", false);
    if (clock < 1 || clock == last->length()) return date.handOver();
    const auto fields = Owned<GPArray>::adopt(last->subString(clock + 1)->split(":"));
    if (fields->count() < 3) return nullptr;
    date->setHour(numberAt(*fields, 0));
    date->setMinute(numberAt(*fields, 1));
    date->setSecond(numberAt(*fields, 2));
    return date.handOver();
}

void GPDate::setFormat(const char* format) { format_ = format; }

time_t GPDate::toRawTime() const { return rawTime_; }

void GPDate::isTimeValues() {
    if (hasTimeValues_) return;
    const TimeZoneLock lock;
    // A time beyond the calendar has none.
    if (!localtime_r(&rawTime_, &timeValues_)) timeValues_ = {};
    hasTimeValues_ = true;
}

GPString* GPDate::toString() {
    isTimeValues();
    if (format_) return formatted(format_, timeValues_);
    char text[64] = {};
    {
        const TimeZoneLock lock;
        if (!ctime_r(&rawTime_, text)) text[0] = 0;
    }
    return GPString::string(text);
}

const char* GPDate::cString() { return toString()->cstr(); }

GPString* GPDate::ISOString(bool utc) {
    isTimeValues();
    return formatted(utc ? "%FT%TZ" : "%FT%T%z", timeValues_);
}

// A broken-down view that was made before stays as it is.
void GPDate::timeInFuture(int seconds) { rawTime_ += seconds; }

long GPDate::compareDate(GPDate* other) const { return compareDate(static_cast<long>(other->rawTime_)); }

long GPDate::compareDate(long seconds) const { return static_cast<long>(difftime(rawTime_, seconds)); }

unsigned long GPDate::clockTime() {
    isTimeValues();
    return static_cast<unsigned long>(secondsOf(&timeValues_)) * 1000000ul;
}

void GPDate::setField(int tm::*field, int value) {
    isTimeValues();
    timeValues_.*field = value;
    rawTime_ = secondsOf(&timeValues_);
}

int GPDate::getField(int tm::*field) {
    isTimeValues();
    return timeValues_.*field;
}

void GPDate::setSecond(int second) { setField(&tm::tm_sec, second); }
void GPDate::setMinute(int minute) { setField(&tm::tm_min, minute); }
void GPDate::setHour(int hour) { setField(&tm::tm_hour, hour); }
void GPDate::setDay(int day) { setField(&tm::tm_mday, day); }
void GPDate::setMonth(int month) { setField(&tm::tm_mon, fromOne(month)); }
void GPDate::setYear(int year) { setField(&tm::tm_year, sinceNineteenHundred(year)); }
void GPDate::setDayOfWeek(int day) { setField(&tm::tm_wday, fromOne(day)); }
void GPDate::setDayOfYear(int day) { setField(&tm::tm_yday, day); }
void GPDate::setDaylightSaving(int saving) { setField(&tm::tm_isdst, saving); }

int GPDate::second() { return getField(&tm::tm_sec); }
int GPDate::minute() { return getField(&tm::tm_min); }
int GPDate::hour() { return getField(&tm::tm_hour); }
int GPDate::day() { return getField(&tm::tm_mday); }
int GPDate::month() { return getField(&tm::tm_mon); }
int GPDate::year() { return getField(&tm::tm_year); }
int GPDate::dayOfWeek() { return getField(&tm::tm_wday); }
int GPDate::dayOfYear() { return getField(&tm::tm_yday); }
int GPDate::daylightSaving() { return getField(&tm::tm_isdst); }
