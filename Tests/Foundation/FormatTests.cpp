#include "Foundation/NSArray.h"
#include "Foundation/NSDictionary.h"
#include "Foundation/NSFormat.h"
#include "Foundation/NSNumber.h"

#include <clocale>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace {

template <class... Arguments>
std::string format(std::string_view text, const Arguments&... arguments)
{
    return toUTF8(NSStringWithFormat(text, arguments...));
}

TEST(Format, CopiesPlainTextAndPercentSigns)
{
    EXPECT_EQ(format(""), "");
    EXPECT_EQ(format("100%% of gr\u00FC\u00DFe"), "100% of gr\u00FC\u00DFe");
    EXPECT_EQ(format("%y %"), "%y %");
    EXPECT_EQ(format("bad \xFF byte"), "bad \uFFFD byte");
}

TEST(Format, ResultIsEightBitWhereItCanBe)
{
    EXPECT_FALSE(NSStringWithFormat("%@", NSString::stringWithCharacters(u"\u00E9"))->isWide());
    EXPECT_TRUE(NSStringWithFormat("%@", "\u2603"_ns)->isWide());
}

TEST(Format, PrintsObjectsByTheirDescription)
{
    EXPECT_EQ(format("%@|%@|%@", "text"_ns, NSNumber::numberWithInt(-7), "\u2603"_ns), "text|-7|\u2603");
    EXPECT_EQ(format("%@", NSArray::arrayWithObjects({"a"_ns, NSNumber::numberWithInt(2)})), "(\n    a,\n    2\n)");
    EXPECT_EQ(format("%@", NSDictionary::dictionaryWithObjectsAndKeys({{"v"_ns, "k"_ns}})), "{\n    k = v;\n}");
    EXPECT_EQ(format("%@", NSArray::array()), "(\n)");
}

TEST(Format, PrintsNilAndNullAsSuch)
{
    EXPECT_EQ(format("%@ %s", Ref<NSString>(), static_cast<const char*>(nullptr)), "(null) (null)");
    EXPECT_EQ(format("%@ %s", nullptr, nullptr), "(null) (null)");
}

TEST(Format, PrintsIntegersOfEveryWidth)
{
    EXPECT_EQ(format("%d %i %u", -5, 7, 8U), "-5 7 8");
    EXPECT_EQ(format("%ld %lld %zd %qd %hd %hhd", -1L, -2LL, -3L, -4LL, -5, -6), "-1 -2 -3 -4 -5 -6");
    EXPECT_EQ(format("%d", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(format("%d", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(format("%x %X %#x %#X", 255, 255, 255, 255), "ff FF 0xff 0XFF");
    EXPECT_EQ(format("%d", true), "1");
}

TEST(Format, ShowsNegativeNumbersAsUnsignedInTheirWidth)
{
    EXPECT_EQ(format("%u %x", -1, -25300), "4294967295 ffff9d2c");
    EXPECT_EQ(format("%lx", -1L), "ffffffffffffffff");
    EXPECT_EQ(format("%x", std::numeric_limits<std::int64_t>::min()), "8000000000000000");
}

TEST(Format, HonoursFlagsWidthAndPrecision)
{
    EXPECT_EQ(
        format("[%5d][%-5d][%05d][%+d][% d][%.3d]", 42, 42, 42, 42, 42, 7), "[   42][42   ][00042][+42][ 42][007]");
    EXPECT_EQ(format("[%05d][%-05d][%05.2d]", -42, -42, 7), "[-0042][-42  ][   07]");
    EXPECT_EQ(format("[%5s][%-5s][%.2s]", "ab", "ab", "abc"), "[   ab][ab   ][ab]");
    EXPECT_EQ(format("[%5@][%-5@][%.2@]", "ab"_ns, "ab"_ns, "abc"_ns), "[   ab][ab   ][ab]");
    EXPECT_EQ(format("[%3c]", 'x'), "[  x]");
}

TEST(Format, BoundsAnAbsurdWidth)
{
    EXPECT_EQ(format("%999999999999d", 1).size(), 4096U);
    EXPECT_EQ(format("%.999999999999f", 1.0).size(), 4098U);
}

TEST(Format, PrintsCharacters)
{
    EXPECT_EQ(format("%c[%@ %@]", '+', "NSString"_ns, "m:"_ns), "+[NSString m:]");
    EXPECT_EQ(NSStringWithFormat("%c", '\xE9')->characters(), u"\u00E9");
}

TEST(Format, PrintsRealNumbersWhateverTheLocale)
{
    // Where none of these is installed the C locale stays, and the numbers must look the same.
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"})
        std::setlocale(LC_NUMERIC, name);
    EXPECT_EQ(format("%f %.2f %g %.3g", 1.5, 2.345, 0.0001, 1234.5), "1.500000 2.35 0.0001 1.23e+03");
    EXPECT_EQ(format("%f %+f %5.1f %f", -0.5, 0.5, 1.25, std::nan("")), "-0.500000 +0.500000   1.2 nan");
    EXPECT_EQ(format("%f", -std::numeric_limits<double>::infinity()), "-inf");
    EXPECT_EQ(format("%f", std::numeric_limits<double>::max()).size(), 316U);
    std::setlocale(LC_NUMERIC, "C");
}

TEST(Format, DecodesCTextAsUTF8)
{
    EXPECT_EQ(format("%s", "gr\u00FC\u00DFe"), "gr\u00FC\u00DFe");
    EXPECT_EQ(format("%s", "a\xC3"), "a\uFFFD");
    EXPECT_EQ(format("%s", std::string("owned")), "owned");
    const char unterminated[2] = {'a', 'b'};
    EXPECT_EQ(format("%.2s", static_cast<const char*>(unterminated)), "ab");
}

TEST(Format, NeverReadsWhatIsNotThere)
{
    EXPECT_EQ(format("%@ %d %s"), "(?) (?) (?)");
    EXPECT_EQ(format("%d %d", 1), "1 (?)");
    EXPECT_EQ(format("[%5@]"), "[  (?)]");
}

TEST(Format, RefusesArgumentsThatDoNotFit)
{
    EXPECT_EQ(format("%@ %d %s %f %c", 1, "text", "object"_ns, 1, 1.5), "(?) (?) (?) (?) (?)");
    EXPECT_EQ(format("%@ %d", "c text", "object"_ns), "(?) (?)");
    EXPECT_EQ(format("%x %u %d", 1.5, 2.5, 3.5), "(?) (?) (?)");
    EXPECT_EQ(format("%d %d", "text", 2), "(?) 2");
}

TEST(Format, IgnoresArgumentsLeftOver) { EXPECT_EQ(format("%d", 1, 2, 3), "1"); }

TEST(Format, KeepsUnpairedSurrogates)
{
    EXPECT_EQ(NSStringWithFormat("<%@>", NSString::stringWithCharacters(u"\xD800"))->characters(), u"<\xD800>");
}

} // namespace
