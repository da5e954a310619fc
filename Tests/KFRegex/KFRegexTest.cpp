// What callers of the regular-expression categories see.

#include "Texts.h"

#include "Foundation/NSException.h"
#include "Foundation/NSNumber.h"
#include "KFRegex/KFRegex.h"

#include <gmock/gmock.h>

#include <numeric>

using namespace KFRegexAdditions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr NSRange none{NSNotFound, 0};
constexpr std::uint32_t caseInsensitive = 2; // UREGEX_CASE_INSENSITIVE

/// What an exception carries, as text; empty where none is raised.
struct Raised {
    std::string name;
    std::string reason;
    Ref<NSDictionary> userInfo;
};

template <class Function>
Raised raisedBy(Function function)
{
    try {
        function();
    } catch (const NSRaisedException& raised) {
        return {
            toUTF8(raised.exception()->name()), toUTF8(raised.exception()->reason()), raised.exception()->userInfo()};
    }
    return {};
}

std::string strip(const Ref<NSString>& string)
{
    return toUTF8(stringByReplacingOccurrencesOfRegex(string, "\\s+"_ns, ""_ns));
}

// Stripping white space

TEST(StrippingWhiteSpace, RemovesEveryRun)
{
    EXPECT_EQ(strip(text(" aGVs\r\nbG8=\n\n\t ")), "aGVsbG8=");
    EXPECT_EQ(strip(wide(u" aGVs\r\nbG8=\n\n\t ")), "aGVsbG8=");
}

TEST(StrippingWhiteSpace, TakesUnicodeWhiteSpaceForWhiteSpace)
{
    EXPECT_EQ(strip(wide(u"a\u00A0b\u0085c\u2028d\u3000e\u000Bf")), "abcdef");
    EXPECT_EQ(strip(text("a\u00A0b\u0085c")), "abc");
    EXPECT_EQ(strip(wide(u"a\u200Bb\uFEFFc\u001Cd")),
        "a\u200Bb\uFEFFc\x1C"
        "d");
}

TEST(StrippingWhiteSpace, GivesAnEqualImmutableStringWhereThereIsNone)
{
    for (const Ref<NSString>& string : {text("aGVsbG8="), wide(u"aGVsbG8="), Ref<NSString>(changeable("aGVsbG8="))}) {
        const Ref<NSString> stripped = stringByReplacingOccurrencesOfRegex(string, "\\s+"_ns, ""_ns);
        EXPECT_TRUE(CFEqual(stripped, string));
        EXPECT_FALSE(stripped->isMutable());
    }
}

TEST(StrippingWhiteSpace, GivesTheEmptyStringForOnlyWhiteSpaceAndForNothing)
{
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(text(" \n\t "), "\\s+"_ns, ""_ns), NSString::string());
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(text(""), "\\s+"_ns, ""_ns), NSString::string());
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(wide(u""), "\\s+"_ns, ""_ns), NSString::string());
}

TEST(StrippingWhiteSpace, WorksOnTextOfEveryBufferSize)
{
    for (const std::size_t length : {1U, 2046U, 2047U, 2048U, 2049U, 4096U, 40000U, 90000U, 1U << 20}) {
        std::string spaced;
        std::string plain;
        for (std::size_t i = 0; i < length; ++i) {
            const bool isBreak = i % 65 == 64;
            spaced += isBreak ? '\n' : static_cast<char>('A' + i % 26);
            if (!isBreak)
                plain += spaced.back();
        }
        EXPECT_EQ(strip(text(spaced)), plain) << length;
        EXPECT_EQ(strip(widened(text(spaced))), plain) << length;
    }
}

TEST(StrippingWhiteSpace, OfNilGivesNil)
{
    EXPECT_FALSE(stringByReplacingOccurrencesOfRegex(Ref<NSString>(), "\\s+"_ns, ""_ns));
}
} // namespace
