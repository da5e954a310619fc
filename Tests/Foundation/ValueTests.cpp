#include "Foundation/NSDate.h"
#include "Foundation/NSNumber.h"
#include "Foundation/NSString.h"

#include <cmath>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>

namespace {

CFGregorianDate date(std::int32_t year, int month, int day, int hour = 0, int minute = 0, double second = 0)
{
    return {year, static_cast<std::int8_t>(month), static_cast<std::int8_t>(day), static_cast<std::int8_t>(hour),
        static_cast<std::int8_t>(minute), second};
}

double absolute(const CFGregorianDate& value) { return CFGregorianDateGetAbsoluteTime(value, nullptr); }

TEST(GregorianDate, CountsSecondsFromTheReferenceDate)
{
    EXPECT_EQ(absolute(date(2001, 1, 1)), 0);
    EXPECT_EQ(absolute(date(2001, 1, 1, 1, 2, 3.5)), 3723.5);
    EXPECT_EQ(absolute(date(1970, 1, 1)), -kCFAbsoluteTimeIntervalSince1970);
    EXPECT_EQ(absolute(date(2000, 12, 31, 23, 59, 59)), -1);
}

TEST(GregorianDate, AgreesWithTheCLibraryOnEveryDayOfEightCenturies)
{
    for (std::time_t day = -146097; day < 146097; ++day) {
        const std::time_t seconds = day * 86400;
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        ASSERT_EQ(absolute(date(utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday)),
            static_cast<double>(seconds) - kCFAbsoluteTimeIntervalSince1970);
    }
}

TEST(GregorianDate, DayRunsOnPastItsMonth)
{
    EXPECT_EQ(absolute(date(2009, 2, 31)), absolute(date(2009, 3, 3)));
    EXPECT_EQ(absolute(date(2008, 2, 31)), absolute(date(2008, 3, 2)));
    EXPECT_EQ(absolute(date(2009, 12, 32)), absolute(date(2010, 1, 1)));
    EXPECT_EQ(absolute(date(2009, 13, 1)), absolute(date(2010, 1, 1)));
    EXPECT_EQ(absolute(date(2009, 3, 0)), absolute(date(2009, 2, 28)));
}

TEST(GregorianDate, TakesAnyYear)
{
    EXPECT_EQ(absolute(date(0, 3, 1)) - absolute(date(0, 2, 28)), 2 * 86400.0);
    EXPECT_EQ(absolute(date(-400, 1, 1)), absolute(date(0, 1, 1)) - 146097 * 86400.0);
    EXPECT_LT(absolute(date(std::numeric_limits<std::int32_t>::min(), 1, 1)), -6.7e16);
    EXPECT_GT(absolute(date(std::numeric_limits<std::int32_t>::max(), 12, 31)), 6.7e16);
}

std::string description(double seconds)
{
    return toUTF8(NSDate::dateWithTimeIntervalSinceReferenceDate(seconds)->description());
}

TEST(Date, DescribesItself)
{
    EXPECT_EQ(description(0), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(description(-0.5), "2000-12-31 23:59:59 +0000");
    EXPECT_EQ(description(absolute(date(2024, 2, 29, 12, 34, 56))), "2024-02-29 12:34:56 +0000");
    EXPECT_EQ(description(absolute(date(99, 3, 1))), "0099-03-01 00:00:00 +0000");
    EXPECT_EQ(description(std::nan("")), "nan seconds since 2001-01-01 00:00:00 +0000");
    EXPECT_EQ(description(1e300), "1e+300 seconds since 2001-01-01 00:00:00 +0000");
}

TEST(Date, ComparesByValue)
{
    const auto a = NSDate::dateWithTimeIntervalSinceReferenceDate(5);
    const auto b = NSDate::dateWithTimeIntervalSinceReferenceDate(5);
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(CFEqual(a, NSDate::dateWithTimeIntervalSinceReferenceDate(6)));
    EXPECT_FALSE(CFEqual(a, "5"_ns));
    EXPECT_EQ(a->timeIntervalSince1970(), 978307205.0);
}

TEST(Number, ReadsInEveryKind)
{
    const auto number = NSNumber::numberWithUnsignedInt(4294967295U);
    EXPECT_EQ(number->unsignedIntValue(), 4294967295U);
    EXPECT_EQ(number->intValue(), -1);
    EXPECT_EQ(number->longValue(), 4294967295);
    EXPECT_EQ(number->doubleValue(), 4294967295.0);
    EXPECT_EQ(NSNumber::numberWithDouble(-2.75)->intValue(), -2);
    EXPECT_EQ(NSNumber::numberWithDouble(1e300)->longValue(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(NSNumber::numberWithDouble(-1e300)->longValue(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(NSNumber::numberWithDouble(std::nan(""))->longValue(), 0);
}

TEST(Number, ComparesByValueAcrossKinds)
{
    EXPECT_TRUE(CFEqual(NSNumber::numberWithInt(5), NSNumber::numberWithDouble(5)));
    EXPECT_EQ(CFHash(NSNumber::numberWithInt(5)), CFHash(NSNumber::numberWithDouble(5)));
    EXPECT_FALSE(CFEqual(NSNumber::numberWithInt(5), NSNumber::numberWithDouble(5.5)));
    const std::int64_t large = (std::int64_t{1} << 53) + 1;
    EXPECT_FALSE(CFEqual(NSNumber::numberWithLong(large), NSNumber::numberWithLong(large - 1)));
}

TEST(Number, DescribesItself)
{
    EXPECT_EQ(toUTF8(NSNumber::numberWithInt(-5)->description()), "-5");
    EXPECT_EQ(toUTF8(NSNumber::numberWithDouble(0.5)->description()), "0.5");
    EXPECT_EQ(toUTF8(NSNumber::numberWithLong(std::numeric_limits<std::int64_t>::min())->description()),
        "-9223372036854775808");
}

} // namespace
