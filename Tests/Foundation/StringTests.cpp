#include "Foundation/NSArray.h"
#include "Foundation/NSException.h"
#include "Foundation/NSNumber.h"
#include "Foundation/NSString.h"
#include "Foundation/StringHash.h"

#include <gmock/gmock.h>
#include <iconv.h>
#include <set>

namespace {

using testing::ElementsAre;

/// The same text in every storage that can hold it: 8-bit and 16-bit,
/// immutable and mutable.
std::vector<Ref<NSString>> everyStorage(std::u16string_view text)
{
    std::vector<Ref<NSString>> strings{NSString::stringWithCharacters(text)};
    if (std::all_of(text.begin(), text.end(), [](char16_t unit) { return unit <= 0xFF; }))
        strings.push_back(NSString::stringWithLatin1(std::vector<std::uint8_t>(text.begin(), text.end())));
    const auto immutable = strings;
    for (const auto& string : immutable)
        strings.push_back(NSMutableString::stringWithString(string));
    return strings;
}

const std::vector<std::u16string>& sampleTexts()
{
    static const std::vector<std::u16string> texts{
        u"",
        u"a",
        u"abc",
        u"abcd",
        u"abcde",
        u"abcdefgh",
        u"abcdefghi",
        u"The quick brown fox jumps over the lazy dog",
        u"gr\u00FC\u00DFe \u00FF",
        u"snow \u2603",
        u"\U0001F511 key",
        u"\xD800 unpaired",
        std::u16string(u"zero\0inside", 11),
        std::u16string(u"abc\0", 4),
        std::u16string(5000, u'x'),
    };
    return texts;
}

std::vector<std::string> utf8Components(const Ref<NSArray>& array)
{
    std::vector<std::string> texts;
    for (const auto& object : *array)
        texts.push_back(toUTF8(refCast<NSString>(object)));
    return texts;
}

template <class Function>
std::string raisedName(Function&& function)
{
    try {
        function();
    } catch (const NSRaisedException& raised) {
        return toUTF8(raised.exception()->name());
    }
    return "nothing raised";
}

TEST(String, KeepsTheWidthItWasMadeWith)
{
    for (const auto& text : sampleTexts()) {
        for (const auto& string : everyStorage(text)) {
            EXPECT_EQ(string->length(), static_cast<CFIndex>(text.size()));
            EXPECT_EQ(string->characters(), text);
            EXPECT_EQ(CFStringGetCharactersPtr(string.get()) != nullptr, string->isWide());
            for (std::size_t index = 0; index < text.size(); ++index)
                ASSERT_EQ(string->characterAtIndex(static_cast<CFIndex>(index)), text[index]);
        }
    }
}

TEST(String, ChoosesEightBitsForLatin1AndSixteenForTheRest)
{
    EXPECT_FALSE(NSString::stringWithUTF8String("plain")->isWide());
    EXPECT_FALSE(NSString::stringWithUTF8String("gr\u00FC\u00DFe")->isWide());
    EXPECT_TRUE(NSString::stringWithUTF8String("\u0100")->isWide());
    EXPECT_TRUE(NSString::stringWithUTF8String("\U0001F511")->isWide());
    EXPECT_TRUE(NSString::stringWithCharacters(u"plain")->isWide());
}

TEST(String, HasNoCharacterOutsideItsLength)
{
    EXPECT_EQ("abc"_ns->characterAtIndex(3), 0);
    EXPECT_EQ("abc"_ns->characterAtIndex(-1), 0);
}

TEST(String, EqualTextIsEqualAndHashesEquallyInEveryStorage)
{
    for (const auto& text : sampleTexts()) {
        const auto strings = everyStorage(text);
        for (const auto& a : strings) {
            for (const auto& b : strings) {
                EXPECT_TRUE(CFEqual(a, b));
                EXPECT_TRUE(a->isEqualToString(b));
                EXPECT_EQ(CFHash(a), CFHash(b));
                EXPECT_EQ(a->caseInsensitiveCompare(b), NSOrderedSame);
            }
            EXPECT_NE(CFHash(a), 0U);
        }
    }
}

TEST(String, DifferentTextIsUnequalInEveryStorage)
{
    const std::pair<std::u16string, std::u16string> pairs[] = {
        {u"", u"a"},
        {u"abc", u"abd"},
        {u"abc", u"abcd"},
        {u"abcdefghA", u"abcdefghB"},
        {u"\u00E9", u"\u01E9"},
        {u"abc", std::u16string(u"abc\0", 4)},
    };
    for (const auto& [left, right] : pairs) {
        for (const auto& a : everyStorage(left)) {
            for (const auto& b : everyStorage(right)) {
                EXPECT_FALSE(CFEqual(a, b));
                EXPECT_NE(CFHash(a), CFHash(b));
            }
        }
    }
}

TEST(String, HashCoversEveryUnit)
{
    for (const std::size_t length : {1U, 7U, 8U, 9U, 40U, 200U}) {
        std::set<CFHashCode> hashes{CFHash(NSString::stringWithCharacters(std::u16string(length, u'x')))};
        for (std::size_t index = 0; index < length; ++index) {
            std::u16string text(length, u'x');
            text[index] = u'y';
            hashes.insert(CFHash(NSString::stringWithCharacters(text)));
        }
        EXPECT_EQ(hashes.size(), length + 1);
    }
}

TEST(String, HashStepsAreKnownSoThatACollisionCanBeConstructed)
{
    const auto pack = [](std::u16string_view four) {
        std::uint64_t word = 0;
        for (std::size_t index = 4; index-- > 0;)
            word = word << 16 | four[index];
        return word;
    };
    kf::StringHasher first;
    kf::StringHasher second;
    first.add(pack(u"aaaa"));
    second.add(pack(u"bbbb"));
    const std::uint64_t needed = std::rotl(first.state(), 29) ^ pack(u"cccc") ^ std::rotl(second.state(), 29);
    std::u16string colliding = u"bbbb";
    for (int shift = 0; shift < 64; shift += 16)
        colliding.push_back(static_cast<char16_t>(needed >> shift));
    const auto a = NSString::stringWithCharacters(u"aaaacccc");
    const auto b = NSString::stringWithCharacters(colliding);
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(CFEqual(a, b));
}

TEST(String, NothingEqualsNil)
{
    const Ref<NSString> nil;
    EXPECT_EQ(CFHash(nil), 0U);
    EXPECT_FALSE(CFEqual(nil, nil));
    EXPECT_FALSE(CFEqual("a"_ns, nil));
    EXPECT_FALSE(CFEqual(nil, "a"_ns));
    EXPECT_FALSE("a"_ns->isEqualToString(nil));
    EXPECT_EQ("a"_ns->caseInsensitiveCompare(nil), NSOrderedDescending);
    EXPECT_EQ(""_ns->caseInsensitiveCompare(nil), NSOrderedDescending);
}

TEST(String, IsUnequalToObjectsOfOtherKinds)
{
    EXPECT_FALSE(CFEqual("1"_ns, NSNumber::numberWithInt(1)));
    EXPECT_FALSE(CFEqual(NSNumber::numberWithInt(1), "1"_ns));
}

TEST(String, NilGivesNil)
{
    EXPECT_FALSE(NSString::stringWithString(nullptr));
    EXPECT_FALSE(NSMutableString::stringWithString(nullptr));
    EXPECT_FALSE(CFStringCreateCopy(nullptr));
    EXPECT_FALSE(CFStringCreateWithSubstring(nullptr, {0, 0}));
    EXPECT_EQ(CFStringGetLength(nullptr), 0);
    EXPECT_EQ(CFStringGetCharactersPtr(nullptr), nullptr);
    EXPECT_EQ(toUTF8(nullptr), "(null)");
}

TEST(String, EmptyStringIsOneObjectAndNotNil)
{
    EXPECT_EQ(NSString::string(), NSString::string());
    EXPECT_EQ(NSString::string()->length(), 0);
    EXPECT_TRUE(CFEqual(NSString::string(), NSString::stringWithCharacters(u"")));
}

TEST(String, EmptySixteenBitTextHasAddress)
{
    EXPECT_NE(CFStringGetCharactersPtr(NSString::stringWithCharacters(u"").get()), nullptr);
    const auto changed = NSMutableString::stringWithString(NSString::stringWithCharacters(u"\u2603"));
    changed->setString(""_ns);
    EXPECT_TRUE(changed->isWide());
    EXPECT_NE(CFStringGetCharactersPtr(changed.get()), nullptr);
}

TEST(String, EqualConstantsAreOneObject)
{
    EXPECT_EQ("constant"_ns, "constant"_ns);
    EXPECT_FALSE("constant"_ns == "Constant"_ns);
    EXPECT_TRUE("sn\u00F6w \u2603"_ns->isWide());
    EXPECT_EQ("sn\u00F6w \u2603"_ns->characters(), u"sn\u00F6w \u2603");
    EXPECT_FALSE("gr\u00FC\u00DFe"_ns->isWide());
    EXPECT_EQ("\U0001F511"_ns->characters(), u"\U0001F511");
}

TEST(String, ReadsAndWritesUTF8InEveryStorage)
{
    for (const auto& string : everyStorage(u"gr\u00FC\u00DFe"))
        EXPECT_EQ(string->UTF8String(), "gr\u00FC\u00DFe");
    for (const auto& string : everyStorage(u"\u2603\U0001F511\uFFFD"))
        EXPECT_EQ(string->UTF8String(), "\u2603\U0001F511\uFFFD");
    EXPECT_EQ(""_ns->UTF8String(), "");
    for (const std::string text : {"a", "\u00E9", "\u0800", "\uFFFF", "\U00010000", "\U0010FFFF"})
        EXPECT_EQ(NSString::stringWithUTF8String(text)->UTF8String(), text);
}

TEST(String, RefusesIllFormedUTF8)
{
    const std::string_view illFormed[] = {
        "\x80",
        "\xC0\x80",
        "\xC1\xBF",
        "\xC3",
        "a\xC3(",
        "\xE0\x80\x80",
        "\xE2\x98",
        "\xED\xA0\x80",
        "\xED\xBF\xBF",
        "\xF0\x80\x80\x80",
        "\xF0\x9F\x94",
        "\xF4\x90\x80\x80",
        "\xF5\x80\x80\x80",
        "\xFF",
        "fine until \xFE",
    };
    for (const auto& text : illFormed) {
        EXPECT_FALSE(NSString::stringWithUTF8String(text)) << testing::PrintToString(text);
        EXPECT_FALSE(NSString::sensitiveStringWithUTF8String(text)) << testing::PrintToString(text);
    }
}

TEST(String, UnpairedSurrogateHasNoUTF8)
{
    for (const std::u16string text : {u"a\xD800", u"\xDC00z", u"\xD800\xD800\xDC00", u"\xDC00\xD800"}) {
        const auto string = NSString::stringWithCharacters(text);
        EXPECT_EQ(string->UTF8String(), std::nullopt);
    }
    EXPECT_EQ(toUTF8(NSString::stringWithCharacters(u"a\xD800z")), "a\uFFFDz");
    EXPECT_EQ(NSString::stringWithCharacters(u"\xD83D\xDD11")->UTF8String(), "\U0001F511");
}

TEST(String, DecodesItsEncodings)
{
    const std::vector<std::uint8_t> bytes{'a', 0xE9};
    EXPECT_FALSE(NSString::stringWithBytes(bytes, NSASCIIStringEncoding));
    EXPECT_FALSE(NSString::stringWithBytes(bytes, NSUTF8StringEncoding));
    EXPECT_EQ(NSString::stringWithBytes(bytes, NSISOLatin1StringEncoding)->characters(), u"a\u00E9");
    EXPECT_EQ(NSString::stringWithBytes(bytes, NSMacOSRomanStringEncoding)->characters(), u"a\u00C8");
    EXPECT_FALSE(NSString::stringWithBytes(bytes, NSMacOSRomanStringEncoding)->isWide());
    const std::vector<std::uint8_t> ascii{'a', 'b'};
    EXPECT_EQ(NSString::stringWithBytes(ascii, NSASCIIStringEncoding)->characters(), u"ab");
    EXPECT_EQ(NSString::stringWithBytes(ascii, static_cast<NSStringEncoding>(99)), nullptr);
}

TEST(String, DecodesMacOSRomanAsTheCLibraryDoes)
{
    std::vector<std::uint8_t> bytes(256);
    for (std::size_t byte = 0; byte < bytes.size(); ++byte)
        bytes[byte] = static_cast<std::uint8_t>(byte);
    std::u16string expected(bytes.size(), u'\0');
    const iconv_t converter = iconv_open("UTF-16LE", "MACINTOSH");
    ASSERT_NE(converter, reinterpret_cast<iconv_t>(-1));
    for (std::size_t byte = 0; byte < bytes.size(); ++byte) {
        char* in = reinterpret_cast<char*>(&bytes[byte]);
        std::size_t inLeft = 1;
        char* out = reinterpret_cast<char*>(&expected[byte]);
        std::size_t outLeft = 2;
        iconv(converter, &in, &inLeft, &out, &outLeft);
    }
    iconv_close(converter);
    // The C library lacks Apple's logo, has the table from before the euro sign,
    // and a Greek letter where Unicode's table has the sign of the increment.
    expected[0xF0] = u'\uF8FF';
    expected[0xC6] = u'\u2206';
    expected[0xDB] = u'\u20AC';
    const auto string = NSString::stringWithBytes(bytes, NSMacOSRomanStringEncoding);
    const std::u16string decoded = string->characters();
    for (std::size_t byte = 0; byte < bytes.size(); ++byte)
        EXPECT_EQ(decoded[byte], expected[byte]) << byte;
}

TEST(String, CopyOfAnImmutableStringIsTheSameObject)
{
    const auto string = NSString::stringWithCharacters(u"text");
    EXPECT_EQ(NSString::stringWithString(string), string);
    EXPECT_EQ(CFStringCreateCopy(string.get()), string);
}

TEST(String, CopyOfAMutableStringDoesNotFollowItsChanges)
{
    for (const bool wide : {false, true}) {
        const auto original =
            NSMutableString::stringWithString(wide ? NSString::stringWithCharacters(u"text") : "text"_ns);
        const auto copy = NSString::stringWithString(original);
        EXPECT_FALSE(copy->isMutable());
        EXPECT_EQ(copy->isWide(), wide);
        original->appendString("!"_ns);
        EXPECT_EQ(toUTF8(copy), "text");
        EXPECT_EQ(toUTF8(original), "text!");
    }
}

TEST(String, SubstringHasTheWidthOfItsString)
{
    for (const auto& string : everyStorage(u"0123456789")) {
        const auto part = CFStringCreateWithSubstring(string.get(), {3, 4});
        EXPECT_EQ(toUTF8(part), "3456");
        EXPECT_EQ(part->isWide(), string->isWide());
        EXPECT_FALSE(part->isMutable());
        EXPECT_EQ(toUTF8(CFStringCreateWithSubstring(string.get(), {10, 0})), "");
    }
}

TEST(String, SubstringOutsideTheStringIsNil)
{
    for (const CFRange range : {CFRange{0, 4}, CFRange{4, 0}, CFRange{-1, 1}, CFRange{1, -1}, CFRange{2, INT64_MAX}})
        EXPECT_FALSE(CFStringCreateWithSubstring("abc"_ns.get(), range)) << range.location << ' ' << range.length;
}

TEST(String, StringOfMoreThanTheMemoryIsNil)
{
    EXPECT_FALSE(CFStringCreateWithCharacters(u"", -1));
    EXPECT_FALSE(CFStringCreateWithCharacters(nullptr, 1));
    EXPECT_EQ(toUTF8(CFStringCreateWithCharacters(nullptr, 0)), "");
}

TEST(String, GetCharactersWidensEightBitText)
{
    for (const auto& string : everyStorage(u"abc\u00E9f")) {
        char16_t buffer[4] = {u'-', u'-', u'-', u'-'};
        CFStringGetCharacters(string.get(), {2, 2}, buffer + 1);
        EXPECT_EQ(std::u16string_view(buffer, 4), u"-c\u00E9-");
    }
}

TEST(String, AppendsInEveryMixtureOfWidths)
{
    for (const auto& left : everyStorage(u"ab\u00E9")) {
        for (const auto& right : everyStorage(u"\u00FFcd")) {
            const auto joined = left->stringByAppendingString(right);
            EXPECT_EQ(joined->characters(), u"ab\u00E9\u00FFcd");
            EXPECT_EQ(joined->isWide(), left->isWide() || right->isWide());
        }
        EXPECT_EQ(left->stringByAppendingString("\u2603"_ns)->characters(), u"ab\u00E9\u2603");
        EXPECT_EQ(left->stringByAppendingString(""_ns)->characters(), u"ab\u00E9");
    }
    EXPECT_EQ(raisedName([] { "a"_ns->stringByAppendingString(nullptr); }), "NSInvalidArgumentException");
}

TEST(String, ComparesByFoldedCharacters)
{
    for (const auto& left : everyStorage(u"STRASSE \u00C9")) {
        for (const auto& right : everyStorage(u"strasse \u00E9"))
            EXPECT_EQ(left->caseInsensitiveCompare(right), NSOrderedSame);
        for (const auto& right : everyStorage(u"strasse \u00EA")) {
            EXPECT_EQ(left->caseInsensitiveCompare(right), NSOrderedAscending);
            EXPECT_EQ(right->caseInsensitiveCompare(left), NSOrderedDescending);
        }
        for (const auto& right : everyStorage(u"strasse")) {
            EXPECT_EQ(left->caseInsensitiveCompare(right), NSOrderedDescending);
            EXPECT_EQ(right->caseInsensitiveCompare(left), NSOrderedAscending);
        }
    }
    EXPECT_EQ("\u03A3"_ns->caseInsensitiveCompare("\u03C2"_ns), NSOrderedSame);
    EXPECT_EQ("\U00010400"_ns->caseInsensitiveCompare("\U00010428"_ns), NSOrderedSame);
    // Simple folding: one character is never equal to two.
    EXPECT_NE("\u00DF"_ns->caseInsensitiveCompare("ss"_ns), NSOrderedSame);
    EXPECT_EQ("Z"_ns->caseInsensitiveCompare("a"_ns), NSOrderedDescending);
    EXPECT_EQ(""_ns->caseInsensitiveCompare(""_ns), NSOrderedSame);
}

TEST(String, SplitsPathsIntoComponents)
{
    const std::pair<std::u16string, std::vector<std::string>> paths[] = {
        {u"/Users/a/b.keychain", {"/", "Users", "a", "b.keychain"}},
        {u"relative/path", {"relative", "path"}},
        {u"/", {"/"}},
        {u"//System//Library/", {"/", "System", "Library"}},
        {u"one", {"one"}},
        {u"", {}},
    };
    for (const auto& [path, components] : paths) {
        for (const auto& string : everyStorage(path))
            EXPECT_EQ(utf8Components(string->pathComponents()), components);
    }
    EXPECT_THAT(utf8Components("/\u2603/\u00E9"_ns->pathComponents()), ElementsAre("/", "\u2603", "\u00E9"));
}

TEST(MutableString, StartsWithEightBitsAndWidensWhereItMust)
{
    const auto string = NSMutableString::string();
    string->appendString("caf"_ns);
    string->appendCharacter(u'\u00E9');
    string->appendString(NSString::stringWithCharacters(u" au"));
    EXPECT_FALSE(string->isWide());
    string->appendCharacter(u'\u2603');
    EXPECT_TRUE(string->isWide());
    string->appendString(" lait"_ns);
    EXPECT_EQ(string->characters(), u"caf\u00E9 au\u2603 lait");
    EXPECT_EQ(string->length(), 13);
    EXPECT_TRUE(string->isMutable());
}

TEST(MutableString, ReplacesRangesInEveryMixtureOfWidths)
{
    for (const bool wide : {false, true}) {
        for (const std::u16string replacement : {u"", u"x", u"xy", u"wxyz", u"w\u2603yz"}) {
            for (const auto& inserted : everyStorage(replacement)) {
                for (std::size_t location = 0; location <= 5; ++location) {
                    for (std::size_t length = 0; location + length <= 5; ++length) {
                        const auto string = NSMutableString::stringWithString(
                            wide ? NSString::stringWithCharacters(u"abcde") : "abcde"_ns);
                        string->replaceCharactersInRange({location, length}, inserted);
                        std::u16string expected = u"abcde";
                        expected.replace(location, length, replacement);
                        ASSERT_EQ(string->characters(), expected);
                        ASSERT_EQ(CFHash(string), CFHash(NSString::stringWithCharacters(expected)));
                    }
                }
            }
        }
    }
}

TEST(MutableString, CanTakeItsOwnText)
{
    const auto string = NSMutableString::stringWithString("abc"_ns);
    string->appendString(string);
    EXPECT_EQ(toUTF8(string), "abcabc");
    string->replaceCharactersInRange({1, 4}, string);
    EXPECT_EQ(toUTF8(string), "aabcabcc");
    string->setString(string);
    EXPECT_EQ(toUTF8(string), "aabcabcc");
}

TEST(MutableString, HashFollowsChanges)
{
    const auto string = NSMutableString::stringWithString("abc"_ns);
    const CFHashCode before = CFHash(string);
    string->setString("abd"_ns);
    EXPECT_NE(CFHash(string), before);
    string->setString("abc"_ns);
    EXPECT_EQ(CFHash(string), before);
}

TEST(MutableString, RaisesForWrongRangesAndNil)
{
    const auto string = NSMutableString::stringWithString("abc"_ns);
    EXPECT_EQ(raisedName([&] { string->replaceCharactersInRange({2, 2}, "x"_ns); }), "NSRangeException");
    EXPECT_EQ(raisedName([&] { string->replaceCharactersInRange({4, 0}, "x"_ns); }), "NSRangeException");
    EXPECT_EQ(raisedName([&] { string->replaceCharactersInRange({1, UINT64_MAX}, "x"_ns); }), "NSRangeException");
    EXPECT_EQ(raisedName([&] { string->replaceCharactersInRange({0, 1}, nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(raisedName([&] { string->appendString(nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(raisedName([&] { string->setString(nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(toUTF8(string), "abc");
}

TEST(Object, IsFreedWithItsLastReference)
{
    auto string = NSString::stringWithCharacters(u"counted");
    EXPECT_EQ(string->retainCount(), 1U);
    {
        const Ref<NSObject> second = string;
        EXPECT_EQ(string->retainCount(), 2U);
    }
    EXPECT_EQ(string->retainCount(), 1U);
    const auto moved = std::move(string);
    EXPECT_FALSE(string); // NOLINT(bugprone-use-after-move): that nothing is left is what is tested
    EXPECT_EQ(moved->retainCount(), 1U);
}

// Initialisers of other sources may use the platform's constants, whatever the order.
extern const Ref<NSString> earlyCopy;
[[gnu::init_priority(101)]] const Ref<NSString> earlyCopy = NSRangeException;

TEST(String, ConstantsAreThereBeforeInitialisersRun)
{
    ASSERT_TRUE(earlyCopy);
    EXPECT_EQ(toUTF8(earlyCopy), "NSRangeException");
}

} // namespace
