// The cache, the buffers, the lock and the records of failed assertions.
//
// They are local to their source unit, so this program takes that unit in
// instead of linking it, and puts Faults.cpp in front of what it calls.

#include "KFRegex/KFRegex.cpp"

#include "Faults.h"
#include "Texts.h"

#include "Foundation/StringHash.h"

#include <gmock/gmock.h>

#include <sys/mman.h>

using namespace KFRegexAdditions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Raised {
    std::string name;
    std::string reason;
};

template <class Function>
Raised raisedBy(Function function)
{
    try {
        function();
    } catch (const NSRaisedException& raised) {
        return {toUTF8(raised.exception()->name()), toUTF8(raised.exception()->reason())};
    }
    return {};
}

/// Keeps failed assertions instead of raising them.
class RecordingHandler : public NSAssertionHandler {
public:
    struct Failure {
        std::string function;
        std::string file;
        NSInteger line;
        std::string description;
    };
    RecordingHandler() : before_(setCurrentHandler(this)) { }
    ~RecordingHandler() override { setCurrentHandler(before_); }
    void handleFailureInFunction(const Ref<NSString>& function, const Ref<NSString>& file, NSInteger line,
        const Ref<NSString>& description) override
    {
        failures.push_back({toUTF8(function), toUTF8(file), line, toUTF8(description)});
    }
    std::vector<Failure> failures;

private:
    NSAssertionHandler* before_;
};

std::string field(const Pending& record, const Ref<NSString>& key)
{
    const Ref<NSDictionary> dictionary = refCast<NSDictionary>(record);
    return dictionary ? toUTF8(dictionary->objectAs<NSString>(key)) : "(no record)";
}
std::string descriptionOf(const Pending& record) { return field(record, "description"_ns); }
std::string functionOf(const Pending& record) { return field(record, "function"_ns); }
NSInteger lineOf(const Pending& record)
{
    return refCast<NSDictionary>(record)->objectAs<NSNumber>("line"_ns)->longValue();
}

/// Text of any length that costs no memory: pages of zeros that nobody reads.
class HugeString final : public NSString {
public:
    explicit HugeString(CFIndex length)
        : NSString(map(length), length, true, false), bytes_(static_cast<std::size_t>(length) * sizeof(char16_t))
    {
    }
    CFHashCode hash() const noexcept override { return 1; }
    using NSString::operator new;

private:
    ~HugeString() override { munmap(const_cast<char16_t*>(utf16().data()), bytes_); }
    static const void* map(CFIndex length)
    {
        void* memory = mmap(nullptr, static_cast<std::size_t>(length) * sizeof(char16_t), PROT_READ,
            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        return memory;
    }
    std::size_t bytes_;
};

Ref<NSString> huge(CFIndex length) { return makeRef<HugeString>(length); }

CacheSlot& slotOf(const Ref<NSString>& pattern) { return kfr_cacheSlots[CFHash(pattern) % 23]; }

/// The text that ICU has of a slot's expression.
const UChar* textInICU(const CacheSlot& slot)
{
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    return uregex_getText(slot.icu_regex.get(), &length, &status);
}

bool allSlotsAreEmpty()
{
    return std::all_of(kfr_cacheSlots.begin(), kfr_cacheSlots.end(), [](const CacheSlot& slot) {
        return !slot.regexString && !slot.icu_regex && !slot.setToString && slot.captureCount <= 0;
    });
}

/// Each test begins with an empty cache and must leave the lock free and no anomaly behind.
class KFRegexInternals : public testing::Test {
protected:
    void SetUp() override
    {
        clearStringCache();
        ASSERT_TRUE(allSlotsAreEmpty());
        anomaliesBefore_ = kfr_debugCacheSpinLockCount;
    }
    void TearDown() override
    {
        EXPECT_FALSE(lockIsHeld());
        EXPECT_EQ(kfr_debugCacheSpinLockCount - anomaliesBefore_, expectedAnomalies);
        clearStringCache();
    }
    NSUInteger expectedAnomalies = 0;

private:
    NSUInteger anomaliesBefore_ = 0;
};

// Slots

using CacheSlots = KFRegexInternals;

TEST_F(CacheSlots, AreTwentyThree)
{
    EXPECT_EQ(kfr_cacheSlots.size(), 23U);
    EXPECT_EQ(std::size(scratchBuffer), 4U);
}

TEST_F(CacheSlots, AreUsedAgainForTheSamePattern)
{
    const int opened = faults::icuCalls().open;
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b")));
    EXPECT_EQ(faults::icuCalls().open - opened, 1);
}

TEST_F(CacheSlots, FindTheLastPatternByIdentityWithoutHashing)
{
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    CacheSlot* const slot = lastCacheSlot;
    ASSERT_EQ(slot, &slotOf(pattern));
    // The pattern's object moved to another slot is found there only if the hash is not asked.
    CacheSlot& other = kfr_cacheSlots[(CFHash(pattern) + 1) % 23];
    std::swap(*slot, other);
    lastCacheSlot = &other;
    const int opened = faults::icuCalls().open;
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    EXPECT_EQ(lastCacheSlot, &other);
    EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b"))) << "an equal pattern is another object, and looked up";
    EXPECT_EQ(lastCacheSlot, slot);
    EXPECT_EQ(faults::icuCalls().open - opened, 1);
}

TEST_F(CacheSlots, AreTakenFromEachOtherByPatternsWithEqualHashesModulo23)
{
    const Ref<NSString> first = text("a+");
    Ref<NSString> second;
    for (int i = 0; !second; ++i) {
        const Ref<NSString> candidate = text("b{" + std::to_string(i + 1) + "}");
        if (CFHash(candidate) % 23 == CFHash(first) % 23)
            second = candidate;
    }
    const Ref<NSString> subject = text(std::string(2000, 'b') + "aa");
    const int opened = faults::icuCalls().open;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rangeOfRegex(subject, first), (NSRange{2000, 2}));
        EXPECT_EQ(slotOf(first).regexString, first);
        EXPECT_EQ(rangeOfRegex(subject, second).location, 0U);
        EXPECT_EQ(slotOf(first).regexString, second);
    }
    EXPECT_EQ(faults::icuCalls().open - opened, 6);
}

TEST_F(CacheSlots, AreTakenFromEachOtherByOnePatternWithTwoSetsOfOptions)
{
    const Ref<NSString> pattern = text("B");
    const Ref<NSString> subject = text("abc");
    const int opened = faults::icuCalls().open;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(isMatchedByRegex(subject, pattern, 0, kfr::wholeString, nullptr));
        EXPECT_EQ(slotOf(pattern).options, 0U);
        EXPECT_TRUE(isMatchedByRegex(subject, pattern, UREGEX_CASE_INSENSITIVE, kfr::wholeString, nullptr));
        EXPECT_EQ(slotOf(pattern).options, static_cast<std::uint32_t>(UREGEX_CASE_INSENSITIVE));
    }
    EXPECT_EQ(faults::icuCalls().open - opened, 6);
}

TEST_F(CacheSlots, AreEmptyAfterAPatternThatDoesNotCompile)
{
    const Ref<NSString> bad = text("(");
    Ref<NSError> error;
    const int opened = faults::icuCalls().open;
    for (int i = 1; i <= 2; ++i) {
        EXPECT_FALSE(isRegexValidWithOptions(bad, 0, &error));
        EXPECT_FALSE(slotOf(bad).regexString);
        EXPECT_EQ(slotOf(bad).captureCount, -1);
        EXPECT_FALSE(lastCacheSlot);
        EXPECT_EQ(faults::icuCalls().open - opened, i);
    }
    EXPECT_TRUE(isRegexValid("good"_ns));
    EXPECT_FALSE(isRegexValidWithOptions(bad, UREGEX_CASE_INSENSITIVE, &error));
    EXPECT_EQ(slotOf(bad).options, 0U);
    EXPECT_FALSE(lastCacheSlot) << "the one before is not the last any more";
}

TEST_F(CacheSlots, KeepAnImmutableCopyOfThePattern)
{
    const Ref<NSMutableString> pattern = changeable("b");
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    EXPECT_FALSE(lastCacheSlot->regexString->isMutable());
    EXPECT_TRUE(CFEqual(lastCacheSlot->regexString, pattern));
}

TEST_F(CacheSlots, CountTheGroups)
{
    EXPECT_EQ(captureCountForRegex("(a)(b)"_ns), 2);
    EXPECT_EQ(lastCacheSlot->captureCount, 2);
}

// Subjects

using Subjects = KFRegexInternals;

TEST_F(Subjects, OfSixteenBitsAreUsedInPlace)
{
    const Ref<NSString> subject = wide(u"abc");
    EXPECT_TRUE(isMatchedByRegex(subject, "b"_ns));
    EXPECT_EQ(lastCacheSlot->setToUniChar, subject->utf16().data());
    EXPECT_FALSE(lastCacheSlot->setToNeedsConversion);
    EXPECT_FALSE(lastCacheSlot->setToIsImmutable);
    EXPECT_FALSE(fixedBuffer.string);
}

TEST_F(Subjects, OfEightBitsAndUpTo2047UnitsUseTheFixedArray)
{
    for (const std::size_t length : {0U, 1U, 2047U}) {
        const Ref<NSString> subject = text(std::string(length, 'a'));
        EXPECT_EQ(isMatchedByRegex(subject, "a$"_ns), length > 0);
        EXPECT_EQ(lastCacheSlot->setToUniChar, fixedUniChar);
        EXPECT_EQ(fixedBuffer.string, subject);
        EXPECT_EQ(fixedBuffer.length, static_cast<CFIndex>(length));
        EXPECT_EQ(fixedBuffer.hash, CFHash(subject));
        EXPECT_FALSE(dynamicBuffer.uniChar);
    }
}

TEST_F(Subjects, OfEightBitsAnd2048UnitsUseTheDynamicArray)
{
    const Ref<NSString> subject = text(std::string(2048, 'a'));
    EXPECT_TRUE(isMatchedByRegex(subject, "a$"_ns));
    EXPECT_EQ(lastCacheSlot->setToUniChar, dynamicBuffer.uniChar);
    EXPECT_EQ(dynamicBuffer.string, subject);
    EXPECT_FALSE(fixedBuffer.string);
}

TEST_F(Subjects, AreNotSearchedAgainForTheSameQuestion)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    const faults::Counts before = faults::icuCalls();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{1, 1}));
    EXPECT_EQ(faults::icuCalls().find, before.find);
    EXPECT_EQ(faults::icuCalls().findNext, before.findNext);
    EXPECT_EQ(faults::icuCalls().setText, before.setText);
}

TEST_F(Subjects, AreSearchedOnFromTheLastMatch)
{
    const faults::Counts before = faults::icuCalls();
    EXPECT_EQ(countOf(componentsMatchedByRegex(text("aXaXa"), text("a"))), 3U);
    EXPECT_EQ(faults::icuCalls().find - before.find, 1);
    EXPECT_EQ(faults::icuCalls().findNext - before.findNext, 2);
}

TEST_F(Subjects, ShareOneConversionBetweenPatterns)
{
    const Ref<NSString> subject = text("abc");
    EXPECT_TRUE(isMatchedByRegex(subject, text("a")));
    std::ranges::copy(std::u16string_view(u"xyz"), fixedUniChar);
    EXPECT_TRUE(isMatchedByRegex(subject, text("xyz"))) << "the converted text is used, not made again";
}

TEST_F(Subjects, MayAlternateInOneBuffer)
{
    for (const std::size_t length : {10U, 3000U, 200000U}) {
        const Ref<NSString> first = text(std::string(length, '.') + "a");
        const Ref<NSString> second = text(std::string(length * 2, '.') + "b");
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(rangeOfRegex(first, "a"_ns), (NSRange{length, 1}));
            EXPECT_EQ(rangeOfRegex(second, "b"_ns), (NSRange{length * 2, 1}));
            EXPECT_EQ(rangeOfRegex(first, "b"_ns), notFound);
            EXPECT_EQ(rangeOfRegex(second, "a"_ns), notFound);
        }
    }
}

TEST_F(Subjects, MovedWithTheirBufferAreHandedToICUAnew)
{
    const Ref<NSString> subject = text(std::string(3000, 'a') + "b");
    EXPECT_EQ(rangeOfRegex(subject, "b"_ns), (NSRange{3000, 1}));
    EXPECT_FALSE(isMatchedByRegex(text(std::string(900000, 'c')), "x"_ns));
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns));
    EXPECT_EQ(rangeOfRegex(subject, "b"_ns, NSRange{2000, 1001}), (NSRange{3000, 1}));
    EXPECT_EQ(rangeOfRegex(subject, "b"_ns), (NSRange{3000, 1}));
    EXPECT_EQ(slotOf("b"_ns).setToUniChar, dynamicBuffer.uniChar);
    EXPECT_EQ(textInICU(slotOf("b"_ns)), dynamicBuffer.uniChar);
}

TEST_F(Subjects, WhoseSetUpFailsLeaveICUNoPointerToTheOneBefore)
{
    const Ref<NSString> before = wide(u"abc");
    const Ref<NSString> subject = wide(u"abd");
    const Ref<NSString> pattern = text("b");
    for (const bool throws : {false, true}) {
        EXPECT_TRUE(isMatchedByRegex(before, pattern));
        EXPECT_EQ(textInICU(*lastCacheSlot), before->utf16().data());
        {
            bool failed = false;
            const faults::ReplacedICU failsOnce({.setText = [&](UErrorCode* status) {
                if (std::exchange(failed, true))
                    return false;
                if (throws)
                    throw std::bad_alloc();
                *status = U_REGEX_INTERNAL_ERROR;
                return true;
            }});
            EXPECT_ANY_THROW(isMatchedByRegex(subject, pattern));
        }
        EXPECT_EQ(textInICU(*lastCacheSlot), emptyUniCharString);
        EXPECT_EQ(lastCacheSlot->setToRange, notFound);
        EXPECT_EQ(before->retainCount(), 1U);
        EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    }
    expectedAnomalies = 1;
}

TEST_F(Subjects, InTheDynamicArrayLeaveICUNoPointerToItWhenItMovesOrGoes)
{
    const Ref<NSString> subject = text(std::string(3000, 'a'));
    const Ref<NSString> inPlace = wide(u"b");
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns));
    EXPECT_TRUE(isMatchedByRegex(inPlace, "b"_ns));
    EXPECT_EQ(textInICU(slotOf("a"_ns)), dynamicBuffer.uniChar);
    EXPECT_FALSE(isMatchedByRegex(text(std::string(90000, 'c')), "x"_ns));
    EXPECT_EQ(textInICU(slotOf("a"_ns)), emptyUniCharString);
    EXPECT_EQ(textInICU(slotOf("x"_ns)), dynamicBuffer.uniChar);
    EXPECT_EQ(textInICU(slotOf("b"_ns)), inPlace->utf16().data()) << "in another place";
    EXPECT_EQ(rangeOfRegex(subject, "a"_ns), (NSRange{0, 1}));

    EXPECT_FALSE(isMatchedByRegex(text(std::string(90000, 'c')), "x"_ns));
    RecordingHandler handler;
    const faults::FailingReallocf fault(1);
    EXPECT_FALSE(isMatchedByRegex(subject, "a"_ns));
    EXPECT_EQ(handler.failures.size(), 1U);
    for (const Ref<NSString>& pattern : {"a"_ns, "x"_ns}) {
        EXPECT_EQ(textInICU(slotOf(pattern)), emptyUniCharString);
        EXPECT_EQ(slotOf(pattern).setToUniChar, nullptr);
    }
}

TEST_F(Subjects, ForgottenLeaveICUTheEmptyText)
{
    EXPECT_TRUE(isMatchedByRegex(wide(u"abc"), "b"_ns));
    flushCachedRegexData(wide(u"abc"));
    EXPECT_EQ(textInICU(slotOf("b"_ns)), emptyUniCharString);
    EXPECT_EQ(slotOf("b"_ns).lastFindRange, notFound);
    EXPECT_EQ(slotOf("b"_ns).lastMatchRange, notFound);
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "b"_ns));
    EXPECT_TRUE(slotOf("b"_ns).setToNeedsConversion);
    slotOf("b"_ns).setToIsImmutable = true;
    flushCachedRegexData(text("abc"));
    EXPECT_FALSE(slotOf("b"_ns).setToNeedsConversion);
    EXPECT_FALSE(slotOf("b"_ns).setToIsImmutable);
    EXPECT_EQ(fixedBuffer.hash, 0U);
    EXPECT_EQ(fixedBuffer.length, 0);
}

TEST_F(Subjects, AreTheObjectsThemselvesNotTheirEquals)
{
    const Ref<NSString> first = text("abc");
    const Ref<NSString> second = text("abc");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(first, pattern));
    EXPECT_TRUE(isMatchedByRegex(second, pattern));
    EXPECT_EQ(lastCacheSlot->setToString, second);
    EXPECT_EQ(fixedBuffer.string, second);
    EXPECT_EQ(first->retainCount(), 1U);
}

TEST_F(Subjects, RecordedWithAnotherLengthAreSetUpAnew)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> pattern = text("c");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    lastCacheSlot->setToLength = 2; // with the same hash
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{2, 1}));
    EXPECT_EQ(lastCacheSlot->setToLength, 3);
}

TEST_F(Subjects, ConvertedAgainAreHandedToICUAnew)
{
    const Ref<NSString> subject = text("abc");
    EXPECT_TRUE(isMatchedByRegex(subject, "b"_ns));
    EXPECT_TRUE(isMatchedByRegex(text("xyz"), "x"_ns)) << "takes the buffer";
    const int set = faults::icuCalls().setText;
    EXPECT_TRUE(isMatchedByRegex(subject, "b"_ns));
    EXPECT_EQ(faults::icuCalls().setText - set, 1);
}

TEST_F(Subjects, WithARangePastTheEndSetNothing)
{
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isRegexValid(pattern));
    const int set = faults::icuCalls().setText;
    EXPECT_EQ(raisedBy([&] { isMatchedByRegex(text("abc"), pattern, {2, 2}); }).name, "NSRangeException");
    EXPECT_EQ(faults::icuCalls().setText, set);
    EXPECT_FALSE(lastCacheSlot->setToString);
}

TEST_F(Subjects, AreHeldAndLetGo)
{
    const Ref<NSString> first = text("abc");
    const Ref<NSString> second = text("abd");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(first, pattern));
    EXPECT_EQ(first->retainCount(), 3U) << "by slot and buffer";
    EXPECT_TRUE(isMatchedByRegex(second, pattern));
    EXPECT_EQ(first->retainCount(), 1U);
    EXPECT_EQ(second->retainCount(), 3U);
    flushCachedRegexData(second);
    EXPECT_EQ(second->retainCount(), 1U);
}

TEST_F(Subjects, MarkedImmutableAreTrusted)
{
    const Ref<NSMutableString> subject = changeable("abc");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    lastCacheSlot->setToIsImmutable = true;
    subject->setString("xyz"_ns);
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    lastCacheSlot->setToIsImmutable = false;
    EXPECT_FALSE(isMatchedByRegex(subject, pattern));
}

/// Two texts of eight units with the same hash: the second half undoes what the first half changes.
std::pair<std::u16string, std::u16string> collidingTexts()
{
    const auto pack = [](std::u16string_view units) {
        std::uint64_t word;
        std::memcpy(&word, units.data(), sizeof word);
        return word;
    };
    const auto stateAfter = [&](std::u16string_view units) {
        kf::StringHasher hasher;
        hasher.add(pack(units));
        return hasher.state();
    };
    const std::u16string first = u"needle__";
    const std::u16string_view half = u"hayhay__";
    const std::uint64_t last =
        std::rotl(stateAfter(first), 29) ^ pack(first.substr(4)) ^ std::rotl(stateAfter(half.substr(0, 4)), 29);
    std::u16string second(half.substr(0, 4));
    second.resize(8);
    std::memcpy(second.data() + 4, &last, sizeof last);
    return {first, second};
}

TEST_F(Subjects, ChangedWithEqualLengthAndHashAreSeenOnlyAfterAFlush)
{
    const auto [before, after] = collidingTexts();
    ASSERT_NE(before, after);
    ASSERT_EQ(CFHash(wide(before)), CFHash(wide(after)));
    const Ref<NSMutableString> subject = NSMutableString::stringWithString(wide(before));
    const Ref<NSString> pattern = text("need");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    subject->replaceCharactersInRange({0, 8}, wide(after));
    EXPECT_TRUE(isMatchedByRegex(subject, pattern)) << "the change cannot be seen";
    flushCachedRegexData(subject);
    EXPECT_FALSE(isMatchedByRegex(subject, pattern));
}

TEST_F(Subjects, ChangedInLengthOrHashAreConvertedAgain)
{
    const Ref<NSMutableString> subject = changeable("abc");
    EXPECT_EQ(rangeOfRegex(subject, "c"_ns), (NSRange{2, 1}));
    subject->setString("cba"_ns);
    EXPECT_EQ(rangeOfRegex(subject, "c"_ns), (NSRange{0, 1}));
    subject->setString("bbbc"_ns);
    EXPECT_EQ(rangeOfRegex(subject, "c"_ns), (NSRange{3, 1}));
}

TEST_F(Subjects, ThatMovedInPlaceAreHandedToICUAnew)
{
    const Ref<NSMutableString> subject = NSMutableString::stringWithString(wide(u"abc"));
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    const char16_t* const before = subject->utf16().data();
    subject->appendString(text(std::string(10000, 'x')));
    subject->replaceCharactersInRange({3, 10000}, ""_ns);
    ASSERT_NE(subject->utf16().data(), before);
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    EXPECT_EQ(textInICU(*lastCacheSlot), subject->utf16().data());
    EXPECT_EQ(lastCacheSlot->setToUniChar, subject->utf16().data());
}

TEST_F(Subjects, ThatBecameReadableInPlaceAreNotConvertedAgain)
{
    const Ref<NSMutableString> subject = changeable("abc");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    EXPECT_TRUE(isMatchedByRegex(text("xyz"), text("x"))) << "takes the buffer";
    subject->replaceCharactersInRange({0, 1}, wide(u"\u2192"));
    subject->replaceCharactersInRange({0, 1}, "a"_ns);
    ASSERT_TRUE(subject->isWide());
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    EXPECT_FALSE(lastCacheSlot->setToNeedsConversion);
    EXPECT_EQ(lastCacheSlot->setToUniChar, subject->utf16().data());
    EXPECT_EQ(textInICU(*lastCacheSlot), subject->utf16().data());
    EXPECT_NE(fixedBuffer.string, subject);
}

TEST_F(Subjects, ThatAreNoLongerReadableInPlaceAreConverted)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    lastCacheSlot->setToNeedsConversion = false; // as if it had had 16 bits then
    kfr_clearBuffer(&fixedBuffer, false);
    EXPECT_EQ(rangeOfRegex(subject, pattern, NSRange{1, 1}), (NSRange{1, 1}));
    EXPECT_TRUE(lastCacheSlot->setToNeedsConversion);
    EXPECT_EQ(fixedBuffer.string, subject);
}

// Flushing

using Flushing = KFRegexInternals;

TEST_F(Flushing, ForgetsTheReceiverInEverySlotAndItsBuffer)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> other = text("abcd");
    ASSERT_NE(&slotOf("a"_ns), &slotOf("[d]"_ns));
    ASSERT_NE(&slotOf("b"_ns), &slotOf("[d]"_ns));
    ASSERT_NE(&slotOf("a"_ns), &slotOf("b"_ns));
    EXPECT_TRUE(isMatchedByRegex(other, "[d]"_ns));
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns));
    EXPECT_TRUE(isMatchedByRegex(subject, "b"_ns));
    flushCachedRegexData(subject);
    EXPECT_FALSE(slotOf("a"_ns).setToString);
    EXPECT_FALSE(slotOf("b"_ns).setToString);
    EXPECT_TRUE(slotOf("a"_ns).icu_regex) << "the compiled pattern stays";
    EXPECT_EQ(slotOf("[d]"_ns).setToString, other);
    EXPECT_FALSE(fixedBuffer.string);
    EXPECT_EQ(slotOf("a"_ns).setToRange, notFound);
    EXPECT_EQ(slotOf("a"_ns).setToUniChar, nullptr);
    EXPECT_EQ(slotOf("a"_ns).setToHash, 0U);
    EXPECT_EQ(slotOf("a"_ns).setToLength, 0);
}

TEST_F(Flushing, ForgetsAnotherStringWithEqualLengthAndHashToo)
{
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "a"_ns));
    flushCachedRegexData(wide(u"abc"));
    EXPECT_FALSE(slotOf("a"_ns).setToString);
    EXPECT_FALSE(fixedBuffer.string);
}

TEST_F(Flushing, ForgetsAReceiverThatChangedSince)
{
    const Ref<NSMutableString> subject = changeable("abc");
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns));
    subject->setString("abcd"_ns);
    flushCachedRegexData(subject);
    EXPECT_FALSE(slotOf("a"_ns).setToString);
    EXPECT_FALSE(fixedBuffer.string);
    EXPECT_EQ(subject->retainCount(), 1U);
}

TEST_F(Flushing, LeavesAStringThatAgreesInLengthAlone)
{
    const Ref<NSString> other = text("abc");
    EXPECT_TRUE(isMatchedByRegex(other, "a"_ns));
    flushCachedRegexData(text("abd"));
    EXPECT_EQ(slotOf("a"_ns).setToString, other);
    EXPECT_EQ(fixedBuffer.string, other);
}

TEST_F(Flushing, KeepsTheDynamicArray)
{
    const Ref<NSString> subject = text(std::string(5000, 'a'));
    EXPECT_TRUE(isMatchedByRegex(subject, "a"_ns));
    flushCachedRegexData(subject);
    EXPECT_FALSE(dynamicBuffer.string);
    EXPECT_TRUE(dynamicBuffer.uniChar);
}

TEST_F(Flushing, AllEmptiesEverything)
{
    const Ref<NSString> small = text("abc");
    const Ref<NSString> large = text(std::string(100000, 'a'));
    EXPECT_TRUE(isMatchedByRegex(small, "b"_ns));
    stringByReplacingOccurrencesOfRegex(large, "a"_ns, text("b"));
    EXPECT_TRUE(scratchBuffer[0]);
    const int unclosed = faults::icuCalls().open - faults::icuCalls().close;
    clearStringCache();
    EXPECT_EQ(faults::icuCalls().open - faults::icuCalls().close, unclosed - 2);
    EXPECT_TRUE(allSlotsAreEmpty());
    EXPECT_FALSE(lastCacheSlot);
    EXPECT_FALSE(fixedBuffer.string);
    EXPECT_EQ(fixedBuffer.uniChar, fixedUniChar);
    EXPECT_FALSE(dynamicBuffer.string);
    EXPECT_FALSE(dynamicBuffer.uniChar);
    EXPECT_THAT(scratchBuffer, testing::Each(nullptr));
    EXPECT_EQ(small->retainCount(), 1U);
    EXPECT_EQ(large->retainCount(), 1U);
    EXPECT_TRUE(isMatchedByRegex(small, "b"_ns));
}

TEST_F(Flushing, AllWithoutTheLockIsAFailedAssertion)
{
    RecordingHandler handler;
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "b"_ns));
    kfr_clearStringCache();
    ASSERT_EQ(handler.failures.size(), 1U);
    EXPECT_EQ(handler.failures[0].function, "kfr_clearStringCache");
    EXPECT_TRUE(slotOf("b"_ns).icu_regex);
}

TEST_F(Flushing, AlsoHappensToAReceiverReplacedInPlace)
{
    for (const std::size_t length : {10U, 5000U}) {
        const Ref<NSMutableString> receiver = changeable(std::string(length, 'a'));
        EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "a"_ns, "b"_ns), length);
        EXPECT_FALSE(slotOf("a"_ns).setToString);
        EXPECT_FALSE(bufferForLength(static_cast<CFIndex>(length))->string);
        EXPECT_EQ(receiver->retainCount(), 1U);
    }
}

// What is kept between calls

using Keeping = KFRegexInternals;

TEST_F(Keeping, ALongPatternLeavesNoTemporaryCopy)
{
    EXPECT_TRUE(isRegexValid(text(std::string(100000, 'a'))));
    EXPECT_FALSE(scratchBuffer[0]);
}

TEST_F(Keeping, CompilingFreesTheFirstScratchMemoryWhoseverItIs)
{
    stringByReplacingOccurrencesOfRegex(wide(std::u16string(100000, u'a')), "x"_ns, ""_ns);
    ASSERT_TRUE(scratchBuffer[0]);
    EXPECT_TRUE(isRegexValid(text("never compiled")));
    EXPECT_FALSE(scratchBuffer[0]);
}

/// How often an operation turns from the stack to the heap.
template <class Operation>
int heapCallsOf(Operation operation)
{
    const faults::FailingReallocf counting(INT32_MAX);
    EXPECT_TRUE(operation());
    return counting.calls();
}

TEST_F(Keeping, TemporaryMemoryIsTheStacksUpTo131071Bytes)
{
    const auto compile = [](std::size_t units) {
        return heapCallsOf([&] { return isRegexValid(text(std::string(units, 'a'))); });
    };
    EXPECT_EQ(compile(65535), 0);
    EXPECT_EQ(compile(65536), 1);

    const auto replace = [](std::size_t units, std::size_t replacementUnits) {
        const Ref<NSString> subject = wide(std::u16string(units, u'a'));
        const Ref<NSString> replacement = text(std::string(replacementUnits, 'r'));
        return heapCallsOf(
            [&] { return stringByReplacingOccurrencesOfRegex(subject, "x"_ns, replacement) != nullptr; });
    };
    EXPECT_EQ(replace(43679, 0), 0) << "43,679 + 21,839 + 16 units";
    EXPECT_EQ(replace(43680, 0), 1) << "43,680 + 21,840 + 16 units";
    // 2 + 1 + 2 * 21,838 + 16 units, and 21,838 for the replacement: 131,066 bytes together.
    clearStringCache();
    EXPECT_EQ(replace(2, 21838), 0);
    EXPECT_EQ(replace(2, 21840), 1);
    EXPECT_FALSE(scratchBuffer[0]) << "only the replacement went to the heap";
    EXPECT_TRUE(scratchBuffer[1]);

    const auto collect = [](std::size_t count) {
        const Ref<NSString> subject = wide(std::u16string(count, u'a'));
        return heapCallsOf([&] { return componentsMatchedByRegex(subject, "a"_ns) != nullptr; });
    };
    EXPECT_EQ(collect(16384) - collect(16383), 1) << "131,072 and 131,064 bytes of pointers";
}

TEST_F(Keeping, RangesAreTheStacksWhileTheyHaveHeadroom)
{
    const auto collect = [](const Ref<NSString>& pattern, std::size_t count) {
        const Ref<NSString> subject = wide(std::u16string(count, u'a'));
        return heapCallsOf([&] { return arrayOfCaptureComponentsMatchedByRegex(subject, pattern) != nullptr; });
    };
    // 2,048 - (4 * 0 + 8) - 4 ranges are the threshold before a match.
    EXPECT_EQ(collect("a"_ns, 2036), 0);
    EXPECT_EQ(collect("a"_ns, 2037), 1);
    // 2,048 - (4 * 1 + 8) - 4 with a group, two ranges a match.
    EXPECT_EQ(collect("(a)"_ns, 1016), 0);
    EXPECT_EQ(collect("(a)"_ns, 1017), 1);
}

TEST_F(Keeping, FindingAllLeavesNoScratchMemory)
{
    const Ref<NSArray> arrays = arrayOfCaptureComponentsMatchedByRegex(text(std::string(50000, 'a')), "(a)"_ns);
    EXPECT_EQ(countOf(arrays), 50000U);
    EXPECT_THAT(scratchBuffer, testing::Each(nullptr));
}

// Exhausted memory

/// What an operation leaves behind when one of its reallocf calls fails.
template <class Operation>
void expectNothingFrom(int nth, Operation operation)
{
    const faults::FailingReallocf fault(nth);
    const Raised raised = raisedBy([&] { EXPECT_FALSE(operation()); });
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(raised.name, "");
    EXPECT_FALSE(lockIsHeld());
}

template <class Operation>
void expectAssertionFrom(int nth, NSInteger line, Operation operation)
{
    RecordingHandler handler;
    const faults::FailingReallocf fault(nth);
    EXPECT_FALSE(operation());
    EXPECT_TRUE(fault.fired());
    EXPECT_FALSE(lockIsHeld());
    ASSERT_EQ(handler.failures.size(), 1U);
    EXPECT_EQ(handler.failures[0].function, "kfr_getCachedRegexSetToString");
    EXPECT_EQ(handler.failures[0].file, "Sources/Shared/KFRegex/KFRegex");
    EXPECT_EQ(handler.failures[0].line, line);
    EXPECT_EQ(handler.failures[0].description, "Failed to set up UTF16 buffer.");
}

using ExhaustedMemory = KFRegexInternals;

TEST_F(ExhaustedMemory, ForALongPatternLeavesNoResultAndAnEmptySlot)
{
    const Ref<NSString> pattern = text(std::string(70000, 'a'));
    const Ref<NSString> subject = widened(pattern);
    Ref<NSError> error;
    expectNothingFrom(1, [&] { return isMatchedByRegex(subject, pattern, 0, kfr::wholeString, &error); });
    EXPECT_FALSE(error);
    expectNothingFrom(1, [&] { return isRegexValid(pattern); });
    EXPECT_TRUE(allSlotsAreEmpty());
    EXPECT_EQ(pattern->retainCount(), 1U);
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
}

TEST_F(ExhaustedMemory, ForANewSubjectFailsItsSetUp)
{
    const Ref<NSString> subject = text(std::string(3000, 'a'));
    const Ref<NSString> pattern = text("a$");
    expectAssertionFrom(1, 766, [&] { return isMatchedByRegex(subject, pattern); });
    EXPECT_FALSE(dynamicBuffer.uniChar);
    EXPECT_FALSE(dynamicBuffer.string);
    EXPECT_EQ(raisedBy([&] {
        const faults::FailingReallocf fault(1);
        isMatchedByRegex(text(std::string(4000, 'a')), pattern);
    }).name,
        "NSInternalInconsistencyException");
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{2999, 1}));
}

TEST_F(ExhaustedMemory, ForASubjectUsedBeforeFailsItsSetUp)
{
    const Ref<NSString> subject = text(std::string(3000, 'a'));
    const Ref<NSString> pattern = text("a$");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    EXPECT_FALSE(isMatchedByRegex(text(std::string(5000, 'b')), "x"_ns)); // takes the buffer
    expectAssertionFrom(1, 749, [&] { return isMatchedByRegex(subject, pattern); });
    EXPECT_EQ(rangeOfRegex(subject, pattern), (NSRange{2999, 1}));
}

TEST_F(ExhaustedMemory, ForRangesStringsAndArraysLeavesNoResult)
{
    const std::string letters(50000, 'a');
    const Ref<NSString> subject = widened(text(letters));
    const Ref<NSString> pattern = text("(a)");
    const auto findAll = [&] { return arrayOfCaptureComponentsMatchedByRegex(subject, pattern); };
    int calls = 0;
    {
        const faults::FailingReallocf counting(INT32_MAX);
        EXPECT_EQ(countOf(findAll()), 50000U);
        calls = counting.calls();
    }
    EXPECT_GE(calls, 4) << "ranges more than once, strings, arrays";
    for (int nth = 1; nth <= calls; ++nth) {
        expectNothingFrom(nth, findAll);
        EXPECT_THAT(scratchBuffer, testing::Each(nullptr)) << nth;
    }
    EXPECT_EQ(countOf(findAll()), 50000U);
    expectNothingFrom(1, [&] { return componentsSeparatedByRegex(subject, pattern); });
    expectNothingFrom(1, [&] { return componentsMatchedByRegex(subject, pattern); });
}

TEST_F(ExhaustedMemory, ForAReplacementLeavesNoResultAndTheReceiver)
{
    const Ref<NSMutableString> receiver = NSMutableString::stringWithString(widened(text(std::string(50000, 'a'))));
    const Ref<NSString> replacement = text(std::string(70000, 'b')); // 8-bit: it is copied too
    const Ref<NSString> pattern = text("a{25000}");
    const auto replace = [&] { return stringByReplacingOccurrencesOfRegex(receiver, pattern, replacement); };
    EXPECT_EQ(replace()->length(), 140000);
    for (int nth = 1; nth <= 2; ++nth) {
        expectNothingFrom(nth, replace);
        expectNothingFrom(nth, [&] { return replaceOccurrencesOfRegex(receiver, pattern, replacement); });
        EXPECT_EQ(receiver->length(), 50000);
    }
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, pattern, replacement), 2U);
    EXPECT_EQ(receiver->length(), 140000);
}

TEST_F(ExhaustedMemory, ForTheRetryOfAReplacementLeavesNoResult)
{
    const Ref<NSString> subject = wide(std::u16string(1000, u'a'));
    const Ref<NSString> replacement = wide(std::u16string(200, u'b'));
    const auto replace = [&] { return stringByReplacingOccurrencesOfRegex(subject, "a"_ns, replacement); };
    expectNothingFrom(1, replace);
    EXPECT_EQ(replace()->length(), 200000);
}

/// Runs an operation with its first string, then its second, ... impossible to make.
template <class Operation>
void expectNothingWithoutStrings(int atLeast, Operation operation)
{
    for (int nth = 1;; ++nth) {
        const faults::FailingString fault(nth);
        const bool result = static_cast<bool>(operation());
        EXPECT_FALSE(lockIsHeld());
        EXPECT_THAT(std::span(scratchBuffer).subspan(2), testing::Each(nullptr));
        EXPECT_EQ(result, !fault.fired()) << nth;
        if (!fault.fired()) {
            EXPECT_GE(nth - 1, atLeast);
            return;
        }
    }
}

TEST_F(ExhaustedMemory, ForStringsLeavesNoResultAndNoAnomaly)
{
    const Ref<NSString> subject = text("a-b-c");
    const Ref<NSString> pattern = text("(-)");
    expectNothingWithoutStrings(1, [&] { return stringByMatching(subject, pattern); });
    expectNothingWithoutStrings(5, [&] { return componentsSeparatedByRegex(subject, pattern); });
    expectNothingWithoutStrings(2, [&] { return componentsMatchedByRegex(subject, pattern); });
    expectNothingWithoutStrings(2, [&] { return captureComponentsMatchedByRegex(subject, pattern); });
    expectNothingWithoutStrings(4, [&] { return arrayOfCaptureComponentsMatchedByRegex(subject, pattern); });
    expectNothingWithoutStrings(1, [&] { return stringByReplacingOccurrencesOfRegex(subject, pattern, "+"_ns); });
    const Ref<NSMutableString> receiver = changeable("abc");
    expectNothingWithoutStrings(1, [&] { return stringByReplacingOccurrencesOfRegex(receiver, pattern, "+"_ns); });
}

TEST_F(ExhaustedMemory, ForArraysLeavesNoResult)
{
    const Ref<NSString> subject = text("a-b-c");
    const Ref<NSString> pattern = text("(-)");
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
    for (int nth = 1;; ++nth) {
        const faults::FailingNew fault(nth);
        const bool result = arrayOfCaptureComponentsMatchedByRegex(subject, pattern) != nullptr;
        EXPECT_EQ(result, !fault.fired()) << nth;
        if (!fault.fired()) {
            EXPECT_GE(nth, 4);
            break;
        }
    }
    EXPECT_EQ(countOf(arrayOfCaptureComponentsMatchedByRegex(subject, pattern)), 2U);
}

TEST_F(ExhaustedMemory, ForTheResultOfAReplacementInPlaceLeavesTheReceiverAndCountsNone)
{
    const Ref<NSMutableString> receiver = changeable("a-b-c");
    const Ref<NSString> pattern = text("-");
    {
        const faults::FailingString fault(1);
        EXPECT_EQ(replaceOccurrencesOfRegex(receiver, pattern, "+"_ns), 0U);
        EXPECT_TRUE(fault.fired());
    }
    EXPECT_EQ(toUTF8(receiver), "a-b-c");
    EXPECT_EQ(slotOf(pattern).setToString, receiver) << "it does not change";
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, pattern, "+"_ns), 2U);
    EXPECT_EQ(toUTF8(receiver), "a+b+c");
}

TEST_F(ExhaustedMemory, ForTheCopyOfAPatternLeavesItsSlotEmpty)
{
    const Ref<NSMutableString> pattern = changeable("b");
    const Ref<NSString> subject = text("abc");
    {
        const faults::FailingString fault(1);
        EXPECT_FALSE(isMatchedByRegex(subject, pattern));
        EXPECT_TRUE(fault.fired());
    }
    EXPECT_TRUE(allSlotsAreEmpty());
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
}

TEST_F(ExhaustedMemory, WhileAnErrorIsMadeLeavesTheLockFree)
{
    const Ref<NSString> bad = text("(");
    Ref<NSError> error;
    int thrown = 0;
    for (int nth = 1;; ++nth) {
        const faults::FailingNew fault(nth);
        try {
            isRegexValidWithOptions(bad, 0, &error);
        } catch (const std::bad_alloc&) {
            ++thrown;
        }
        EXPECT_FALSE(lockIsHeld());
        if (!fault.fired())
            break;
    }
    EXPECT_GT(thrown, 0);
    expectedAnomalies = static_cast<NSUInteger>(thrown);
    EXPECT_TRUE(error);
    EXPECT_TRUE(isMatchedByRegex(text("abc"), "b"_ns));
}

// Replacing

using Replacing = KFRegexInternals;

TEST_F(Replacing, IsTriedOnceMoreWithTheExactLengthAndNoMore)
{
    const Ref<NSString> subject = text(std::string(100, 'a'));
    const Ref<NSString> pattern = text("a");
    const auto passesFor = [&](const Ref<NSString>& replacement) {
        const int before = faults::icuCalls().reset;
        EXPECT_EQ(
            stringByReplacingOccurrencesOfRegex(subject, pattern, replacement)->length(), 100 * replacement->length());
        return faults::icuCalls().reset - before;
    };
    EXPECT_EQ(passesFor("b"_ns), 1);
    EXPECT_EQ(passesFor("bbb"_ns), 2);
    EXPECT_EQ(passesFor(text(std::string(50, 'b'))), 2);

    const faults::ReplacedICU alwaysTooShort({.appendTail = [](const auto&, UErrorCode* status) {
        *status = U_BUFFER_OVERFLOW_ERROR;
        return 0;
    }});
    const int before = faults::icuCalls().reset;
    EXPECT_THAT(raisedBy([&] { stringByReplacingOccurrencesOfRegex(subject, pattern, "b"_ns); }).reason,
        HasSubstr("U_BUFFER_OVERFLOW_ERROR"));
    EXPECT_EQ(faults::icuCalls().reset - before, 2);
}

TEST_F(Replacing, FirstGuessesTheLengthByTheRule)
{
    const Ref<NSString> subject = text("aXXXaXXXXa");
    const auto passesFor = [&](std::size_t replacementLength) {
        const int before = faults::icuCalls().reset;
        Ref<NSError> error;
        const Ref<NSString> result = stringByReplacingOccurrencesOfRegex(
            subject, "a"_ns, text(std::string(replacementLength, 'b')), 0, kfr::wholeString, &error);
        EXPECT_EQ(result->length(), static_cast<CFIndex>(7 + 3 * replacementLength));
        EXPECT_FALSE(error);
        return faults::icuCalls().reset - before;
    };
    EXPECT_EQ(passesFor(24), 1) << "10 + 10 / 2 + 24 * 2 + 16 units are just as many as 7 + 3 * 24";
    EXPECT_EQ(passesFor(25), 2) << "one too many";
}

TEST_F(Replacing, ThatFailsOtherwiseIsNotTriedAgain)
{
    const faults::ReplacedICU failure({.appendTail = [](const auto&, UErrorCode* status) {
        *status = U_REGEX_TIME_OUT;
        return 0;
    }});
    const int before = faults::icuCalls().reset;
    const Ref<NSString> subject = text(std::string(100, 'a'));
    EXPECT_THAT(raisedBy([&] { stringByReplacingOccurrencesOfRegex(subject, "a"_ns, "bbb"_ns); }).reason,
        HasSubstr("U_REGEX_TIME_OUT"))
        << "though it needs more room as well";
    EXPECT_EQ(faults::icuCalls().reset - before, 1);
}

TEST_F(Replacing, InAnEmptyTextDoesNotMindThatICUCannotReset)
{
    const faults::ReplacedICU outOfBounds({.reset = [](UErrorCode* status) { *status = U_INDEX_OUTOFBOUNDS_ERROR; }});
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(wide(u""), "x*"_ns, "b"_ns)), "b");
    EXPECT_THAT(raisedBy([] { stringByReplacingOccurrencesOfRegex(wide(u"a"), "x*"_ns, "b"_ns); }).reason,
        HasSubstr("U_INDEX_OUTOFBOUNDS_ERROR"));
}

TEST_F(Replacing, ForgetsTheMatchFoundBefore)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> pattern = text("(b)");
    EXPECT_EQ(rangeOfRegex(subject, pattern, 1), (NSRange{1, 1}));
    EXPECT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(subject, pattern, "x"_ns)), "axc");
    EXPECT_EQ(rangeOfRegex(subject, pattern, 1), (NSRange{1, 1}));
}

TEST_F(Replacing, TooLongForICUIsRefused)
{
    const Ref<NSString> subject = text("aa");
    const auto reasonFor = [&](CFIndex length) {
        const Raised raised = raisedBy([&] { stringByReplacingOccurrencesOfRegex(subject, "a"_ns, huge(length)); });
        EXPECT_EQ(raised.name, "NSRangeException");
        return raised.reason;
    };
    const std::string expected = "*** -[NSString stringByReplacingOccurrencesOfRegex:withString:]: Replacement string "
                                 "length exceeds INT_MAX.";
    EXPECT_EQ(reasonFor(2147483647), expected);
    EXPECT_EQ(reasonFor(2147483648), expected);
    EXPECT_EQ(reasonFor(1073741823), expected) << "2 / 2 + 1073741823 * 2 is 2147483647";
}

TEST_F(Replacing, OfTextWhoseFirstGuessIsTooLongIsAFailedAssertion)
{
    const Raised raised = raisedBy([] { stringByReplacingOccurrencesOfRegex(huge(1500000000), text("a"), ""_ns); });
    EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
    EXPECT_THAT(raised.reason, StartsWith("Invalid parameter not satisfying: "));
}

TEST_F(Replacing, WithAResultTooLongForICUIsRefused)
{
    for (const std::int32_t tail : {2147483647, 2147483646}) {
        const faults::ReplacedICU longTail({.appendTail = [tail](const auto&, UErrorCode* status) {
            *status = U_BUFFER_OVERFLOW_ERROR;
            return tail;
        }});
        const Raised raised = raisedBy([] { stringByReplacingOccurrencesOfRegex(text("aa"), "a"_ns, "bb"_ns); });
        EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
        EXPECT_EQ(raised.reason,
            "*** -[NSString stringByReplacingOccurrencesOfRegex:withString:]: Replaced string "
            "length exceeds INT_MAX.");
    }
}

TEST_F(Replacing, ThatNeedsLessThanItWroteIsAFailedAssertion)
{
    const faults::ReplacedICU negativeTail({.appendTail = [](const auto&, UErrorCode*) { return -100; }});
    EXPECT_THAT(raisedBy([] { stringByReplacingOccurrencesOfRegex(text("aa"), "a"_ns, "bb"_ns); }).reason,
        StartsWith("Invalid parameter not satisfying: "));
}

TEST_F(Replacing, InPlaceWithAWarningAndNoResultGivesAnError)
{
    // Nothing matches, so nothing is made; ICU's warning then is all there is to tell.
    const faults::ReplacedICU warning({.appendTail = [](const auto& real, UErrorCode* status) {
        const std::int32_t length = real();
        *status = U_USING_DEFAULT_WARNING;
        return length;
    }});
    const Ref<NSMutableString> receiver = changeable("abc");
    Ref<NSError> error;
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "x"_ns, "y"_ns, 0, {0, 3}, &error), 0U);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), U_USING_DEFAULT_WARNING);
    EXPECT_EQ(toUTF8(receiver), "abc");
    EXPECT_EQ(replaceOccurrencesOfRegex(receiver, "b"_ns, "y"_ns, 0, {0, 3}, &error), 1U);
    EXPECT_FALSE(error) << "there is a result";
    EXPECT_EQ(toUTF8(receiver), "ayc");
}

// Searching

using Searching = KFRegexInternals;

TEST_F(Searching, WithAWarningAndNoResultGivesAnErrorWhereOneIsAskedFor)
{
    const faults::ReplacedICU warning({.find = [](UErrorCode* status) -> UBool {
        *status = U_USING_DEFAULT_WARNING;
        return false;
    }});
    Ref<NSError> error;
    EXPECT_FALSE(isMatchedByRegex(text("abc"), text("b"), 0, kfr::wholeString, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(toUTF8(error->domain()), "KFRICURegexErrorDomain");
    EXPECT_EQ(error->code(), U_USING_DEFAULT_WARNING);
    EXPECT_EQ(toUTF8(error->localizedDescription()), "The ICU library returned an unexpected error code.");
    EXPECT_EQ(toUTF8(error->userInfo()->objectAs<NSString>("NSLocalizedFailureReason"_ns)),
        "The error U_USING_DEFAULT_WARNING occurred.");
    EXPECT_FALSE(isMatchedByRegex(text("abc"), text("b")));
}

TEST_F(Searching, WithAFailureRaises)
{
    const faults::ReplacedICU failure({.find = [](UErrorCode* status) -> UBool {
        *status = U_REGEX_TIME_OUT;
        return false;
    }});
    const Raised raised = raisedBy([] { rangeOfRegex(text("abc"), text("b")); });
    EXPECT_EQ(raised.name, "KFRICURegexException");
    EXPECT_EQ(raised.reason, "*** -[NSString rangeOfRegex:]: ICU regular expression error #66322, U_REGEX_TIME_OUT.");
}

TEST_F(Searching, WhereICUFailsForAGroupFindsNothing)
{
    const Ref<NSString> subject = text("abc");
    {
        const faults::ReplacedICU failure({.start = [](std::int32_t group, UErrorCode* status) {
            if (group == 1)
                *status = U_INDEX_OUTOFBOUNDS_ERROR;
            return 1;
        }});
        EXPECT_EQ(rangeOfRegex(subject, "(b)"_ns, 1), notFound);
    }
    const faults::ReplacedICU failure({.start = [](std::int32_t, UErrorCode*) { return -1; }});
    EXPECT_EQ(rangeOfRegex(subject, "(c)"_ns), notFound);
}

TEST_F(Searching, ThatFindsAMatchOutsideItsRangeIsAFailedAssertion)
{
    const faults::ReplacedICU farAway({.end = [](std::int32_t, UErrorCode*) { return 50; }});
    const Ref<NSString> subject = text("abc");
    for (int i = 0; i < 2; ++i) {
        const Raised raised = raisedBy([&] { rangeOfRegex(subject, text("b")); });
        EXPECT_EQ(raised.name, "NSInternalInconsistencyException") << "it is not remembered";
        EXPECT_THAT(raised.reason, StartsWith("Invalid parameter not satisfying: "));
    }
}

TEST_F(Searching, WithAFailureTakesNoMatchFromICU)
{
    EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b")));
    const faults::ReplacedICU failure({.find = [](UErrorCode* status) -> UBool {
        *status = U_REGEX_TIME_OUT;
        return true;
    }});
    UErrorCode status = U_ZERO_ERROR;
    Pending pending;
    EXPECT_EQ(kfr_search(lastCacheSlot, {0, 2}, &pending, &status), notFound);
    EXPECT_FALSE(pending);
    EXPECT_EQ(lastCacheSlot->lastFindRange, notFound);
    EXPECT_EQ(lastCacheSlot->lastMatchRange, notFound);

    FindAll findAll{nullptr, 100, 0, 0, 1, 0, {0, 2}, nullptr, nullptr, nullptr};
    status = U_ZERO_ERROR;
    EXPECT_FALSE(kfr_findRanges(lastCacheSlot, matchesOp, &findAll, &pending, &status));
}

TEST_F(Searching, DoesNotGoOnBehindAnEmptyMatchAtTheEnd)
{
    const int before = faults::icuCalls().findNext;
    EXPECT_THAT(list(componentsMatchedByRegex(text("abc"), "$"_ns)), ElementsAre(""));
    EXPECT_EQ(faults::icuCalls().findNext, before);
}

TEST_F(Searching, OutsideTheSetTextIsAFailedAssertion)
{
    EXPECT_TRUE(isMatchedByRegex(text("abcdef"), text("c"), {1, 3}));
    for (const NSRange range : {NSRange{0, 2}, NSRange{2, 4}}) {
        Pending pending;
        UErrorCode status = U_ZERO_ERROR;
        EXPECT_EQ(kfr_search(lastCacheSlot, range, &pending, &status), notFound);
        EXPECT_EQ(functionOf(pending), "kfr_search");
        EXPECT_GT(lineOf(pending), 0);
    }
}

TEST_F(Searching, ForTheEmptyMatchesOfACharacterOutsideThePlaneEndsToo)
{
    EXPECT_THAT(list(componentsMatchedByRegex(wide(u"\U0001F600"), text("x*"))), ElementsAre("", ""));
}

// Finding all

using FindingAll = KFRegexInternals;

TEST_F(FindingAll, GrowsByTheRule)
{
    EXPECT_TRUE(isMatchedByRegex(wide(std::u16string(10000, u'a')), text("(a)(a)")));
    void* scratch = nullptr;
    NSRange first[100];
    for (NSUInteger i = 0; i < 100; ++i)
        first[i] = {i, 1};
    FindAll findAll{first, 100, sizeof first, 49, 1, 0, {}, &scratch, nullptr, nullptr};

    // c = 150; e = 10000 / (100 / 50) = 5000; (5000 + 150) / 2 + (4 * 2 + 8) + 4.
    ASSERT_TRUE(kfr_growFindRanges(lastCacheSlot, 99, &findAll));
    EXPECT_EQ(findAll.capacity, 2595);
    EXPECT_EQ(findAll.size, 2595 * sizeof(NSRange));
    EXPECT_EQ(findAll.ranges, scratch);
    EXPECT_EQ(findAll.ranges[99], (NSRange{99, 1}));

    // c = 3892; e = 10000 / (10000 / 50) = 50; (3892 + 3892) / 2 + 16 + 4.
    ASSERT_TRUE(kfr_growFindRanges(lastCacheSlot, 9999, &findAll));
    EXPECT_EQ(findAll.capacity, 3912);
    EXPECT_EQ(findAll.ranges[99], (NSRange{99, 1}));

    const faults::FailingReallocf fault(1);
    EXPECT_FALSE(kfr_growFindRanges(lastCacheSlot, 9999, &findAll));
    EXPECT_FALSE(scratch);
    EXPECT_FALSE(findAll.ranges);
    EXPECT_EQ(findAll.capacity, 0);
    EXPECT_EQ(findAll.size, 0U);
}

TEST_F(FindingAll, WithAnotherCodeIsAFailedAssertion)
{
    EXPECT_TRUE(isMatchedByRegex(wide(u"aaa"), text("a")));
    NSRange ranges[100];
    FindAll findAll{ranges, 100, sizeof ranges, 0, 1, 0, {0, 3}, nullptr, nullptr, nullptr};
    Pending pending;
    UErrorCode status = U_ZERO_ERROR;
    EXPECT_FALSE(kfr_findRanges(lastCacheSlot, 7, &findAll, &pending, &status));
    EXPECT_EQ(descriptionOf(pending), "Unknown regexOp.");
}

TEST_F(FindingAll, WithoutRoomIsAFailedAssertion)
{
    EXPECT_TRUE(isMatchedByRegex(wide(u"aaa"), text("a")));
    NSRange ranges[6];
    FindAll findAll{ranges, 6, sizeof ranges, 0, 1, 0, {0, 3}, nullptr, nullptr, nullptr};
    Pending pending;
    EXPECT_FALSE(appendMatch(lastCacheSlot, matchesOp, {0, 1}, {}, &findAll, &pending));
    EXPECT_EQ(functionOf(pending), "appendMatch");
    EXPECT_EQ(findAll.found, 0);
}

TEST_F(FindingAll, WithStringsThatDoNotMakeWholeArraysIsAFailedAssertion)
{
    EXPECT_TRUE(isMatchedByRegex(wide(u"aaa"), text("(a)")));
    NSRange ranges[3] = {{0, 1}, {1, 1}, {2, 1}};
    FindAll findAll{ranges, 3, sizeof ranges, 3, 1, 0, {}, &scratchBuffer[0], &scratchBuffer[1], &scratchBuffer[2]};
    Pending pending;
    EXPECT_FALSE(kfr_makeArray(lastCacheSlot, allCapturesOp | asSubarrays, &findAll, &pending));
    EXPECT_THAT(descriptionOf(pending), StartsWith("Invalid parameter not satisfying: "));
}

TEST_F(FindingAll, GivesFlatCapturesWithoutTheFlag)
{
    NSRange range = wholeString;
    RegexOpResult result;
    const Ref<NSString> subject = text("ab cd");
    Ref<NSObject> array = kfr_performRegexOp(
        {subject.get(), "test"}, allCapturesOp, text("(\\w)\\w"), 0, 0, subject, &range, nullptr, nullptr, &result);
    EXPECT_THAT(list(refCast<NSArray>(array)), ElementsAre("ab", "a", "cd", "c"));
}

// The engine's own refusals

using Engine = KFRegexInternals;

template <class... Arguments>
Raised engineRaises(std::uint32_t regexOp, const Ref<NSString>& pattern, const Ref<NSString>& subject)
{
    return raisedBy([&] {
        NSRange range = wholeString;
        RegexOpResult result;
        const Ref<NSString> receiver = text("receiver");
        kfr_performRegexOp(
            {receiver.get(), "method:"}, regexOp, pattern, 0, 0, subject, &range, nullptr, nullptr, &result);
    });
}

TEST_F(Engine, RefusesANilSubject)
{
    const Raised raised = engineRaises(rangeOp, text("a"), nullptr);
    EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
    EXPECT_EQ(raised.reason, "*** -[NSString method:]: The match string argument is NULL.");
}

TEST_F(Engine, RefusesUnknownCodes)
{
    for (const std::uint32_t code : {0U, 7U, 15U}) {
        const Raised raised = engineRaises(code, text("a"), text("a"));
        EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
        EXPECT_EQ(raised.reason, "Unknown regexOp code.");
    }
}

TEST_F(Engine, RefusesSubjectsTooLongForICU)
{
    for (const CFIndex length : {2147483647LL, 2147483648LL, 5000000000LL}) {
        const Ref<NSString> subject = huge(length);
        const Raised raised = raisedBy([&] { isMatchedByRegex(subject, "a"_ns); });
        EXPECT_EQ(raised.name, "NSRangeException");
        EXPECT_EQ(raised.reason, "*** -[NSString isMatchedByRegex:]: String length exceeds INT_MAX.");
        EXPECT_THAT(raisedBy([&] {
            isMatchedByRegex(subject, "a"_ns, {1, 1});
        }).reason,
            HasSubstr("String length exceeds INT_MAX."));
    }
}

TEST_F(Engine, TakesTheLongestSubject)
{
    const Ref<NSString> subject = huge(2147483646);
    EXPECT_EQ(rangeOfRegex(subject, text("^\\x{0}")), (NSRange{0, 1}));
    EXPECT_EQ(rangeOfRegex(subject, text("\\x{0}"), NSRange{2147483640, 6}), (NSRange{2147483640, 1}));
}

TEST_F(Engine, RefusesPatternsTooLongForICU)
{
    const Ref<NSString> pattern = huge(2147483647);
    const Raised raised = raisedBy([&] { isMatchedByRegex(text("abc"), pattern); });
    EXPECT_EQ(raised.name, "NSRangeException");
    EXPECT_EQ(raised.reason, "*** -[NSString isMatchedByRegex:]: Regex string length exceeds INT_MAX");
    EXPECT_EQ(raisedBy([&] { captureCountForRegex(pattern); }).reason,
        "*** +[NSString captureCountForRegex:]: Regex string length exceeds INT_MAX");
    EXPECT_EQ(pattern->retainCount(), 1U) << "its slot is empty";
}

TEST_F(Engine, RaisesTheRangeAlsoWhereThePatternIsWrong)
{
    Ref<NSError> error;
    EXPECT_EQ(raisedBy([&] { isMatchedByRegex(text("abc"), "("_ns, 0, {0, 9}, &error); }).name, "NSRangeException");
    EXPECT_TRUE(error);
    EXPECT_EQ(raisedBy([&] { isMatchedByRegex(text("abc"), "("_ns, {0, 9}); }).name, "NSRangeException");
}

TEST_F(Engine, GivesNothingWhereAnAssertionHandlerComesBack)
{
    RecordingHandler handler;
    NSRange range = wholeString;
    RegexOpResult result;
    const Ref<NSString> subject = text("abc");
    EXPECT_FALSE(
        kfr_performRegexOp({subject.get(), "test"}, 9, text("b"), 0, 0, subject, &range, nullptr, nullptr, &result));
    ASSERT_EQ(handler.failures.size(), 1U);
    EXPECT_EQ(handler.failures[0].description, "Unknown regexOp code.");
    EXPECT_EQ(handler.failures[0].file, "Sources/Shared/KFRegex/KFRegex");
}

TEST_F(Engine, RefusesSlotsThatAreNotInOrder)
{
    const auto refuses = [](auto spoil) {
        clearStringCache();
        EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b")));
        CacheSlot& slot = *lastCacheSlot;
        Pending pending;
        EXPECT_TRUE(slotIsReady(&slot, &pending));
        spoil(slot);
        EXPECT_FALSE(slotIsReady(&slot, &pending));
        EXPECT_EQ(functionOf(pending), "slotIsReady");
        slot.setToString = nullptr; // whatever was spoiled does not matter any more
    };
    refuses([](CacheSlot& slot) { slot.icu_regex = nullptr; });
    refuses([](CacheSlot& slot) { slot.regexString = nullptr; });
    refuses([](CacheSlot& slot) { slot.setToString = nullptr; });
    refuses([](CacheSlot& slot) { slot.setToUniChar = nullptr; });
    refuses([](CacheSlot& slot) { slot.setToRange = {1, 3}; });
    refuses([](CacheSlot& slot) { slot.setToUniChar = emptyUniCharString; });
    refuses([](CacheSlot& slot) { slot.setToNeedsConversion = false; });
    refuses([](CacheSlot&) { fixedBuffer.hash = 0; });
    refuses([](CacheSlot&) { fixedBuffer.length = 2; });
}

TEST_F(Engine, LooksAtTheSlotBeforeItUsesIt)
{
    const faults::ReplacedICU spoiling({.setText = [](UErrorCode*) {
        lastCacheSlot->setToUniChar = emptyUniCharString;
        return false;
    }});
    const Raised raised = raisedBy([] { isMatchedByRegex(text("abc"), text("b")); });
    EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
    EXPECT_THAT(raised.reason, StartsWith("Invalid parameter not satisfying: cacheSlot->setToUniChar == "));
}

TEST_F(Engine, LooksAtTheCaptureOnlyWhereItIsUsed)
{
    const Ref<NSString> subject = text("abc");
    for (const std::uint32_t regexOp : {1U, 2U, 3U, 4U, 6U, 37U}) {
        const Raised raised = raisedBy([&] {
            NSRange range = wholeString;
            RegexOpResult result;
            kfr_performRegexOp(
                {subject.get(), "method:"}, regexOp, text("b"), 0, 1, subject, &range, text("x"), nullptr, &result);
        });
        EXPECT_EQ(raised.reason != "", regexOp == 3 || regexOp == 4) << regexOp;
    }
}

TEST_F(Engine, ClearsAnEarlierErrorBeforeItRaises)
{
    Ref<NSError> error = NSError::errorWithDomain("earlier"_ns, 1, nullptr);
    EXPECT_THROW(isMatchedByRegex(text("abc"), nullptr, 0, wholeString, &error), NSRaisedException);
    EXPECT_FALSE(error);
}

TEST_F(Engine, NeverOverwritesWhatIsPending)
{
    Pending pending;
    storeFailure(&pending, "first", 1, "first");
    storeFailure(&pending, "second", 2, "second");
    storeException(&pending, NSRangeException, "third"_ns);
    EXPECT_EQ(descriptionOf(pending), "first");
}

// Assertions of the cache

using CacheAssertions = KFRegexInternals;

TEST_F(CacheAssertions, ALookUpNeedsTheLockAndAPattern)
{
    const std::string expected = "Invalid parameter not satisfying: (cacheSpinLock != (OSSpinLock)0) && "
                                 "(regexString != ((void *)0))";
    Pending pending;
    EXPECT_FALSE(kfr_getCachedRegex(text("a"), 0, nullptr, &pending));
    EXPECT_EQ(descriptionOf(pending), expected);
    EXPECT_EQ(functionOf(pending), "kfr_getCachedRegex");

    CacheLock lock;
    pending = nullptr;
    EXPECT_FALSE(kfr_getCachedRegex(nullptr, 0, nullptr, &pending));
    EXPECT_EQ(descriptionOf(pending), expected);
    EXPECT_FALSE(kfr_getCachedRegex(text("a"), 0, nullptr, &pending)) << "something is pending";
    EXPECT_FALSE(kfr_getCachedRegex(text("a"), 0, nullptr, nullptr));
    pending = nullptr;
    EXPECT_TRUE(kfr_getCachedRegex(text("a"), 0, nullptr, &pending));
    lock.unlock();
}

TEST_F(CacheAssertions, ASetUpNeedsItsArguments)
{
    const std::string expected = "Invalid parameter not satisfying: (regexString != ((void *)0)) && (exception != "
                                 "((void *)0)) && (status != ((void *)0)) && (matchLengthPtr != ((void *)0))";
    const Ref<NSString> subject = text("abc");
    NSRange range = wholeString;
    CFIndex length = 0;
    UErrorCode status = U_ZERO_ERROR;
    CacheLock lock;
    const auto setUp = [&](const Ref<NSString>& pattern, CFIndex* lengthOut, UErrorCode* statusOut, Pending* pending) {
        return kfr_getCachedRegexSetToString(pattern, 0, subject, lengthOut, &range, nullptr, pending, statusOut);
    };
    Pending noPattern;
    EXPECT_FALSE(setUp(nullptr, &length, &status, &noPattern));
    EXPECT_EQ(descriptionOf(noPattern), expected);
    Pending noLength;
    EXPECT_FALSE(setUp(text("a"), nullptr, &status, &noLength));
    EXPECT_EQ(descriptionOf(noLength), expected);
    Pending noStatus;
    EXPECT_FALSE(setUp(text("a"), &length, nullptr, &noStatus));
    EXPECT_EQ(descriptionOf(noStatus), expected);
    EXPECT_FALSE(setUp(text("a"), &length, &status, nullptr));
    EXPECT_FALSE(setUp(text("a"), &length, &status, &noStatus)) << "something is pending";
    Pending none;
    EXPECT_TRUE(setUp(text("a"), &length, &status, &none));
    EXPECT_EQ(length, 3);
    EXPECT_EQ(range, (NSRange{0, 3}));
    lock.unlock();
}

TEST_F(CacheAssertions, ASetUpNeedsASlotInOrder)
{
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    lastCacheSlot->captureCount = -2;
    const Raised raised = raisedBy([&] { isMatchedByRegex(text("abc"), pattern); });
    EXPECT_EQ(raised.name, "NSInternalInconsistencyException");
    EXPECT_EQ(raised.reason,
        "Invalid parameter not satisfying: (cacheSlot != ((void *)0)) && (cacheSlot->icu_regex != ((void *)0)) "
        "&& (cacheSlot->regexString != ((void *)0)) && (cacheSlot->captureCount >= 0L) && (cacheSlot == "
        "lastCacheSlot)");
}

TEST_F(CacheAssertions, SettingATextNeedsASubjectAndARangeInsideIt)
{
    const Ref<NSString> pattern = text("b");
    EXPECT_TRUE(isMatchedByRegex(text("abc"), pattern));
    for (const NSRange range : {notFound, NSRange{2, 2}}) {
        Pending pending;
        UErrorCode status = U_ZERO_ERROR;
        EXPECT_FALSE(kfr_setCacheSlotToString(lastCacheSlot, &range, &status, &pending));
        EXPECT_EQ(functionOf(pending), "kfr_setCacheSlotToString");
    }
    flushCachedRegexData(text("abc"));
    Pending pending;
    UErrorCode status = U_ZERO_ERROR;
    const NSRange range{0, 1};
    EXPECT_FALSE(kfr_setCacheSlotToString(lastCacheSlot, &range, &status, &pending));
    EXPECT_THAT(descriptionOf(pending), HasSubstr("cacheSlot->setToString != NULL"));
}

TEST_F(CacheAssertions, AFailingSetTextFailsTheSetUpAndIsNotRemembered)
{
    const Ref<NSString> subject = text("abc");
    const Ref<NSString> pattern = text("b");
    const auto fail = [&] {
        const faults::ReplacedICU failure({.setText = [](UErrorCode* status) {
            *status = U_REGEX_INTERNAL_ERROR;
            return true;
        }});
        RecordingHandler handler;
        EXPECT_FALSE(isMatchedByRegex(subject, pattern));
        EXPECT_EQ(handler.failures.size(), 1U);
        return handler.failures.empty() ? 0 : handler.failures[0].line;
    };
    EXPECT_EQ(fail(), 766);
    EXPECT_EQ(fail(), 749) << "the subject is the slot's by now";
    EXPECT_TRUE(isMatchedByRegex(subject, pattern));
}

TEST_F(CacheAssertions, ConvertingLongTextNeedsTheDynamicBuffer)
{
    EXPECT_TRUE(isMatchedByRegex(text(std::string(3000, 'a')), text("a")));
    Pending wrongBuffer;
    EXPECT_FALSE(convertSubject(lastCacheSlot, &fixedBuffer, &wrongBuffer));
    EXPECT_EQ(descriptionOf(wrongBuffer), "Invalid parameter not satisfying: buffer == &dynamicBuffer");
    EXPECT_TRUE(isMatchedByRegex(text("a"), text("a")));
    ConversionBuffer withoutArray;
    Pending noArray;
    EXPECT_FALSE(convertSubject(lastCacheSlot, &withoutArray, &noArray));
    EXPECT_EQ(descriptionOf(noArray), "Invalid parameter not satisfying: buffer->uniChar != ((void *)0)");
}

// Failure objects

using FailureObjects = KFRegexInternals;

TEST_F(FailureObjects, ShowThePlaceInThePattern)
{
    UParseError parseError{3, 7, u"before", u"after"};
    const Ref<NSDictionary> info =
        kfr_userInfoDictionary("p"_ns, 5, &parseError, U_REGEX_RULE_SYNTAX, {{"v"_ns, "k"_ns}, {nullptr, "nil"_ns}});
    EXPECT_EQ(info->count(), 10U);
    EXPECT_EQ(toUTF8(info->objectAs<NSString>("KFRICURegexRegex"_ns)), "p");
    EXPECT_EQ(info->objectAs<NSNumber>("KFRICURegexRegexOptions"_ns)->unsignedIntValue(), 5U);
    EXPECT_EQ(info->objectAs<NSNumber>("KFRICURegexLine"_ns)->intValue(), 3);
    EXPECT_EQ(info->objectAs<NSNumber>("KFRICURegexOffset"_ns)->intValue(), 7);
    EXPECT_EQ(toUTF8(info->objectAs<NSString>("NSLocalizedFailureReason"_ns)),
        "The error U_REGEX_RULE_SYNTAX occurred at line 3, column 7: before<<HERE>>after");
    EXPECT_EQ(toUTF8(info->objectAs<NSString>("k"_ns)), "v");
    EXPECT_EQ(kfr_userInfoDictionary(nullptr, 0, nullptr, U_REGEX_RULE_SYNTAX)->count(), 4U) << "no pattern, no place";
}

TEST_F(FailureObjects, WithoutAPlaceHaveTheShortReason)
{
    UParseError parseError{-1, -1, {}, {}};
    const Ref<NSException> exception = kfr_NSExceptionForRegex("p"_ns, 0, &parseError, U_REGEX_TIME_OUT);
    EXPECT_EQ(toUTF8(exception->name()), "KFRICURegexException");
    EXPECT_EQ(toUTF8(exception->reason()), "ICU regular expression error #66322, U_REGEX_TIME_OUT.");
    EXPECT_EQ(exception->userInfo()->count(), 5U);
    EXPECT_EQ(toUTF8(exception->userInfo()->objectAs<NSString>("NSLocalizedFailureReason"_ns)),
        "The error U_REGEX_TIME_OUT occurred.");
}

TEST_F(FailureObjects, CarryFunctionFileLineAndDescription)
{
    const Ref<NSDictionary> record = kfr_makeAssertDictionary("f", sourceFile, 12, "%s %d", "text", 3);
    EXPECT_EQ(record->count(), 4U);
    EXPECT_EQ(field(record, "function"_ns), "f");
    EXPECT_EQ(field(record, "file"_ns), "Sources/Shared/KFRegex/KFRegex");
    EXPECT_EQ(lineOf(record), 12);
    EXPECT_EQ(descriptionOf(record), "text 3");
}

TEST_F(FailureObjects, AreDeliveredToTheAssertionHandler)
{
    RecordingHandler handler;
    kfr_handleDelayedAssert({nullptr, "m"}, kfr_makeAssertDictionary("f", "file", 12, "text"));
    ASSERT_EQ(handler.failures.size(), 1U);
    EXPECT_EQ(handler.failures[0].function, "f");
    EXPECT_EQ(handler.failures[0].file, "file");
    EXPECT_EQ(handler.failures[0].line, 12);
    EXPECT_EQ(handler.failures[0].description, "text");
}

TEST_F(FailureObjects, WithMissingFieldsAreAFailedAssertionThemselves)
{
    const std::pair<Ref<NSObject>, Ref<NSString>> fields[] = {{"f"_ns, "function"_ns}, {"file"_ns, "file"_ns},
        {NSNumber::numberWithLong(1), "line"_ns}, {"text"_ns, "description"_ns}};
    for (const auto& missing : fields) {
        const Ref<NSMutableDictionary> record = NSMutableDictionary::dictionary();
        for (const auto& [object, key] : fields)
            if (key != missing.second)
                record->setObjectForKey(object, key);
        RecordingHandler handler;
        kfr_handleDelayedAssert({nullptr, "m"}, record);
        ASSERT_EQ(handler.failures.size(), 1U);
        EXPECT_EQ(handler.failures[0].function, "kfr_handleDelayedAssert");
        EXPECT_EQ(handler.failures[0].file, "Sources/Shared/KFRegex/KFRegex");
        EXPECT_EQ(handler.failures[0].line, 903);
        EXPECT_THAT(handler.failures[0].description, StartsWith("Invalid parameter not satisfying: "));
    }
}

TEST_F(FailureObjects, KeepPercentSignsOfAReason)
{
    const Pending pending = NSException::exceptionWithName(NSRangeException, "100 %d %@"_ns, nullptr);
    EXPECT_EQ(raisedBy([&] {
        kfr_handleDelayedAssert({text("a").get(), "m:"}, pending);
    }).reason,
        "*** -[NSString m:]: 100 %d %@");
}

TEST_F(FailureObjects, NameClassAndMethod)
{
    const Ref<NSString> string = text("a");
    const Ref<NSMutableString> mutableString = changeable("a");
    EXPECT_EQ(toUTF8(kfr_stringFromClassAndMethod({string.get(), "m:n:"}, "%d", 3)), "*** -[NSString m:n:]: 3");
    EXPECT_EQ(toUTF8(kfr_stringFromClassAndMethod({mutableString.get(), "m"}, "x")), "*** -[NSMutableString m]: x");
    EXPECT_EQ(toUTF8(kfr_stringFromClassAndMethod({nullptr, "m:"}, "x")), "*** +[NSString m:]: x");
}

// The lock

using Lock = KFRegexInternals;

/// Every line that this process has logged: each warning is due once in its life.
std::vector<std::string>& logged()
{
    static std::vector<std::string> lines;
    static const NSLogObserver observer([](const std::string& line) { lines.push_back(line); });
    return lines;
}
[[maybe_unused]] const auto& observedFromTheStart = logged();

constexpr const char* heldText =
    "[KFRegex] Unusual condition detected: Recorded that cacheSpinLock was locked, but for "
    "some reason it was not unlocked.  Forcibly unlocking cacheSpinLock. Set a breakpoint "
    "at kfr_debugCacheSpinLock to debug. This warning is only printed once.";
constexpr const char* freeText =
    "[KFRegex] Unusual condition detected: Recorded that cacheSpinLock was locked, but for "
    "some reason it was not unlocked, yet cacheSpinLock is currently not locked? Set a "
    "breakpoint at kfr_debugCacheSpinLock to debug. This warning is only printed once.";

struct Interruption { };

TEST_F(Lock, LeftByAnExceptionIsFreedWithOneWarningAProcess)
{
    for (int i = 0; i < 3; ++i) {
        bool wasHeld = false;
        faults::duringFind([&] {
            wasHeld = lockIsHeld();
            throw Interruption();
        });
        EXPECT_THROW(isMatchedByRegex(text("abc"), text("b")), Interruption);
        faults::duringFind(nullptr);
        EXPECT_TRUE(wasHeld);
        EXPECT_FALSE(lockIsHeld());
    }
    expectedAnomalies = 3;
    EXPECT_EQ(std::ranges::count(logged(), heldText), 1);
    EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b")));
}

TEST_F(Lock, LeftByAnExceptionAndFreeAlreadyIsReportedOnceAProcess)
{
    for (int i = 0; i < 3; ++i) {
        faults::duringFind([] {
            OSSpinLockUnlock(&cacheSpinLock);
            throw Interruption();
        });
        EXPECT_THROW(isMatchedByRegex(text("abc"), text("b")), Interruption);
        faults::duringFind(nullptr);
        EXPECT_FALSE(lockIsHeld());
    }
    expectedAnomalies = 3;
    EXPECT_EQ(std::ranges::count(logged(), freeText), 1);
}

TEST_F(Lock, HasAWarningForEachOfTheTwo)
{
    for (const bool frees : {false, true}) {
        faults::duringFind([&] {
            if (frees)
                OSSpinLockUnlock(&cacheSpinLock);
            throw Interruption();
        });
        EXPECT_THROW(isMatchedByRegex(text("abc"), text("b")), Interruption);
        faults::duringFind(nullptr);
    }
    expectedAnomalies = 2;
    EXPECT_EQ(std::ranges::count(logged(), heldText), 1);
    EXPECT_EQ(std::ranges::count(logged(), freeText), 1);
}

TEST_F(Lock, IsFreeWhileTheReceiverChanges)
{
    const Ref<NSMutableString> receiver = changeable("abc");
    const Ref<NSString> pattern = text("b");
    const Ref<NSString> replacement = text(std::string(1000, 'x'));
    EXPECT_TRUE(isMatchedByRegex(receiver, pattern));
    const faults::FailingNew fault(1);
    EXPECT_THROW(replaceOccurrencesOfRegex(receiver, pattern, replacement), std::bad_alloc);
    EXPECT_TRUE(fault.fired());
}

TEST_F(Lock, LeftByAnExceptionInsideFindingAllKeepsNothing)
{
    const Ref<NSString> subject = wide(u"abc");
    faults::duringFind([] {
        scratchBuffer[1] = std::malloc(10);
        throw Interruption();
    });
    EXPECT_THROW(componentsMatchedByRegex(subject, text("b")), Interruption);
    faults::duringFind(nullptr);
    expectedAnomalies = 1;
    EXPECT_THAT(scratchBuffer, testing::Each(nullptr));
    EXPECT_THAT(list(componentsMatchedByRegex(subject, text("b"))), ElementsAre("b"));
}

TEST_F(Lock, ProperlyReleasedIsNoAnomaly)
{
    const std::size_t before = logged().size();
    for (const std::uint32_t status : {0U, 3U, 2U})
        kfr_cleanup_cacheSpinLockStatus(&status);
    EXPECT_EQ(logged().size(), before);
}

TEST_F(Lock, IsHeldWhileICUWorksAndFreeWhenTheHandlerIsCalled)
{
    bool heldDuringFind = false;
    faults::duringFind([&] { heldDuringFind = lockIsHeld(); });
    EXPECT_TRUE(isMatchedByRegex(text("abc"), text("b")));
    faults::duringFind(nullptr);
    EXPECT_TRUE(heldDuringFind);

    struct Handler : NSAssertionHandler {
        void handleFailureInFunction(
            const Ref<NSString>&, const Ref<NSString>&, NSInteger, const Ref<NSString>&) override
        {
            wasFree = !lockIsHeld() && isMatchedByRegex(text("abc"), text("b"));
        }
        bool wasFree = false;
    } handler;
    NSAssertionHandler* const before = NSAssertionHandler::setCurrentHandler(&handler);
    engineRaises(9, text("a"), text("a"));
    NSAssertionHandler::setCurrentHandler(before);
    EXPECT_TRUE(handler.wasFree);
}

} // namespace
