// Points in time.
#pragma once

#include "Foundation/NSObject.h"

/// Seconds since the reference date, 1 January 2001 00:00:00 GMT.
using CFAbsoluteTime = double;
/// Seconds from the Unix epoch to the reference date.
inline constexpr double kCFAbsoluteTimeIntervalSince1970 = 978307200.0;

/// A date of the proleptic Gregorian calendar.
struct CFGregorianDate {
    std::int32_t year = 0;
    std::int8_t month = 0;
    std::int8_t day = 0;
    std::int8_t hour = 0;
    std::int8_t minute = 0;
    double second = 0;
};

/// The time zone argument of CFGregorianDateGetAbsoluteTime: null means GMT,
/// and GMT is all that the platform knows.
using CFTimeZoneRef = std::nullptr_t;

/// The absolute time of a date. A day past the end of its month runs on into
/// the next one (31 February is 3 March, in a leap year 2 March).
CFAbsoluteTime CFGregorianDateGetAbsoluteTime(CFGregorianDate date, CFTimeZoneRef timeZone) noexcept;

/// An immutable point in time.
class NSDate final : public NSObject {
public:
    static Ref<NSDate> dateWithTimeIntervalSinceReferenceDate(double seconds);
    double timeIntervalSinceReferenceDate() const noexcept { return seconds_; }
    double timeIntervalSince1970() const noexcept { return seconds_ + kCFAbsoluteTimeIntervalSince1970; }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    /// "YYYY-MM-DD HH:MM:SS +0000".
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSDate"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit NSDate(double seconds) noexcept : seconds_(seconds) { }
    ~NSDate() override;

    double seconds_;
};
