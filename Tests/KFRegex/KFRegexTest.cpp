// What callers of the regular-expression categories see.

#include "Texts.h"

#include "Foundation/NSException.h"
#include "Foundation/NSNumber.h"
#include "KFRegex/KFRegex.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <utility>

using namespace KFRegexAdditions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr NSRange none{NSNotFound, 0};
constexpr std::uint32_t caseInsensitive = 2; // UREGEX_CASE_INSENSITIVE
constexpr std::uint32_t literal = 16;        // UREGEX_LITERAL
constexpr int mismatchedParenthesis = 66310; // U_REGEX_MISMATCHED_PAREN

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

// Matching

TEST(Matching, TellsWhetherAPatternMatches)
{
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "b"_ns));
    EXPECT_FALSE(isMatchedByRegex(text("abc"), "x"_ns));
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "c"_ns, {1, 2}));
    EXPECT_FALSE(isMatchedByRegex(text("abc"), "a"_ns, {1, 2}));
    EXPECT_TRUE(isMatchedByRegex(text("ABC"), "b"_ns, caseInsensitive, {0, 3}, nullptr));
    EXPECT_FALSE(isMatchedByRegex(text("ABC"), "b"_ns, 0, {0, 3}, nullptr));
}

TEST(Matching, GivesRangesInUnitsOfTheReceiver)
{
    const Ref<NSString> subject = wide(u"\U0001F600 key=value; k=v");
    EXPECT_EQ(rangeOfRegex(subject, "(\\w+)=(\\w+)"_ns), (NSRange{3, 9}));
    EXPECT_EQ(rangeOfRegex(subject, "(\\w+)=(\\w+)"_ns, 2), (NSRange{7, 5}));
    EXPECT_EQ(rangeOfRegex(subject, "(\\w+)=(\\w+)"_ns, NSRange{12, 5}), (NSRange{14, 3}));
    EXPECT_EQ(rangeOfRegex(subject, "(K)=(V)"_ns, caseInsensitive, {12, 5}, 2, nullptr), (NSRange{16, 1}));
    EXPECT_EQ(rangeOfRegex(subject, "nothing"_ns), none);
}

TEST(Matching, GivesNothingForAGroupThatTookNoPart)
{
    EXPECT_EQ(rangeOfRegex(text("b"), "(a)?b"_ns, 1), none);
    EXPECT_FALSE(stringByMatching(text("b"), "(a)?b"_ns, 1));
    EXPECT_THAT(list(componentsMatchedByRegex(text("b ab"), "(a)?b"_ns, 1)), ElementsAre("", "a"));
}

TEST(Matching, GivesTheTextOfAMatchOrOfAGroup)
{
    for (const Ref<NSString>& subject : {text("from ada to bob"), wide(u"from ada to bob")}) {
        EXPECT_EQ(toUTF8(stringByMatching(subject, "(\\w+) to (\\w+)"_ns)), "ada to bob");
        EXPECT_EQ(toUTF8(stringByMatching(subject, "(\\w+) to (\\w+)"_ns, 2)), "bob");
        EXPECT_EQ(toUTF8(stringByMatching(subject, "\\w+"_ns, NSRange{5, 2})), "ad");
        EXPECT_EQ(toUTF8(stringByMatching(subject, "(B)OB"_ns, caseInsensitive, kfr::wholeString, 1, nullptr)), "b");
        EXPECT_FALSE(stringByMatching(subject, "eve"_ns));
    }
}

TEST(Matching, AnEmptyMatchIsAnEmptyStringAndNotNil)
{
    const Ref<NSString> found = stringByMatching(text("abc"), "x*"_ns);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->length(), 0);
}

TEST(Matching, APatternSeesOnlyItsRange)
{
    EXPECT_EQ(rangeOfRegex(text("abc"), "^b"_ns, NSRange{1, 2}), (NSRange{1, 1}));
    EXPECT_EQ(rangeOfRegex(text("abc"), "b$"_ns, NSRange{0, 2}), (NSRange{1, 1}));
    EXPECT_EQ(rangeOfRegex(text("abc"), "(?<=a)b"_ns, NSRange{1, 2}), none);
}

TEST(Matching, TheWholeStringIsARange)
{
    EXPECT_EQ(rangeOfRegex(text("abc"), "c"_ns, NSRange{0, UINT64_MAX}), (NSRange{2, 1}));
    EXPECT_EQ(rangeOfRegex(text("abc"), "^"_ns, NSRange{3, 0}), (NSRange{3, 0}));
    EXPECT_EQ(rangeOfRegex(text(""), "^$"_ns), (NSRange{0, 0}));
}

TEST(Matching, AskedAgainGivesTheSame)
{
    const Ref<NSString> subject = text("one two");
    const Ref<NSString> pattern = "(\\w)(\\w+)"_ns;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{0, 3}));
        EXPECT_EQ(rangeOfRegex(subject, pattern, 2), (NSRange{1, 2}));
        EXPECT_THAT(list(componentsMatchedByRegex(subject, pattern)), ElementsAre("one", "two"));
        EXPECT_EQ(rangeOfRegex(subject, pattern, NSRange{3, 4}), (NSRange{4, 3}));
        EXPECT_EQ(rangeOfRegex(subject, "x?"_ns), (NSRange{0, 0}));
    }
}

// Splitting

TEST(Splitting, GivesThePiecesBetweenMatches)
{
    for (const Ref<NSString>& subject : {text("a, b,c"), wide(u"a, b,c")})
        EXPECT_THAT(list(componentsSeparatedByRegex(subject, ",\\s*"_ns)), ElementsAre("a", "b", "c"));
    EXPECT_THAT(list(componentsSeparatedByRegex(text("a,b,c"), ","_ns, {2, 3})), ElementsAre("b", "c"));
    EXPECT_THAT(list(componentsSeparatedByRegex(text("aXbxc"), "x"_ns, caseInsensitive, {0, 5}, nullptr)),
        ElementsAre("a", "b", "c"));
}

TEST(Splitting, StartsWithAnEmptyPieceButNeverEndsWithOne)
{
    EXPECT_THAT(list(componentsSeparatedByRegex(text(",a,,b,"), ","_ns)), ElementsAre("", "a", "", "b"));
    EXPECT_THAT(list(componentsSeparatedByRegex(text(","), ","_ns)), ElementsAre(""));
}

TEST(Splitting, GivesTheWholeTextWhereNothingMatches)
{
    EXPECT_THAT(list(componentsSeparatedByRegex(text("abc"), ","_ns)), ElementsAre("abc"));
    EXPECT_THAT(list(componentsSeparatedByRegex(text(""), ","_ns)), IsEmpty());
}

TEST(Splitting, PutsTheGroupsBetweenThePieces)
{
    EXPECT_THAT(
        list(componentsSeparatedByRegex(text("1+2-3"), "(\\+)|(-)"_ns)), ElementsAre("1", "+", "", "2", "", "-", "3"));
}

TEST(Splitting, AtEmptyMatchesGivesEveryCharacter)
{
    EXPECT_THAT(list(componentsSeparatedByRegex(text("abc"), "x*"_ns)), ElementsAre("", "a", "b", "c"));
}

// Collecting

TEST(Collecting, GivesTheTextOfEveryMatch)
{
    for (const Ref<NSString>& subject : {text("k=v key=value"), wide(u"k=v key=value")}) {
        EXPECT_THAT(list(componentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns)), ElementsAre("k=v", "key=value"));
        EXPECT_THAT(list(componentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns, 2)), ElementsAre("v", "value"));
    }
    EXPECT_THAT(list(componentsMatchedByRegex(text("aaa"), "a"_ns, NSRange{1, 2})), ElementsAre("a", "a"));
    EXPECT_THAT(list(componentsMatchedByRegex(text("aBc"), "([A-C])"_ns, caseInsensitive, {1, 2}, 1, nullptr)),
        ElementsAre("B", "c"));
}

TEST(Collecting, GivesAnEmptyArrayWhereNothingMatches)
{
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "x"_ns)), IsEmpty());
    EXPECT_THAT(list(captureComponentsMatchedByRegex(text("abc"), "(x)"_ns)), IsEmpty());
    EXPECT_THAT(list(arrayOfCaptureComponentsMatchedByRegex(text("abc"), "(x)"_ns)), IsEmpty());
}

TEST(Collecting, FindsAnEmptyMatchAtEachPositionAndEnds)
{
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "x*"_ns)), ElementsAre("", "", ""));
    EXPECT_THAT(list(componentsMatchedByRegex(text("xaay"), "a*"_ns)), ElementsAre("", "aa", ""));
    EXPECT_THAT(list(componentsMatchedByRegex(text(""), "x*"_ns)), ElementsAre(""));
    EXPECT_THAT(list(componentsMatchedByRegex(wide(u"\U0001F600b"), "x*"_ns)), ElementsAre("", ""));
}

TEST(Collecting, EndsWhereItsRangeEnds)
{
    EXPECT_THAT(list(componentsMatchedByRegex(text("a"), "x*"_ns)), ElementsAre(""));
    EXPECT_THAT(list(componentsMatchedByRegex(text("ab"), "b|$"_ns)), ElementsAre("b"));
    EXPECT_THAT(list(componentsMatchedByRegex(text("ba"), "b|$"_ns)), ElementsAre("b", ""));
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "$"_ns)), ElementsAre(""));
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "x*"_ns, NSRange{1, 1})), ElementsAre(""));
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "x*"_ns, NSRange{3, 0})), ElementsAre(""));
}

TEST(Collecting, GivesTheGroupsOfTheFirstMatch)
{
    const Ref<NSString> subject = text("k=v key=value");
    EXPECT_THAT(list(captureComponentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns)), ElementsAre("k=v", "k", "v"));
    EXPECT_THAT(list(captureComponentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns, {4, 9})),
        ElementsAre("key=value", "key", "value"));
    EXPECT_THAT(list(captureComponentsMatchedByRegex(subject, "(K)=(X)?"_ns, caseInsensitive, {0, 13}, nullptr)),
        ElementsAre("k=", "k", ""));
}

TEST(Collecting, GivesTheGroupsOfEveryMatch)
{
    const Ref<NSString> subject = text("k=v key=value");
    EXPECT_THAT(list(arrayOfCaptureComponentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns)),
        ElementsAre("k=v|k|v|", "key=value|key|value|"));
    EXPECT_THAT(list(arrayOfCaptureComponentsMatchedByRegex(subject, "(\\w+)=(\\w+)"_ns, {4, 9})),
        ElementsAre("key=value|key|value|"));
    EXPECT_THAT(list(arrayOfCaptureComponentsMatchedByRegex(subject, "V"_ns, caseInsensitive, {0, 13}, nullptr)),
        ElementsAre("v|", "v|"));
}

TEST(Collecting, GivesMoreThan2048MatchesInOrder)
{
    std::string numbers;
    std::vector<std::string> expected;
    for (int i = 0; i < 20000; ++i) {
        expected.push_back(std::to_string(i));
        numbers += expected.back() + ' ';
    }
    EXPECT_EQ(list(componentsMatchedByRegex(text(numbers), "\\d+"_ns)), expected);
    EXPECT_EQ(list(componentsSeparatedByRegex(text(numbers), " "_ns)), expected);
    std::transform(expected.begin(), expected.end(), expected.begin(),
        [](const std::string& number) { return number + "|" + number.back() + "||"; });
    EXPECT_EQ(list(arrayOfCaptureComponentsMatchedByRegex(text(numbers), "\\d*(\\d)(x)?"_ns)), expected);
}

TEST(Collecting, TakesPatternsWithMoreGroupsThanRangesFitTheFirstArray)
{
    std::string pattern;
    for (int i = 0; i < 700; ++i)
        pattern += "(a)?";
    const Ref<NSArray> arrays = arrayOfCaptureComponentsMatchedByRegex(text(std::string(2000, 'a')), text(pattern));
    ASSERT_EQ(countOf(arrays), 3U);
    for (NSUInteger i = 0; i < 3; ++i) {
        const std::vector<std::string> captures = list(arrays->objectAs<NSArray>(i));
        ASSERT_EQ(captures.size(), 701U);
        EXPECT_EQ(captures[0].size(), i < 2 ? 700U : 600U);
        EXPECT_EQ(captures[1], "a");
        EXPECT_EQ(captures[700], i < 2 ? "a" : "");
    }
}

TEST(Collecting, MakesArraysThatOwnTheirStringsAlone)
{
    const Ref<NSArray> array = componentsMatchedByRegex(text("ab cd"), "\\w+"_ns);
    Ref<NSObject> first = array->objectAtIndex(0);
    EXPECT_EQ(first->retainCount(), 2U);
}

// Replacing

TEST(Replacing, PutsInTextAndGroups)
{
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("k=v a=b"), "(\\w)=(\\w)"_ns, "$2:$1"_ns)), "v:k b:a");
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(wide(u"k=v"), "="_ns, wide(u" \u2192 "))), "k \u2192 v");
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("a"), "a"_ns, text("\\$1\\\\"))), "$1\\");
    EXPECT_EQ(
        toUTF8(stringByReplacingOccurrencesOfRegex(text("aXbx"), "x"_ns, "-"_ns, caseInsensitive, {0, 4}, nullptr)),
        "a-b-");
}

TEST(Replacing, InARangeGivesTheTextOfTheRange)
{
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("aaaa"), "a"_ns, "b"_ns, {1, 2})), "bb");
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("aaaa"), "x"_ns, "b"_ns, {1, 2})), "aaaa");
}

TEST(Replacing, InAnEmptyTextGivesAnEmptyText)
{
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(text(""), "a"_ns, "b"_ns), NSString::string());
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(wide(u""), "a"_ns, "b"_ns), NSString::string());
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text(""), "x*"_ns, "b"_ns)), "b");
    EXPECT_EQ(stringByReplacingOccurrencesOfRegex(text("abc"), "a"_ns, "b"_ns, {3, 0}), NSString::string());
}

TEST(Replacing, OfEmptyMatchesTakesEveryPosition)
{
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("abc"), "x*"_ns, "-"_ns)), "-a-b-c-");
}

TEST(Replacing, MakesRoomForResultsOfEveryLength)
{
    // S + S / 2 + R * 2 + 16 units are the first guess: results below, at, just above and far above it.
    for (int count = 1; count < 120; ++count) {
        const std::string subject(static_cast<std::size_t>(count), 'a');
        std::string expected;
        for (int i = 0; i < count; ++i)
            expected += "abcd";
        EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text(subject), "a"_ns, "abcd"_ns)), expected) << count;
    }
    const Ref<NSString> large =
        stringByReplacingOccurrencesOfRegex(text(std::string(3000, 'a')), "a"_ns, text(std::string(300, 'b')));
    EXPECT_EQ(toUTF8(large), std::string(900000, 'b'));
}

TEST(Replacing, TakesReplacementsOfEveryWidthAndSize)
{
    for (const std::size_t size : {1U, 100U, 65535U, 65536U, 200000U}) {
        const Ref<NSString> replacement = text(std::string(size, 'r'));
        const std::string expected = std::string(size, 'r') + "b" + std::string(size, 'r');
        EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("aba"), "a"_ns, replacement)), expected) << size;
        EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(text("aba"), "a"_ns, widened(replacement))), expected);
    }
}

TEST(ReplacingInPlace, ChangesTheReceiverAndCounts)
{
    const Ref<NSMutableString> receiver = changeable("a-b-c");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "-"_ns, " and "_ns), 2U);
    EXPECT_EQ(toUTF8(receiver), "a and b and c");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "and"_ns, "or"_ns, {3, 10}), 1U);
    EXPECT_EQ(toUTF8(receiver), "a and b or c");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "[A-C] ?"_ns, ""_ns, caseInsensitive, {0, 8}, nullptr), 3U);
    EXPECT_EQ(toUTF8(receiver), "nd or c");
}

TEST(ReplacingInPlace, WithoutAMatchLeavesTheReceiver)
{
    const Ref<NSMutableString> receiver = changeable("abc");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "x"_ns, "y"_ns), 0U);
    EXPECT_EQ(toUTF8(receiver), "abc");
    const Ref<NSMutableString> empty = changeable("");
    EXPECT_EQ(replaceOccurrencesOfRegex(empty, "x"_ns, "y"_ns), 0U);
    EXPECT_EQ(empty->length(), 0);
}

TEST(ReplacingInPlace, CanEmptyTheReceiver)
{
    const Ref<NSMutableString> receiver = changeable(" \n ");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "\\s+"_ns, ""_ns), 1U);
    EXPECT_EQ(receiver->length(), 0);
}

TEST(ReplacingInPlace, TakesTheReceiverAsItsOwnReplacement)
{
    const Ref<NSMutableString> receiver = changeable("ab");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "a"_ns, receiver), 1U);
    EXPECT_EQ(toUTF8(receiver), "abb");
}

TEST(ReplacingInPlace, IsSeenByTheNextOperation)
{
    const Ref<NSMutableString> receiver = changeable("aaa");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "a"_ns, "b"_ns), 3U);
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "a"_ns, "b"_ns), 0U);
    EXPECT_TRUE(isMatchedByRegex(receiver, "^b+$"_ns));
}

TEST(ReplacingInPlace, CanMakeTheReceiverWide)
{
    const Ref<NSMutableString> receiver = changeable("a to b");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "to"_ns, wide(u"\u2192")), 1U);
    EXPECT_EQ(toUTF8(receiver), "a \u2192 b");
    EXPECT_EQ(rangeOfRegex(receiver, wide(u"\u2192")), (NSRange{2, 1}));
}

// A mutable subject

TEST(MutableSubject, IsSeenWhenItsLengthOrItsTextChanged)
{
    const Ref<NSMutableString> subject = changeable("abc");
    const Ref<NSString> pattern = "c"_ns;
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{2, 1}));
    subject->appendString("c"_ns);
    subject->replaceCharactersInRange({2, 1}, "x"_ns);
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{3, 1}));
    subject->replaceCharactersInRange({0, 1}, "c"_ns);
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{0, 1}));
    subject->setString(wide(u"\u2192\u2192\u2192c"));
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{3, 1}));
}

// Patterns

TEST(Patterns, TellTheirNumberOfGroups)
{
    EXPECT_EQ(captureCountForRegex("a(b)(?:c)(?<name>d)"_ns), 2);
    EXPECT_EQ(captureCountForRegex("a"_ns), 0);
    EXPECT_EQ(captureCountForRegex("(a"_ns), -1);
    EXPECT_EQ(captureCountForRegex("(a"_ns, literal, nullptr), 0);
    EXPECT_EQ(captureCount("(a)"_ns), 1);
    EXPECT_EQ(captureCount("(a"_ns), -1);
    EXPECT_EQ(captureCountWithOptions("(a)"_ns, literal, nullptr), 0);
}

TEST(Patterns, TellWhetherTheyCompile)
{
    EXPECT_TRUE(isRegexValid("(a)"_ns));
    EXPECT_FALSE(isRegexValid("(a"_ns));
    EXPECT_FALSE(isRegexValid(""_ns));
    EXPECT_TRUE(isRegexValidWithOptions("(a"_ns, literal, nullptr));
    Ref<NSError> error;
    EXPECT_FALSE(isRegexValidWithOptions("(a"_ns, 0, &error));
    EXPECT_TRUE(error);
    EXPECT_TRUE(isRegexValidWithOptions("(a)"_ns, 0, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(captureCountForRegex("(a"_ns, 0, &error), -1);
    EXPECT_TRUE(error);
    EXPECT_EQ(captureCountWithOptions("(a)"_ns, 0, &error), 1);
    EXPECT_FALSE(error);
}

TEST(Patterns, WithTwoSetsOfOptionsAreTwoPatterns)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(isMatchedByRegex(text("ABC"), "b"_ns, 0, kfr::wholeString, nullptr));
        EXPECT_TRUE(isMatchedByRegex(text("ABC"), "b"_ns, caseInsensitive, kfr::wholeString, nullptr));
    }
}

TEST(Patterns, MayBeLongMutableOrWide)
{
    const std::string longText(200000, 'a');
    EXPECT_TRUE(isMatchedByRegex(text(longText), text(longText)));
    EXPECT_TRUE(isMatchedByRegex(text(longText), widened(text(longText))));
    const Ref<NSMutableString> pattern = changeable("b");
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    pattern->setString("x"_ns);
    EXPECT_FALSE(isMatchedByRegex(text("abc"), pattern));
}

// Failures

TEST(Failures, OfAPatternAreToldByAnErrorThatShowsThePlace)
{
    Ref<NSError> error;
    EXPECT_EQ(rangeOfRegex(text("abc"), "ab(c"_ns, 0, kfr::wholeString, 0, &error), none);
    ASSERT_TRUE(error);
    EXPECT_EQ(toUTF8(error->domain()), "KFRICURegexErrorDomain");
    EXPECT_EQ(error->code(), mismatchedParenthesis);
    EXPECT_EQ(toUTF8(error->localizedDescription()), "There was an error compiling the regular expression.");
    const Ref<NSDictionary> info = error->userInfo();
    EXPECT_EQ(toUTF8(info->objectAs<NSString>(KFRICURegexRegexErrorKey)), "ab(c");
    EXPECT_EQ(info->objectAs<NSNumber>(KFRICURegexRegexOptionsErrorKey)->unsignedIntValue(), 0U);
    EXPECT_EQ(info->objectAs<NSNumber>(KFRICURegexErrorCodeErrorKey)->intValue(), mismatchedParenthesis);
    EXPECT_EQ(toUTF8(info->objectAs<NSString>(KFRICURegexErrorNameErrorKey)), "U_REGEX_MISMATCHED_PAREN");
    EXPECT_EQ(info->objectAs<NSNumber>(KFRICURegexLineErrorKey)->intValue(), 1);
    EXPECT_EQ(info->objectAs<NSNumber>(KFRICURegexOffsetErrorKey)->intValue(), 4);
    EXPECT_EQ(toUTF8(info->objectAs<NSString>(KFRICURegexPreContextErrorKey)), "ab(c");
    EXPECT_EQ(toUTF8(info->objectAs<NSString>(KFRICURegexPostContextErrorKey)), "");
    EXPECT_EQ(toUTF8(info->objectAs<NSString>("NSLocalizedFailureReason"_ns)),
        "The error U_REGEX_MISMATCHED_PAREN occurred at line 1, column 4: ab(c<<HERE>>");
}

TEST(Failures, OfAPatternWithoutAPlaceHaveTheShortReason)
{
    Ref<NSError> error;
    EXPECT_FALSE(isRegexValidWithOptions(""_ns, 0, &error));
    ASSERT_TRUE(error);
    const Ref<NSDictionary> info = error->userInfo();
    EXPECT_EQ(toUTF8(info->objectAs<NSString>("NSLocalizedFailureReason"_ns)),
        "The error U_ILLEGAL_ARGUMENT_ERROR occurred.");
    EXPECT_FALSE(info->objectForKey(KFRICURegexLineErrorKey));
    EXPECT_FALSE(info->objectForKey(KFRICURegexOffsetErrorKey));
    EXPECT_FALSE(info->objectForKey(KFRICURegexPreContextErrorKey));
    EXPECT_FALSE(info->objectForKey(KFRICURegexPostContextErrorKey));
}

TEST(Failures, OfAPatternLeaveNoResult)
{
    Ref<NSError> error;
    const Ref<NSString> bad = "(a"_ns;
    const Ref<NSString> subject = text("(a");
    const NSRange all = kfr::wholeString;
    const Ref<NSMutableString> receiver = changeable("(a");
    EXPECT_FALSE(isMatchedByRegex(subject, bad, 0, all, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(stringByMatching(subject, bad, 0, all, 0, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(stringByReplacingOccurrencesOfRegex(subject, bad, ""_ns, 0, all, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(componentsSeparatedByRegex(subject, bad, 0, all, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(componentsMatchedByRegex(subject, bad, 0, all, 0, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(captureComponentsMatchedByRegex(subject, bad, 0, all, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_FALSE(arrayOfCaptureComponentsMatchedByRegex(subject, bad, 0, all, &error));
    EXPECT_TRUE(std::exchange(error, nullptr));
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, bad, ""_ns, 0, all, &error), 0U);
    EXPECT_TRUE(error);
    EXPECT_EQ(toUTF8(receiver), "(a");
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns, 0, all, &error));
    EXPECT_FALSE(error) << "the error of an earlier call is not left standing";
}

TEST(Failures, OfAPatternRaiseWhereNoErrorIsAskedFor)
{
    const Raised raised = raisedBy([] { isMatchedByRegex(text("abc"), "ab(c"_ns); });
    EXPECT_EQ(raised.name, "KFRICURegexException");
    EXPECT_EQ(raised.reason,
        "*** -[NSString isMatchedByRegex:]: ICU regular expression error #66310, U_REGEX_MISMATCHED_PAREN.");
    ASSERT_TRUE(raised.userInfo);
    EXPECT_EQ(raised.userInfo->objectAs<NSNumber>(KFRICURegexErrorCodeErrorKey)->intValue(), mismatchedParenthesis);
    EXPECT_EQ(raised.userInfo->objectAs<NSNumber>(KFRICURegexLineErrorKey)->intValue(), 1);
    EXPECT_FALSE(raised.userInfo->objectForKey(NSLocalizedDescriptionKey));
}

TEST(Failures, OfATemplateRaise)
{
    const Raised unknownGroup = raisedBy([] { stringByReplacingOccurrencesOfRegex(text("a"), "(a)"_ns, "$9"_ns); });
    EXPECT_EQ(unknownGroup.name, "KFRICURegexException");
    EXPECT_EQ(unknownGroup.reason,
        "*** -[NSString stringByReplacingOccurrencesOfRegex:withString:]: ICU regular "
        "expression error #8, U_INDEX_OUTOFBOUNDS_ERROR.");
    EXPECT_THAT(raisedBy([] { stringByReplacingOccurrencesOfRegex(text("a"), "a"_ns, "$"_ns); }).reason,
        HasSubstr("U_REGEX_INVALID_CAPTURE_GROUP_NAME"));
    const Ref<NSMutableString> receiver = changeable("aa");
    EXPECT_THAT(raisedBy([&] { replaceOccurrencesOfRegex(receiver, "a"_ns, "$9"_ns); }).reason,
        HasSubstr("-[NSMutableString replaceOccurrencesOfRegex:withString:]"));
    EXPECT_EQ(toUTF8(receiver), "aa");
}

TEST(Failures, OfIcuDuringAMatchRaiseAlsoWhereAnErrorIsAskedFor)
{
    const Ref<NSString> spaces = text(std::string(3000000, ' '));
    Ref<NSError> error;
    const Raised raised =
        raisedBy([&] { stringByReplacingOccurrencesOfRegex(spaces, "\\s+"_ns, ""_ns, 0, kfr::wholeString, &error); });
    EXPECT_EQ(raised.name, "KFRICURegexException");
    EXPECT_THAT(raised.reason, HasSubstr("U_REGEX_STACK_OVERFLOW"));
    EXPECT_FALSE(error);
    for (int i = 0; i < 2; ++i)
        EXPECT_THAT(raisedBy([&] { isMatchedByRegex(spaces, "\\s+"_ns); }).reason, HasSubstr("U_REGEX_STACK_OVERFLOW"))
            << "a failure is not remembered as an answer";
    EXPECT_THAT(
        raisedBy([&] { componentsMatchedByRegex(spaces, "\\s+"_ns); }).reason, HasSubstr("U_REGEX_STACK_OVERFLOW"));
    EXPECT_EQ(strip(text(" a ")), "a");
    clearStringCache();
}

TEST(Failures, ANilPatternRaisesInTheNameOfTheMethod)
{
    const Ref<NSString> nil;
    const Ref<NSString> subject = text("abc");
    const Ref<NSMutableString> receiver = changeable("abc");
    Ref<NSError> error;
    const NSRange all = kfr::wholeString;
    const auto expectReason = [](const std::string& method, auto function) {
        const Raised raised = raisedBy(function);
        EXPECT_EQ(raised.name, "NSInvalidArgumentException");
        EXPECT_EQ(raised.reason, "*** " + method + ": The regular expression argument is NULL.");
    };
    expectReason("+[NSString captureCountForRegex:]", [&] { captureCountForRegex(nil); });
    expectReason("+[NSString captureCountForRegex:options:error:]", [&] { captureCountForRegex(nil, 0, &error); });
    expectReason("-[NSString componentsSeparatedByRegex:]", [&] { componentsSeparatedByRegex(subject, nil); });
    expectReason(
        "-[NSString componentsSeparatedByRegex:range:]", [&] { componentsSeparatedByRegex(subject, nil, all); });
    expectReason("-[NSString componentsSeparatedByRegex:options:range:error:]",
        [&] { componentsSeparatedByRegex(subject, nil, 0, all, &error); });
    expectReason("-[NSString isMatchedByRegex:]", [&] { isMatchedByRegex(subject, nil); });
    expectReason("-[NSString isMatchedByRegex:inRange:]", [&] { isMatchedByRegex(subject, nil, all); });
    expectReason(
        "-[NSString isMatchedByRegex:options:inRange:error:]", [&] { isMatchedByRegex(subject, nil, 0, all, &error); });
    expectReason("-[NSString rangeOfRegex:]", [&] { rangeOfRegex(subject, nil); });
    expectReason("-[NSString rangeOfRegex:capture:]", [&] { rangeOfRegex(subject, nil, 1); });
    expectReason("-[NSString rangeOfRegex:inRange:]", [&] { rangeOfRegex(subject, nil, all); });
    expectReason("-[NSString rangeOfRegex:options:inRange:capture:error:]",
        [&] { rangeOfRegex(subject, nil, 0, all, 0, &error); });
    expectReason("-[NSString stringByMatching:]", [&] { stringByMatching(subject, nil); });
    expectReason("-[NSString stringByMatching:capture:]", [&] { stringByMatching(subject, nil, 1); });
    expectReason("-[NSString stringByMatching:inRange:]", [&] { stringByMatching(subject, nil, all); });
    expectReason("-[NSString stringByMatching:options:inRange:capture:error:]",
        [&] { stringByMatching(subject, nil, 0, all, 0, &error); });
    expectReason("-[NSString stringByReplacingOccurrencesOfRegex:withString:]",
        [&] { stringByReplacingOccurrencesOfRegex(subject, nil, ""_ns); });
    expectReason("-[NSString stringByReplacingOccurrencesOfRegex:withString:range:]",
        [&] { stringByReplacingOccurrencesOfRegex(subject, nil, ""_ns, all); });
    expectReason("-[NSString stringByReplacingOccurrencesOfRegex:withString:options:range:error:]",
        [&] { stringByReplacingOccurrencesOfRegex(subject, nil, ""_ns, 0, all, &error); });
    expectReason("-[NSString componentsMatchedByRegex:]", [&] { componentsMatchedByRegex(subject, nil); });
    expectReason("-[NSString componentsMatchedByRegex:capture:]", [&] { componentsMatchedByRegex(subject, nil, 1); });
    expectReason("-[NSString componentsMatchedByRegex:range:]", [&] { componentsMatchedByRegex(subject, nil, all); });
    expectReason("-[NSString componentsMatchedByRegex:options:range:capture:error:]",
        [&] { componentsMatchedByRegex(subject, nil, 0, all, 0, &error); });
    expectReason(
        "-[NSString captureComponentsMatchedByRegex:]", [&] { captureComponentsMatchedByRegex(subject, nil); });
    expectReason("-[NSString captureComponentsMatchedByRegex:range:]",
        [&] { captureComponentsMatchedByRegex(subject, nil, all); });
    expectReason("-[NSString captureComponentsMatchedByRegex:options:range:error:]",
        [&] { captureComponentsMatchedByRegex(subject, nil, 0, all, &error); });
    expectReason("-[NSString arrayOfCaptureComponentsMatchedByRegex:]",
        [&] { arrayOfCaptureComponentsMatchedByRegex(subject, nil); });
    expectReason("-[NSString arrayOfCaptureComponentsMatchedByRegex:range:]",
        [&] { arrayOfCaptureComponentsMatchedByRegex(subject, nil, all); });
    expectReason("-[NSString arrayOfCaptureComponentsMatchedByRegex:options:range:error:]",
        [&] { arrayOfCaptureComponentsMatchedByRegex(subject, nil, 0, all, &error); });
    expectReason("-[NSMutableString replaceOccurrencesOfRegex:withString:]",
        [&] { replaceOccurrencesOfRegex(receiver, nil, ""_ns); });
    expectReason("-[NSMutableString replaceOccurrencesOfRegex:withString:range:]",
        [&] { replaceOccurrencesOfRegex(receiver, nil, ""_ns, all); });
    expectReason("-[NSMutableString replaceOccurrencesOfRegex:withString:options:range:error:]",
        [&] { replaceOccurrencesOfRegex(receiver, nil, ""_ns, 0, all, &error); });
    expectReason("-[NSMutableString isMatchedByRegex:]", [&] { isMatchedByRegex(receiver, nil); });
}

TEST(Failures, ANilReplacementRaises)
{
    const Raised raised = raisedBy([] { stringByReplacingOccurrencesOfRegex(text("abc"), "b"_ns, Ref<NSString>()); });
    EXPECT_EQ(raised.name, "NSInvalidArgumentException");
    EXPECT_EQ(raised.reason,
        "*** -[NSString stringByReplacingOccurrencesOfRegex:withString:]: The replacement string "
        "argument is NULL.");
    EXPECT_THAT(raisedBy([] { replaceOccurrencesOfRegex(changeable("abc"), "b"_ns, Ref<NSString>()); }).reason,
        HasSubstr("The replacement string argument is NULL."));
}

TEST(Failures, ARangePastTheEndRaises)
{
    const Ref<NSString> subject = text("abc");
    for (const NSRange range : {NSRange{0, 4}, NSRange{4, 0}, NSRange{1, 3}, NSRange{1, UINT64_MAX},
             NSRange{2, UINT64_MAX - 1}, NSRange{NSNotFound, 0}, NSRange{UINT64_MAX, 1}}) {
        const Raised raised = raisedBy([&] { isMatchedByRegex(subject, "b"_ns, range); });
        EXPECT_EQ(raised.name, "NSRangeException") << range.location << ", " << range.length;
        EXPECT_EQ(raised.reason, "*** -[NSString isMatchedByRegex:inRange:]: Range or index out of bounds.");
    }
    EXPECT_TRUE(isMatchedByRegex(subject, "b"_ns));
}

TEST(Failures, AGroupThatThePatternHasNotRaises)
{
    for (const NSInteger capture : {-1, 2}) {
        const Raised raised = raisedBy([&] { rangeOfRegex(text("abc"), "(b)"_ns, capture); });
        EXPECT_EQ(raised.name, "NSInvalidArgumentException");
        EXPECT_EQ(raised.reason, "*** -[NSString rangeOfRegex:capture:]: The capture argument is not valid.");
        EXPECT_EQ(raisedBy([&] { componentsMatchedByRegex(text("abc"), "(b)"_ns, capture); }).reason,
            "*** -[NSString componentsMatchedByRegex:capture:]: The capture argument is not valid.");
    }
    EXPECT_EQ(rangeOfRegex(text("abc"), "(b)"_ns, 1), (NSRange{1, 1}));
}

// Nil receivers

TEST(NilReceiver, GivesWhatAMessageToNilGives)
{
    const Ref<NSString> nil;
    EXPECT_EQ(captureCount(nil), 0);
    EXPECT_EQ(captureCountWithOptions(nil, 0, nullptr), 0);
    EXPECT_FALSE(isRegexValid(nil));
    EXPECT_FALSE(isRegexValidWithOptions(nil, 0, nullptr));
    EXPECT_FALSE(isMatchedByRegex(nil, "a"_ns));
    EXPECT_EQ(rangeOfRegex(nil, "a"_ns), NSRange{});
    EXPECT_FALSE(stringByMatching(nil, "a"_ns));
    EXPECT_FALSE(componentsSeparatedByRegex(nil, "a"_ns));
    EXPECT_FALSE(componentsMatchedByRegex(nil, "a"_ns));
    EXPECT_FALSE(captureComponentsMatchedByRegex(nil, "a"_ns));
    EXPECT_FALSE(arrayOfCaptureComponentsMatchedByRegex(nil, "a"_ns));
    EXPECT_EQ(replaceOccurrencesOfRegex(Ref<NSMutableString>(), "a"_ns, "b"_ns), 0U);
    flushCachedRegexData(nil);
}

// Names

TEST(Constants, HaveTheirNamesAsValues)
{
    EXPECT_EQ(toUTF8(KFRICURegexException), "KFRICURegexException");
    EXPECT_EQ(toUTF8(KFRICURegexErrorDomain), "KFRICURegexErrorDomain");
    EXPECT_EQ(toUTF8(KFRICURegexErrorCodeErrorKey), "KFRICURegexErrorCode");
    EXPECT_EQ(toUTF8(KFRICURegexErrorNameErrorKey), "KFRICURegexErrorName");
    EXPECT_EQ(toUTF8(KFRICURegexLineErrorKey), "KFRICURegexLine");
    EXPECT_EQ(toUTF8(KFRICURegexOffsetErrorKey), "KFRICURegexOffset");
    EXPECT_EQ(toUTF8(KFRICURegexPreContextErrorKey), "KFRICURegexPreContext");
    EXPECT_EQ(toUTF8(KFRICURegexPostContextErrorKey), "KFRICURegexPostContext");
    EXPECT_EQ(toUTF8(KFRICURegexRegexErrorKey), "KFRICURegexRegex");
    EXPECT_EQ(toUTF8(KFRICURegexRegexOptionsErrorKey), "KFRICURegexRegexOptions");
}

} // namespace
