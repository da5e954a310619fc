#include "Foundation/NSDate.h"

#include "Foundation/NSFormat.h"

#include <cmath>
#include <functional>

namespace {

constexpr std::int64_t secondsOfDay = 86400;
constexpr std::int64_t daysOfFourCenturies = 146097;
/// Days from 1 March of the year 0 to 1 January 2001.
constexpr std::int64_t daysToReferenceDate = 730791;

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) noexcept
{
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

/// Days from the reference date to the first day of a month. Years are counted
/// from March, so that the leap day is the last one.
constexpr std::int64_t daysToMonth(std::int64_t year, std::int64_t month) noexcept
{
    const std::int64_t months = year * 12 + month - 3;
    const std::int64_t marchYear = floorDivide(months, 12);
    const std::int64_t marchMonth = months - marchYear * 12;
    const std::int64_t leapDays = floorDivide(marchYear, 4) - floorDivide(marchYear, 100) + floorDivide(marchYear, 400);
    return marchYear * 365 + leapDays + (marchMonth * 153 + 2) / 5 - daysToReferenceDate;
}
static_assert(daysToMonth(2001, 1) == 0 && daysToMonth(1970, 1) == -11323 && daysToMonth(2000, 3) == -306);

struct CivilDay {
    std::int64_t year;
    std::int64_t month;
    std::int64_t day;
};

/// The date that lies `days` after the reference date.
constexpr CivilDay civilDay(std::int64_t days) noexcept
{
    const std::int64_t sinceMarch = days + daysToReferenceDate;
    const std::int64_t era = floorDivide(sinceMarch, daysOfFourCenturies);
    const std::int64_t ofEra = sinceMarch - era * daysOfFourCenturies;
    const std::int64_t yearOfEra = (ofEra - ofEra / 1460 + ofEra / 36524 - ofEra / 146096) / 365;
    const std::int64_t ofYear = ofEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t marchMonth = (5 * ofYear + 2) / 153;
    const std::int64_t month = marchMonth < 10 ? marchMonth + 3 : marchMonth - 9;
    return {era * 400 + yearOfEra + (month <= 2 ? 1 : 0), month, ofYear - (153 * marchMonth + 2) / 5 + 1};
}

} // namespace

CFAbsoluteTime CFGregorianDateGetAbsoluteTime(CFGregorianDate date, CFTimeZoneRef) noexcept
{
    const std::int64_t days = daysToMonth(date.year, date.month) + date.day - 1;
    const std::int64_t seconds = days * secondsOfDay + date.hour * std::int64_t{3600} + date.minute * std::int64_t{60};
    return static_cast<double>(seconds) + date.second;
}

NSDate::~NSDate() = default;

Ref<NSDate> NSDate::dateWithTimeIntervalSinceReferenceDate(double seconds) { return makeRef<NSDate>(seconds); }

bool NSDate::isEqual(const NSObject* other) const noexcept
{
    const auto* const date = dynamic_cast<const NSDate*>(other);
    return this == other || (date && date->seconds_ == seconds_);
}

CFHashCode NSDate::hash() const noexcept { return std::hash<double>{}(seconds_); }

Ref<NSString> NSDate::description() const
{
    // Far outside of any calendar; within it, whole seconds are exact.
    if (!(std::fabs(seconds_) < 1e17))
        return NSStringWithFormat("%g seconds since 2001-01-01 00:00:00 +0000", seconds_);
    const auto seconds = static_cast<std::int64_t>(std::floor(seconds_));
    const std::int64_t days = floorDivide(seconds, secondsOfDay);
    const std::int64_t ofDay = seconds - days * secondsOfDay;
    const CivilDay day = civilDay(days);
    return NSStringWithFormat("%04ld-%02ld-%02ld %02ld:%02ld:%02ld +0000", day.year, day.month, day.day, ofDay / 3600,
        ofDay / 60 % 60, ofDay % 60);
}
