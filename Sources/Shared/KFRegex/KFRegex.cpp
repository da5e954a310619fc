#include "KFRegex/KFRegex.h"

#include "Foundation/NSException.h"
#include "Foundation/NSLog.h"
#include "Foundation/NSNumber.h"
#include "Foundation/OSSpinLock.h"
#include "Foundation/reallocf.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include <unicode/uregex.h>
#include <unicode/ustring.h>

constinit const Ref<NSString> KFRICURegexException = kf::constant<"KFRICURegexException">();
constinit const Ref<NSString> KFRICURegexErrorDomain = kf::constant<"KFRICURegexErrorDomain">();
constinit const Ref<NSString> KFRICURegexErrorCodeErrorKey = kf::constant<"KFRICURegexErrorCode">();
constinit const Ref<NSString> KFRICURegexErrorNameErrorKey = kf::constant<"KFRICURegexErrorName">();
constinit const Ref<NSString> KFRICURegexLineErrorKey = kf::constant<"KFRICURegexLine">();
constinit const Ref<NSString> KFRICURegexOffsetErrorKey = kf::constant<"KFRICURegexOffset">();
constinit const Ref<NSString> KFRICURegexPreContextErrorKey = kf::constant<"KFRICURegexPreContext">();
constinit const Ref<NSString> KFRICURegexPostContextErrorKey = kf::constant<"KFRICURegexPostContext">();
constinit const Ref<NSString> KFRICURegexRegexErrorKey = kf::constant<"KFRICURegexRegex">();
constinit const Ref<NSString> KFRICURegexRegexOptionsErrorKey = kf::constant<"KFRICURegexRegexOptions">();

std::atomic<NSUInteger> kfr_debugCacheSpinLockCount{0};

[[gnu::noinline]] void kfr_debugCacheSpinLock() { kfr_debugCacheSpinLockCount.fetch_add(1); }

namespace {

// Values and types

constexpr NSRange notFound{NSNotFound, 0};
constexpr NSUInteger upToTheEnd = kfr::wholeString.length;
constexpr CFIndex intMax = INT32_MAX;
constexpr CFIndex longestText = intMax - 1;
constexpr std::size_t stackLimit = 131071;
constexpr std::size_t cacheSlotCount = 23;
constexpr CFIndex fixedBufferCapacity = 2048;
constexpr CFIndex rangesOnStack = 2048;
constexpr const char* sourceFile = "Sources/Shared/KFRegex/KFRegex";

enum RegexOp : std::uint32_t {
    splitOp = 1,
    replaceOp = 2,
    rangeOp = 3,
    matchesOp = 4,
    allCapturesOp = 5,
    firstCapturesOp = 6,
    codeMask = 15,
    inReceiver = 16,
    asSubarrays = 32,
};

struct CloseRegex {
    void operator()(URegularExpression* regex) const noexcept { uregex_close(regex); }
};
using ScopedRegex = std::unique_ptr<URegularExpression, CloseRegex>;

/// What went wrong while the lock was held, until it can be raised: an
/// NSException or a delayed-assertion record. Filled once.
using Pending = Ref<NSObject>;

struct CacheSlot {
    Ref<NSString> regexString;
    std::uint32_t options = 0;
    ScopedRegex icu_regex;
    CFIndex captureCount = 0;
    Ref<NSString> setToString;
    CFHashCode setToHash = 0;
    CFIndex setToLength = 0;
    bool setToIsImmutable : 1 = false;
    bool setToNeedsConversion : 1 = false;
    const char16_t* setToUniChar = nullptr;
    NSRange setToRange;
    NSRange lastFindRange;
    NSRange lastMatchRange;
};

struct ConversionBuffer {
    Ref<NSString> string;
    CFHashCode hash = 0;
    CFIndex length = 0;
    char16_t* uniChar = nullptr;
};

struct FindAll {
    NSRange* ranges;
    CFIndex capacity;
    std::size_t size;
    CFIndex found;
    CFIndex findUpTo;
    NSInteger capture;
    NSRange findInRange;
    void** rangesScratchBuffer;
    void** stringsScratchBuffer;
    void** arraysScratchBuffer;
};

/// What an operation finds besides the object that it returns.
struct RegexOpResult {
    NSRange matchRange = notFound;
    NSUInteger replacedCount = 0;
};

/// Whose operation is called, as messages name it; no receiver is the class itself.
struct Method {
    const NSObject* receiver;
    const char* selector;
};

/// The cache outlives every other static object: threads may still use it while a process exits.
template <class T>
union Immortal {
    constexpr Immortal() noexcept : value() { }
    constexpr explicit Immortal(T&& initial) noexcept : value(std::move(initial)) { }
    ~Immortal() { }
    T value;
};

// State, touched only while cacheSpinLock is held

char16_t fixedUniChar[fixedBufferCapacity];
const char16_t emptyUniCharString[1] = {};

constinit Immortal<std::array<CacheSlot, cacheSlotCount>> immortalCacheSlots;
constinit Immortal<ConversionBuffer> immortalFixedBuffer{ConversionBuffer{nullptr, 0, 0, fixedUniChar}};
constinit Immortal<ConversionBuffer> immortalDynamicBuffer;

constinit auto& kfr_cacheSlots = immortalCacheSlots.value;
constinit ConversionBuffer& fixedBuffer = immortalFixedBuffer.value;
constinit ConversionBuffer& dynamicBuffer = immortalDynamicBuffer.value;
constinit CacheSlot* lastCacheSlot = nullptr;
constinit void* scratchBuffer[4] = {};

constinit OSSpinLock cacheSpinLock = OS_SPINLOCK_INIT;

// Small helpers

constexpr NSUInteger endOf(NSRange range) noexcept { return range.location + range.length; }

/// Whether a range, whose end may overflow, lies within so many units.
constexpr bool liesWithin(NSRange range, CFIndex length) noexcept
{
    const auto units = static_cast<NSUInteger>(length);
    return range.location <= units && range.length <= units - range.location;
}

bool lockIsHeld() noexcept
{
    return std::atomic_ref<OSSpinLock>(cacheSpinLock).load(std::memory_order_relaxed) != OS_SPINLOCK_INIT;
}

void releaseScratch(void*& scratch) noexcept { std::free(std::exchange(scratch, nullptr)); }

/// Frees the first scratch memories when an operation ends, however it ends.
struct ScratchRelease {
    std::size_t count;
    ~ScratchRelease() { std::for_each_n(scratchBuffer, count, releaseScratch); }
};

/// Temporary memory of one operation: the stack's as far as it goes.
class StackSpace {
public:
    StackSpace() noexcept { } // leaves the bytes as they are: clearing them would cost more than most matches
    StackSpace(const StackSpace&) = delete;
    StackSpace& operator=(const StackSpace&) = delete;

    /// Memory for `count` Ts, in `scratch` where the stack has not enough; null where that is exhausted.
    template <class T>
    T* take(CFIndex count, void*& scratch)
    {
        const std::size_t size = static_cast<std::size_t>(count) * sizeof(T);
        if (size <= stackLimit - used_)
            return reinterpret_cast<T*>(bytes_ + std::exchange(used_, used_ + size));
        scratch = reallocf(scratch, size);
        return static_cast<T*>(scratch);
    }

private:
    std::size_t used_ = 0;
    alignas(std::max_align_t) std::byte bytes_[stackLimit];
};

// Failure reporting

template <class... Arguments>
Ref<NSString> kfr_stringFromClassAndMethod(Method method, std::string_view format, const Arguments&... arguments)
{
    const Ref<NSString> message = NSStringWithFormat(format, arguments...);
    const char* className = method.receiver ? method.receiver->className() : "NSString";
    return NSStringWithFormat("*** %c[%s %s]: %@", method.receiver ? '-' : '+', className, method.selector, message);
}

using ObjectAndKey = std::pair<Ref<NSObject>, Ref<NSString>>;

Ref<NSString> stringFromContext(const UChar* context)
{
    return NSString::stringWithCharacters({context, static_cast<std::size_t>(u_strlen(context))});
}

Ref<NSDictionary> kfr_userInfoDictionary(const Ref<NSString>& regexString, std::uint32_t options,
    const UParseError* parseError, UErrorCode status, std::initializer_list<ObjectAndKey> objectsAndKeys = {})
{
    const Ref<NSMutableDictionary> info = NSMutableDictionary::dictionary();
    const auto put = [&info](const Ref<NSObject>& object, const Ref<NSString>& key) {
        if (object)
            info->setObjectForKey(object, key);
    };
    const Ref<NSString> name = NSString::stringWithUTF8String(u_errorName(status));
    put(NSString::stringWithString(regexString), KFRICURegexRegexErrorKey);
    put(NSNumber::numberWithUnsignedInt(options), KFRICURegexRegexOptionsErrorKey);
    put(NSNumber::numberWithInt(status), KFRICURegexErrorCodeErrorKey);
    put(name, KFRICURegexErrorNameErrorKey);
    if (!parseError || parseError->line == -1) {
        put(NSStringWithFormat("The error %@ occurred.", name), NSLocalizedFailureReasonErrorKey);
    } else {
        const Ref<NSString> before = stringFromContext(parseError->preContext);
        const Ref<NSString> after = stringFromContext(parseError->postContext);
        put(NSNumber::numberWithInt(parseError->line), KFRICURegexLineErrorKey);
        put(NSNumber::numberWithInt(parseError->offset), KFRICURegexOffsetErrorKey);
        put(before, KFRICURegexPreContextErrorKey);
        put(after, KFRICURegexPostContextErrorKey);
        put(NSStringWithFormat("The error %@ occurred at line %d, column %d: %@<<HERE>>%@", name, parseError->line,
                parseError->offset, before, after),
            NSLocalizedFailureReasonErrorKey);
    }
    for (const auto& [object, key] : objectsAndKeys)
        put(object, key);
    return info;
}

Ref<NSError> kfr_NSErrorForRegex(
    const Ref<NSString>& regexString, std::uint32_t options, const UParseError* parseError, UErrorCode status)
{
    return NSError::errorWithDomain(KFRICURegexErrorDomain, status,
        kfr_userInfoDictionary(regexString, options, parseError, status,
            {{"There was an error compiling the regular expression."_ns, NSLocalizedDescriptionKey}}));
}

Ref<NSError> errorForWarning(const Ref<NSString>& regexString, std::uint32_t options, UErrorCode status)
{
    return NSError::errorWithDomain(KFRICURegexErrorDomain, status,
        kfr_userInfoDictionary(regexString, options, nullptr, status,
            {{"The ICU library returned an unexpected error code."_ns, NSLocalizedDescriptionKey}}));
}

Ref<NSException> exceptionForStatus(UErrorCode status, const Ref<NSDictionary>& userInfo)
{
    return NSException::exceptionWithName(KFRICURegexException,
        NSStringWithFormat("ICU regular expression error #%d, %s.", static_cast<int>(status), u_errorName(status)),
        userInfo);
}

Ref<NSException> kfr_NSExceptionForRegex(
    const Ref<NSString>& regexString, std::uint32_t options, const UParseError* parseError, UErrorCode status)
{
    return exceptionForStatus(status, kfr_userInfoDictionary(regexString, options, parseError, status));
}

/// The exception that tells what the error of a failed compilation tells.
Ref<NSException> exceptionForCompileError(const Ref<NSError>& error)
{
    const Ref<NSMutableDictionary> userInfo = NSMutableDictionary::dictionary();
    for (const Ref<NSString>& key : error->userInfo()->allKeys())
        if (!CFEqual(key, NSLocalizedDescriptionKey))
            userInfo->setObjectForKey(error->userInfo()->objectForKey(key), key);
    return exceptionForStatus(static_cast<UErrorCode>(error->code()), userInfo);
}

template <class... Arguments>
Ref<NSDictionary> kfr_makeAssertDictionary(
    const char* function, const char* file, NSInteger line, std::string_view format, const Arguments&... arguments)
{
    return NSDictionary::dictionaryWithObjectsAndKeys({
        {NSString::stringWithUTF8String(function), "function"_ns},
        {NSString::stringWithUTF8String(file), "file"_ns},
        {NSNumber::numberWithLong(line), "line"_ns},
        {NSStringWithFormat(format, arguments...), "description"_ns},
    });
}

void storePending(Pending* pending, const Ref<NSObject>& object)
{
    if (!*pending)
        *pending = object;
}

/// Stores a delayed assertion with a plain text. Always false.
[[gnu::cold, gnu::noinline]] bool storeFailure(
    Pending* pending, const char* function, NSInteger line, const char* description)
{
    storePending(pending, kfr_makeAssertDictionary(function, sourceFile, line, "%s", description));
    return false;
}

/// Stores a delayed assertion that names a condition. Always false.
[[gnu::cold, gnu::noinline]] bool storeAssertion(
    Pending* pending, const char* function, NSInteger line, const char* condition)
{
    storePending(pending,
        kfr_makeAssertDictionary(function, sourceFile, line, "Invalid parameter not satisfying: %s", condition));
    return false;
}

/// The condition's value; where it is false, a delayed assertion with `text` is pending.
#define KFR_REQUIRE(condition, text, pending) ((condition) || storeAssertion(pending, __func__, __LINE__, text))

[[gnu::cold]] void storeException(Pending* pending, const Ref<NSString>& name, const Ref<NSString>& reason)
{
    storePending(pending, NSException::exceptionWithName(name, reason, nullptr));
}

void reportAssertion(const char* function, NSInteger line, const char* condition)
{
    NSAssertionHandler::currentHandler()->handleFailureInFunction(NSString::stringWithUTF8String(function),
        NSString::stringWithUTF8String(sourceFile), line,
        NSStringWithFormat("Invalid parameter not satisfying: %s", condition));
}

/// Raises what is pending. Comes back only from an assertion handler that does.
[[gnu::cold]] void kfr_handleDelayedAssert(Method method, const Pending& pending)
{
    if (const Ref<NSException> exception = refCast<NSException>(pending))
        NSException::exceptionWithName(
            exception->name(), kfr_stringFromClassAndMethod(method, "%@", exception->reason()), exception->userInfo())
            ->raise();
    const Ref<NSDictionary> record = refCast<NSDictionary>(pending);
    const Ref<NSString> function = record ? record->objectAs<NSString>("function"_ns) : nullptr;
    const Ref<NSString> file = record ? record->objectAs<NSString>("file"_ns) : nullptr;
    const Ref<NSString> description = record ? record->objectAs<NSString>("description"_ns) : nullptr;
    const Ref<NSNumber> line = record ? record->objectAs<NSNumber>("line"_ns) : nullptr;
    if (!function || !file || !description || !line) {
        constexpr NSInteger reportedLine = 903;
        reportAssertion(__func__, reportedLine,
            "(functionString != NULL) && (fileString != NULL) && (descriptionString != NULL) && "
            "(lineNumber != NULL)");
        return;
    }
    NSAssertionHandler::currentHandler()->handleFailureInFunction(function, file, line->longValue(), description);
}

[[noreturn, gnu::cold]] void raiseForMethod(Method method, const Ref<NSString>& name, const char* message)
{
    NSRaise(name, kfr_stringFromClassAndMethod(method, message));
}

// The lock

constexpr std::uint32_t lockTaken = 1U << 0;
constexpr std::uint32_t lockReleased = 1U << 1;

[[gnu::cold]] void warnOnce(std::atomic_flag& warned, const char* message) noexcept
{
    if (warned.test_and_set())
        return;
    try {
        NSLog(message);
    } catch (...) {
        // The lock has to be repaired whether or not the log takes the line.
    }
}

[[gnu::cold, gnu::noinline]] void repairCacheSpinLock() noexcept
{
    static std::atomic_flag warnedOfHeldLock;
    static std::atomic_flag warnedOfFreeLock;
    if (lockIsHeld()) {
        warnOnce(warnedOfHeldLock,
            "[KFRegex] Unusual condition detected: Recorded that cacheSpinLock was locked, but for some reason it "
            "was not unlocked.  Forcibly unlocking cacheSpinLock. Set a breakpoint at kfr_debugCacheSpinLock to "
            "debug. This warning is only printed once.");
        kfr_debugCacheSpinLock();
        OSSpinLockUnlock(&cacheSpinLock);
    } else {
        warnOnce(warnedOfFreeLock,
            "[KFRegex] Unusual condition detected: Recorded that cacheSpinLock was locked, but for some reason it "
            "was not unlocked, yet cacheSpinLock is currently not locked? Set a breakpoint at "
            "kfr_debugCacheSpinLock to debug. This warning is only printed once.");
        kfr_debugCacheSpinLock();
    }
}

void kfr_cleanup_cacheSpinLockStatus(const std::uint32_t* lockStatus) noexcept
{
    if ((*lockStatus & (lockTaken | lockReleased)) == lockTaken) [[unlikely]]
        repairCacheSpinLock();
}

// Out of line: inlined, the lock's rare ways take registers from the operations
// and cost them more than the calls.
[[gnu::noinline]] void lockCache() noexcept { OSSpinLockLock(&cacheSpinLock); }
[[gnu::noinline]] void unlockCache() noexcept { OSSpinLockUnlock(&cacheSpinLock); }

/// The lock of one public operation. It is to be unlocked by hand before the
/// operation reports anything; what its destructor has to unlock is an anomaly.
class CacheLock {
public:
    CacheLock() noexcept
    {
        lockCache();
        status_ |= lockTaken;
    }
    ~CacheLock() { kfr_cleanup_cacheSpinLockStatus(&status_); }
    CacheLock(const CacheLock&) = delete;
    CacheLock& operator=(const CacheLock&) = delete;

    void unlock() noexcept
    {
        unlockCache();
        status_ |= lockReleased;
    }

private:
    std::uint32_t status_ = 0;
};

// Clearing

/// ICU keeps no pointer into text that goes.
void setToNoText(CacheSlot* slot) noexcept
{
    UErrorCode ignored = U_ZERO_ERROR;
    if (slot->icu_regex)
        uregex_setText(slot->icu_regex.get(), emptyUniCharString, 0, &ignored);
    slot->setToUniChar = nullptr;
    slot->setToRange = slot->lastMatchRange = slot->lastFindRange = notFound;
}

void kfr_clearCacheSlotSetTo(CacheSlot* slot) noexcept
{
    setToNoText(slot);
    slot->setToString = nullptr;
    slot->setToIsImmutable = slot->setToNeedsConversion = false;
    slot->setToHash = 0;
    slot->setToLength = 0;
}

void kfr_clearCacheSlotRegex(CacheSlot* slot) noexcept
{
    if (slot->setToString)
        kfr_clearCacheSlotSetTo(slot);
    slot->icu_regex = nullptr;
    slot->captureCount = -1;
    slot->regexString = nullptr;
    slot->options = 0;
}

void kfr_clearBuffer(ConversionBuffer* buffer, bool releaseMemory) noexcept
{
    buffer->string = nullptr;
    buffer->hash = 0;
    buffer->length = 0;
    if (releaseMemory && buffer == &dynamicBuffer)
        std::free(std::exchange(buffer->uniChar, nullptr));
}

void kfr_clearStringCache()
{
    if (!lockIsHeld()) {
        reportAssertion(__func__, __LINE__, "cacheSpinLock != (OSSpinLock)0");
        return;
    }
    lastCacheSlot = nullptr;
    for (void*& scratch : scratchBuffer)
        releaseScratch(scratch);
    for (CacheSlot& slot : kfr_cacheSlots)
        kfr_clearCacheSlotRegex(&slot);
    kfr_clearBuffer(&fixedBuffer, false);
    kfr_clearBuffer(&dynamicBuffer, true);
}

// Compiled expressions

/// The pattern's own UTF-16 text, else a copy; null where memory is exhausted.
const char16_t* textOfRegex(const NSString* regexString, CFIndex length, StackSpace& stack)
{
    if (const char16_t* text = CFStringGetCharactersPtr(regexString))
        return text;
    char16_t* copy = stack.take<char16_t>(length, scratchBuffer[0]);
    if (copy)
        CFStringGetCharacters(regexString, {0, length}, copy);
    return copy;
}

void openRegex(CacheSlot* slot, UParseError* parseError, UErrorCode* status, Pending* exception)
{
    const CFIndex length = CFStringGetLength(slot->regexString.get());
    if (length > longestText) {
        storeException(exception, NSRangeException, "Regex string length exceeds INT_MAX"_ns);
        return;
    }
    StackSpace stack;
    if (const char16_t* text = textOfRegex(slot->regexString.get(), length, stack))
        slot->icu_regex.reset(uregex_open(text, static_cast<std::int32_t>(length), slot->options, parseError, status));
}

[[gnu::noinline]] CacheSlot* compileIntoSlot(
    CacheSlot* slot, const Ref<NSString>& regexString, std::uint32_t options, Ref<NSError>* error, Pending* exception)
{
    kfr_clearCacheSlotRegex(slot);
    slot->regexString = CFStringCreateCopy(regexString.get());
    if (!slot->regexString)
        return nullptr;
    slot->options = options;

    const ScratchRelease releaseAtTheEnd{1}; // a very long pattern never keeps its temporary copy
    UParseError parseError{-1, -1, {}, {}};
    UErrorCode status = U_ZERO_ERROR;
    openRegex(slot, &parseError, &status, exception);
    if (slot->icu_regex && U_SUCCESS(status))
        slot->captureCount = uregex_groupCount(slot->icu_regex.get(), &status);
    if (slot->icu_regex && U_SUCCESS(status))
        return lastCacheSlot = slot;
    kfr_clearCacheSlotRegex(slot);
    if (U_FAILURE(status) && error)
        *error = kfr_NSErrorForRegex(regexString, options, &parseError, status);
    return nullptr;
}

/// Whether the slot was compiled from this very object, which is not nil.
bool isCompiledFrom(const CacheSlot* slot, const Ref<NSString>& regexString, std::uint32_t options) noexcept
{
    return slot->regexString == regexString && slot->options == options && slot->icu_regex;
}

CacheSlot* kfr_getCachedRegex(
    const Ref<NSString>& regexString, std::uint32_t options, Ref<NSError>* error, Pending* exception)
{
    if (!exception || *exception)
        return nullptr;
    if (!KFR_REQUIRE(
            lockIsHeld() && regexString, "(cacheSpinLock != (OSSpinLock)0) && (regexString != ((void *)0))", exception))
        return nullptr;
    if (lastCacheSlot && isCompiledFrom(lastCacheSlot, regexString, options))
        return lastCacheSlot;

    lastCacheSlot = nullptr;
    CacheSlot* slot = &kfr_cacheSlots[CFHash(regexString) % cacheSlotCount];
    if (isCompiledFrom(slot, regexString, options)
        || (slot->options == options && slot->icu_regex && CFEqual(slot->regexString, regexString)))
        return lastCacheSlot = slot;
    return compileIntoSlot(slot, regexString, options, error, exception);
}

// Subjects

ConversionBuffer* bufferForLength(CFIndex length) noexcept
{
    return length < fixedBufferCapacity ? &fixedBuffer : &dynamicBuffer;
}

/// Takes up the UTF-16 text at its present place; ICU has to be told where it moved.
void adoptText(CacheSlot* slot, const char16_t* text) noexcept
{
    if (slot->setToUniChar == text)
        return;
    slot->setToUniChar = text;
    slot->setToRange = notFound;
}

bool adoptOwnText(CacheSlot* slot) noexcept
{
    const char16_t* text = CFStringGetCharactersPtr(slot->setToString.get());
    if (text)
        adoptText(slot, text);
    return text != nullptr;
}

bool bufferHoldsSubject(const ConversionBuffer* buffer, const CacheSlot* slot) noexcept
{
    return buffer->uniChar && buffer->string == slot->setToString && buffer->length == slot->setToLength
        && buffer->hash == slot->setToHash;
}

/// Makes the dynamic array as long as a text. Moved or freed, it takes the text of every slot with it.
bool resizeDynamicBuffer(CFIndex length)
{
    if (dynamicBuffer.uniChar)
        for (CacheSlot& slot : kfr_cacheSlots)
            if (slot.setToUniChar == dynamicBuffer.uniChar)
                setToNoText(&slot);
    void* const resized = reallocf(dynamicBuffer.uniChar, static_cast<std::size_t>(length) * sizeof(char16_t));
    dynamicBuffer.uniChar = static_cast<char16_t*>(resized);
    return resized != nullptr;
}

bool convertSubject(CacheSlot* slot, ConversionBuffer* buffer, Pending* exception)
{
    kfr_clearBuffer(buffer, false);
    if (slot->setToLength >= fixedBufferCapacity
        && (!KFR_REQUIRE(buffer == &dynamicBuffer, "buffer == &dynamicBuffer", exception)
            || !resizeDynamicBuffer(slot->setToLength)))
        return false;
    if (!KFR_REQUIRE(buffer->uniChar, "buffer->uniChar != ((void *)0)", exception)
        || !KFR_REQUIRE(!buffer->string, "buffer->string == ((void *)0)", exception))
        return false;
    CFStringGetCharacters(slot->setToString.get(), {0, slot->setToLength}, buffer->uniChar);
    buffer->string = slot->setToString;
    buffer->hash = slot->setToHash;
    buffer->length = slot->setToLength;
    slot->setToUniChar = buffer->uniChar;
    slot->setToRange = notFound;
    return true;
}

bool makeTextReady(CacheSlot* slot, Pending* exception)
{
    if (!slot->setToNeedsConversion) {
        if (adoptOwnText(slot))
            return true;
        slot->setToNeedsConversion = true;
    }
    ConversionBuffer* buffer = bufferForLength(slot->setToLength);
    if (bufferHoldsSubject(buffer, slot)) {
        // The array may have been moved since this slot last used it.
        adoptText(slot, buffer->uniChar);
        return true;
    }
    if (adoptOwnText(slot)) {
        slot->setToNeedsConversion = false;
        slot->setToRange = notFound;
        return true;
    }
    return convertSubject(slot, buffer, exception);
}

bool kfr_setCacheSlotToString(CacheSlot* slot, const NSRange* range, UErrorCode* status, Pending* exception)
{
    if (!KFR_REQUIRE(*range != notFound && slot->setToString,
            "(NSEqualRanges(NSNotFoundRange, *range) == NO) && (cacheSlot->setToString != NULL)", exception))
        return false;
    if (!makeTextReady(slot, exception))
        return false;
    if (*range == slot->setToRange)
        return true;
    if (!KFR_REQUIRE(slot->icu_regex && slot->setToUniChar && liesWithin(*range, slot->setToLength)
                && range->length <= static_cast<NSUInteger>(intMax),
            "(cacheSlot->icu_regex != NULL) && (cacheSlot->setToUniChar != NULL) && (NSMaxRange(*range) <= "
            "cacheSlot->setToLength) && (range->length <= INT_MAX)",
            exception))
        return false;
    slot->lastMatchRange = slot->lastFindRange = notFound;
    slot->setToRange = *range;
    uregex_setText(
        slot->icu_regex.get(), slot->setToUniChar + range->location, static_cast<std::int32_t>(range->length), status);
    if (U_SUCCESS(*status))
        return true;
    slot->setToRange = notFound; // or the next call would take this text for set
    return false;
}

/// Sets a slot to no text, unless told that it has one.
class NoTextUnlessKept {
public:
    explicit NoTextUnlessKept(CacheSlot* slot) noexcept : slot_(slot) { }
    ~NoTextUnlessKept()
    {
        if (slot_)
            setToNoText(slot_);
    }
    NoTextUnlessKept(const NoTextUnlessKept&) = delete;
    NoTextUnlessKept& operator=(const NoTextUnlessKept&) = delete;

    void keep() noexcept { slot_ = nullptr; }

private:
    CacheSlot* slot_;
};

/// Makes `matchString` the slot's subject. The text that ICU was set to before
/// is kept until ICU is set to another: setting it to nothing in between would
/// cost as much as the new text itself.
bool setSlotToNewString(CacheSlot* slot, const Ref<NSString>& matchString, CFIndex length, CFHashCode hash,
    const NSRange* range, UErrorCode* status, Pending* exception)
{
    const Ref<NSString> previous = std::exchange(slot->setToString, matchString);
    NoTextUnlessKept text(slot); // goes before `previous` does
    slot->setToUniChar = nullptr;
    slot->setToNeedsConversion = false; // unless its text turns out to be unreadable in place
    slot->setToIsImmutable = false;
    slot->setToHash = hash;
    slot->setToLength = length;
    slot->setToRange = notFound;
    if (!kfr_setCacheSlotToString(slot, range, status, exception))
        return false;
    text.keep();
    return true;
}

CacheSlot* kfr_getCachedRegexSetToString(const Ref<NSString>& regexString, std::uint32_t options,
    const Ref<NSString>& matchString, CFIndex* matchLengthPtr, NSRange* matchRange, Ref<NSError>* error,
    Pending* exception, UErrorCode* status)
{
    if (!exception || *exception)
        return nullptr;
    if (!KFR_REQUIRE(regexString && status && matchLengthPtr,
            "(regexString != ((void *)0)) && (exception != ((void *)0)) && (status != ((void *)0)) && "
            "(matchLengthPtr != ((void *)0))",
            exception))
        return nullptr;

    CacheSlot* slot = kfr_getCachedRegex(regexString, options, error, exception);
    if (!slot)
        return nullptr;
    if (!KFR_REQUIRE(slot->icu_regex && slot->regexString && slot->captureCount >= 0 && slot == lastCacheSlot,
            "(cacheSlot != ((void *)0)) && (cacheSlot->icu_regex != ((void *)0)) && (cacheSlot->regexString "
            "!= ((void *)0)) && (cacheSlot->captureCount >= 0L) && (cacheSlot == lastCacheSlot)",
            exception))
        return nullptr;

    const bool isSameObject = slot->setToString == matchString;
    const bool isTrusted = isSameObject && slot->setToIsImmutable;
    const CFIndex length = isTrusted ? slot->setToLength : CFStringGetLength(matchString.get());
    *matchLengthPtr = length;
    if (matchRange->length == upToTheEnd)
        matchRange->length = static_cast<NSUInteger>(length);
    if (!liesWithin(*matchRange, length) || length > longestText)
        return slot; // with no text: the caller has an exception to raise

    const CFHashCode hash = isTrusted ? slot->setToHash : CFHash(matchString);
    if (isSameObject && slot->setToLength == length && slot->setToHash == hash) {
        if (kfr_setCacheSlotToString(slot, matchRange, status, exception))
            return slot;
        constexpr NSInteger reportedLine = 749;
        storeFailure(exception, __func__, reportedLine, "Failed to set up UTF16 buffer.");
        return nullptr;
    }
    if (setSlotToNewString(slot, matchString, length, hash, matchRange, status, exception))
        return slot;
    constexpr NSInteger reportedLine = 766;
    storeFailure(exception, __func__, reportedLine, "Failed to set up UTF16 buffer.");
    return nullptr;
}

// Searching

/// A group of the current match in the subject; not found where it took no part or ICU fails.
NSRange rangeOfGroup(const CacheSlot* slot, std::int32_t group) noexcept
{
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t start = uregex_start(slot->icu_regex.get(), group, &status);
    const std::int32_t end = uregex_end(slot->icu_regex.get(), group, &status);
    if (U_FAILURE(status) || start < 0)
        return notFound;
    return {slot->setToRange.location + static_cast<NSUInteger>(start), static_cast<NSUInteger>(end - start)};
}

/// Where a search goes on that continues from the last match: behind it, and past an empty one.
NSUInteger continuation(const CacheSlot* slot) noexcept
{
    const NSUInteger end = endOf(slot->lastMatchRange);
    return slot->lastMatchRange.length == 0 && end < endOf(slot->setToRange) ? end + 1 : end;
}

bool isInside(NSRange inner, NSRange outer) noexcept
{
    return inner.location >= outer.location && endOf(inner) <= endOf(outer);
}

/// The first match in a range of the set text; not found where there is none.
/// Inlined: its frame is a measurable part of what the layer adds to a short match.
[[gnu::always_inline]] inline NSRange kfr_search(CacheSlot* slot, NSRange range, Pending* exception, UErrorCode* status)
{
    if (range == slot->lastFindRange)
        return slot->lastMatchRange;
    if (!KFR_REQUIRE(isInside(range, slot->setToRange)
                && range.location - slot->setToRange.location <= static_cast<NSUInteger>(intMax),
            "(NSRangeInsideRange(*searchRange, cacheSlot->setToRange)) && ((searchRange->location - "
            "cacheSlot->setToRange.location) <= INT_MAX)",
            exception))
        return notFound;

    const bool continues = slot->lastMatchRange.location != NSNotFound && range.location == continuation(slot);
    const auto start = static_cast<std::int32_t>(range.location - slot->setToRange.location);
    const bool matched =
        continues ? uregex_findNext(slot->icu_regex.get(), status) : uregex_find(slot->icu_regex.get(), start, status);
    const NSRange match = matched && U_SUCCESS(*status) ? rangeOfGroup(slot, 0) : notFound;
    if (match == notFound
        || !KFR_REQUIRE(
            isInside(match, range), "NSRangeInsideRange(cacheSlot->lastMatchRange, *searchRange)", exception))
        return slot->lastMatchRange = slot->lastFindRange = notFound;
    slot->lastFindRange = range;
    return slot->lastMatchRange = match;
}

NSRange rangeOfCapture(CacheSlot* slot, NSRange range, NSInteger capture, Pending* exception, UErrorCode* status)
{
    const NSRange match = kfr_search(slot, range, exception, status);
    return capture == 0 || match == notFound ? match : rangeOfGroup(slot, static_cast<std::int32_t>(capture));
}

// Finding all

constexpr CFIndex headroom(CFIndex captureCount) noexcept { return 4 * captureCount + 8; }

bool kfr_growFindRanges(const CacheSlot* slot, NSUInteger lastLocation, FindAll* findAll)
{
    const CFIndex grown = findAll->capacity + findAll->capacity / 2;
    const auto density = (static_cast<float>(lastLocation) + 1.0F) / (1.0F + static_cast<float>(findAll->found));
    const auto estimate = static_cast<CFIndex>(static_cast<float>(slot->setToLength) / density);
    const CFIndex capacity = (std::max(grown, estimate) + grown) / 2 + headroom(slot->captureCount) + 4;

    const std::size_t size = static_cast<std::size_t>(capacity) * sizeof(NSRange);
    const bool wasInScratch = findAll->ranges == *findAll->rangesScratchBuffer;
    void* const memory = *findAll->rangesScratchBuffer = reallocf(*findAll->rangesScratchBuffer, size);
    if (!memory) {
        findAll->ranges = nullptr;
        findAll->capacity = 0;
        findAll->size = 0;
        return false;
    }
    if (!wasInScratch)
        std::memcpy(memory, findAll->ranges, findAll->size);
    findAll->ranges = static_cast<NSRange*>(memory);
    findAll->capacity = capacity;
    findAll->size = size;
    return true;
}

void append(FindAll* findAll, NSRange range) noexcept { findAll->ranges[findAll->found++] = range; }

void appendGroups(const CacheSlot* slot, FindAll* findAll) noexcept
{
    const auto groups = static_cast<std::int32_t>(slot->captureCount);
    for (std::int32_t group = 1; group <= groups; ++group)
        append(findAll, rangeOfGroup(slot, group));
}

/// Appends the ranges of one match; `unmatched` is what lies between it and the match before.
bool appendMatch(
    const CacheSlot* slot, std::uint32_t code, NSRange match, NSRange unmatched, FindAll* findAll, Pending* exception)
{
    if (!KFR_REQUIRE(findAll->found + (slot->captureCount + 3) + 1 < findAll->capacity - 2,
            "findAll->found + (cacheSlot->captureCount + 3L) + 1L < findAll->capacity - 2L", exception))
        return false;
    switch (code) {
    case matchesOp:
        append(
            findAll, findAll->capture == 0 ? match : rangeOfGroup(slot, static_cast<std::int32_t>(findAll->capture)));
        return true;
    case splitOp:
        append(findAll, unmatched);
        appendGroups(slot, findAll);
        return true;
    case allCapturesOp:
    case firstCapturesOp:
        append(findAll, match);
        appendGroups(slot, findAll);
        return true;
    default:
        return storeFailure(exception, __func__, __LINE__, "Unknown regexOp.");
    }
}

bool hasRoomForMatch(const CacheSlot* slot, const FindAll* findAll) noexcept
{
    return findAll->found < findAll->capacity - headroom(slot->captureCount) - 4;
}

bool kfr_findRanges(CacheSlot* slot, std::uint32_t code, FindAll* findAll, Pending* exception, UErrorCode* status)
{
    const NSUInteger rangeEnd = endOf(findAll->findInRange);
    NSUInteger lastMatchEnd = findAll->findInRange.location;
    do {
        if (!hasRoomForMatch(slot, findAll) && !kfr_growFindRanges(slot, findAll->findInRange.location, findAll))
            return false;
        const NSRange match = kfr_search(slot, findAll->findInRange, exception, status);
        if (*exception || U_FAILURE(*status))
            return false;
        if (match == notFound)
            break;
        const NSRange unmatched{lastMatchEnd, match.location - lastMatchEnd};
        if (!appendMatch(slot, code, match, unmatched, findAll, exception))
            return false;
        lastMatchEnd = endOf(match);
        const NSUInteger next = continuation(slot);
        findAll->findInRange = {next, rangeEnd - next};
    } while (findAll->findInRange.length > 0 && findAll->found < findAll->findUpTo);
    if (code == splitOp && lastMatchEnd < rangeEnd)
        append(findAll, {lastMatchEnd, rangeEnd - lastMatchEnd});
    return true;
}

// Arrays

void KFRCFArrayRelease(const NSObject* value) { value->release(); }

/// The array takes over its values' references: none is added.
const CFArrayCallBacks kfr_transferOwnershipArrayCallBacks{
    nullptr, KFRCFArrayRelease, [](const NSObject* a, const NSObject* b) { return CFEqual(a, b); }};

/// Objects that are ours until an array takes them over.
class OwnedObjects {
public:
    explicit OwnedObjects(const NSObject** memory) noexcept : objects_(memory) { }
    ~OwnedObjects()
    {
        for (CFIndex i = taken_; i < count_; ++i)
            objects_[i]->release();
    }
    OwnedObjects(const OwnedObjects&) = delete;
    OwnedObjects& operator=(const OwnedObjects&) = delete;

    template <class T>
    void add(Ref<T> object) noexcept
    {
        objects_[count_++] = object.leak();
    }

    Ref<NSArray> takeNext(CFIndex count)
    {
        Ref<NSArray> array = CFArrayCreate(objects_ + taken_, count, &kfr_transferOwnershipArrayCallBacks);
        if (array)
            taken_ += count;
        return array;
    }

private:
    const NSObject** objects_;
    CFIndex count_ = 0;
    CFIndex taken_ = 0;
};

bool makeStrings(const Ref<NSString>& matchString, std::span<const NSRange> ranges, OwnedObjects& strings)
{
    const Ref<NSString> empty = NSString::string();
    for (const NSRange& range : ranges) {
        Ref<NSString> string = range.length == 0
            ? empty
            : CFStringCreateWithSubstring(
                matchString.get(), {static_cast<CFIndex>(range.location), static_cast<CFIndex>(range.length)});
        if (!string)
            return false;
        strings.add(std::move(string));
    }
    return true;
}

Ref<NSArray> makeArrayOfArrays(OwnedObjects& strings, CFIndex stringCount, CFIndex groupSize, StackSpace& stack,
    void*& arraysScratch, Pending* exception)
{
    if (!KFR_REQUIRE(
            stringCount % groupSize == 0, "(findAll->found % (cacheSlot->captureCount + 1L)) == 0L", exception))
        return nullptr;
    const CFIndex arrayCount = stringCount / groupSize;
    const auto memory = stack.take<const NSObject*>(arrayCount, arraysScratch);
    if (!memory)
        return nullptr;
    OwnedObjects arrays(memory);
    for (CFIndex i = 0; i < arrayCount; ++i) {
        Ref<NSArray> array = strings.takeNext(groupSize);
        if (!array)
            return nullptr;
        arrays.add(std::move(array));
    }
    return arrays.takeNext(arrayCount);
}

Ref<NSArray> kfr_makeArray(const CacheSlot* slot, std::uint32_t regexOp, const FindAll* findAll, Pending* exception)
{
    if (findAll->found == 0)
        return NSArray::array();
    StackSpace stack;
    const auto memory = stack.take<const NSObject*>(findAll->found, *findAll->stringsScratchBuffer);
    if (!memory)
        return nullptr;
    OwnedObjects strings(memory);
    if (!makeStrings(slot->setToString, {findAll->ranges, static_cast<std::size_t>(findAll->found)}, strings))
        return nullptr;
    if (!(regexOp & asSubarrays))
        return strings.takeNext(findAll->found);
    return makeArrayOfArrays(
        strings, findAll->found, slot->captureCount + 1, stack, *findAll->arraysScratchBuffer, exception);
}

[[gnu::noinline]] Ref<NSArray> findAllMatches(
    CacheSlot* slot, std::uint32_t regexOp, NSRange range, NSInteger capture, Pending* exception, UErrorCode* status)
{
    alignas(NSRange) std::byte ranges[rangesOnStack * sizeof(NSRange)]; // not cleared: 32 KB
    const ScratchRelease releaseAtTheEnd{3};
    const std::uint32_t code = regexOp & codeMask;
    FindAll findAll{reinterpret_cast<NSRange*>(ranges), rangesOnStack, sizeof ranges, 0,
        code == firstCapturesOp ? 1 : static_cast<CFIndex>(NSNotFound), capture, range, &scratchBuffer[0],
        &scratchBuffer[1], &scratchBuffer[2]};
    if (!kfr_findRanges(slot, code, &findAll, exception, status))
        return nullptr;
    return kfr_makeArray(slot, regexOp, &findAll, exception);
}

// Replacing

/// What one pass over all matches wrote, and would have written with room for it.
struct ReplaceAllCounts {
    CFIndex written = 0;
    CFIndex needed = 0;
    NSUInteger replaced = 0;
};

ReplaceAllCounts kfr_replaceAll(
    CacheSlot* slot, std::span<const char16_t> replacement, std::span<char16_t> result, UErrorCode* status)
{
    URegularExpression* const regex = slot->icu_regex.get();
    const auto replacementLength = static_cast<std::int32_t>(replacement.size());
    auto roomLeft = static_cast<std::int32_t>(result.size());
    char16_t* end = result.data();
    bool overflowed = false;
    ReplaceAllCounts counts;

    slot->lastMatchRange = slot->lastFindRange = notFound;
    uregex_reset(regex, 0, status);
    if (*status == U_INDEX_OUTOFBOUNDS_ERROR && slot->setToRange.length == 0)
        *status = U_ZERO_ERROR;
    while (uregex_findNext(regex, status)) {
        ++counts.replaced;
        counts.needed +=
            uregex_appendReplacement(regex, replacement.data(), replacementLength, &end, &roomLeft, status);
        if (*status == U_BUFFER_OVERFLOW_ERROR) {
            overflowed = true;
            *status = U_ZERO_ERROR; // a failed status would end the search, and the needed length be too small
        }
    }
    counts.needed += uregex_appendTail(regex, &end, &roomLeft, status);
    if (overflowed && U_SUCCESS(*status))
        *status = U_BUFFER_OVERFLOW_ERROR;
    counts.needed = std::min(counts.needed, intMax);
    counts.written = end - result.data();
    return counts;
}

/// The replacement's own UTF-16 text, else a copy; null where memory is exhausted.
const char16_t* textOfReplacement(const NSString* replacementString, CFIndex length, StackSpace& stack)
{
    if (const char16_t* text = CFStringGetCharactersPtr(replacementString))
        return text;
    char16_t* copy = stack.take<char16_t>(length, scratchBuffer[1]);
    if (copy)
        CFStringGetCharacters(replacementString, {0, length}, copy);
    return copy;
}

Ref<NSString> stringFromReplacement(const CacheSlot* slot, const char16_t* result, const ReplaceAllCounts& counts,
    CFIndex searchedLength, bool isInReceiver)
{
    if (counts.written == 0)
        return NSString::string();
    if (counts.written == searchedLength && counts.replaced == 0)
        return isInReceiver ? nullptr : CFStringCreateCopy(slot->setToString.get());
    return CFStringCreateWithCharacters(result, counts.written);
}

void forgetChangingSubject(CacheSlot* slot) noexcept
{
    kfr_clearBuffer(bufferForLength(slot->setToLength), false);
    kfr_clearCacheSlotSetTo(slot);
}

[[gnu::noinline]] Ref<NSString> kfr_replaceString(CacheSlot* slot, std::uint32_t regexOp,
    const NSString* replacementString, NSUInteger* replacedCount, Pending* exception, UErrorCode* status)
{
    const auto searchedLength = static_cast<CFIndex>(slot->setToRange.length);
    const CFIndex replacementLength = CFStringGetLength(replacementString);
    if (replacementLength >= intMax || searchedLength / 2 + replacementLength * 2 >= intMax) {
        storeException(exception, NSRangeException, "Replacement string length exceeds INT_MAX."_ns);
        return nullptr;
    }
    CFIndex capacity = searchedLength + searchedLength / 2 + replacementLength * 2 + 16;
    if (!KFR_REQUIRE(capacity > 0 && capacity < intMax,
            "(tempUniCharBufferU16Capacity > 0L) && (tempUniCharBufferU16Capacity < INT_MAX)", exception))
        return nullptr;

    StackSpace stack;
    auto result = stack.take<char16_t>(capacity, scratchBuffer[0]);
    const char16_t* replacement = result ? textOfReplacement(replacementString, replacementLength, stack) : nullptr;
    if (!replacement)
        return nullptr;
    const std::span replacementText(replacement, static_cast<std::size_t>(replacementLength));

    ReplaceAllCounts counts;
    for (bool isRetry = false;; isRetry = true) {
        counts = kfr_replaceAll(slot, replacementText, {result, static_cast<std::size_t>(capacity)}, status);
        if (!KFR_REQUIRE(counts.written <= capacity && counts.needed >= counts.written,
                "(resultU16Length <= tempUniCharBufferU16Capacity) && (needU16Capacity >= resultU16Length)", exception))
            return nullptr;
        if (counts.needed == intMax) {
            storeException(exception, NSInternalInconsistencyException, "Replaced string length exceeds INT_MAX."_ns);
            return nullptr;
        }
        if (*status != U_BUFFER_OVERFLOW_ERROR || isRetry)
            break;
        *status = U_ZERO_ERROR;
        capacity = counts.needed + 4;
        result = stack.take<char16_t>(capacity, scratchBuffer[0]);
        if (!result)
            return nullptr;
    }
    if (U_FAILURE(*status))
        return nullptr;

    const bool isInReceiver = (regexOp & inReceiver) != 0;
    Ref<NSString> string = stringFromReplacement(slot, result, counts, searchedLength, isInReceiver);
    if (!string)
        return nullptr;
    *replacedCount = counts.replaced;
    if (isInReceiver && counts.replaced > 0)
        forgetChangingSubject(slot);
    return string;
}

// The engine

void checkArguments(Method method, std::uint32_t code, const Ref<NSString>& regexString,
    const Ref<NSString>& matchString, const Ref<NSString>& replacementString)
{
    if (!regexString)
        raiseForMethod(method, NSInvalidArgumentException, "The regular expression argument is NULL.");
    if (!matchString)
        raiseForMethod(method, NSInternalInconsistencyException, "The match string argument is NULL.");
    if (code == replaceOp && !replacementString)
        raiseForMethod(method, NSInvalidArgumentException, "The replacement string argument is NULL.");
}

/// Prepares the exception of an argument that the subject or the pattern does not allow.
void checkAgainstSubject(
    const CacheSlot* slot, std::uint32_t code, NSRange range, CFIndex length, NSInteger capture, Pending* exception)
{
    if (!liesWithin(range, length))
        storeException(exception, NSRangeException, "Range or index out of bounds."_ns);
    else if (length > longestText)
        storeException(exception, NSRangeException, "String length exceeds INT_MAX."_ns);
    else if (slot && (code == rangeOp || code == matchesOp) && (capture < 0 || capture > slot->captureCount))
        storeException(exception, NSInvalidArgumentException, "The capture argument is not valid."_ns);
}

bool textIsCoherent(const CacheSlot* slot) noexcept
{
    if (!slot->setToNeedsConversion)
        return slot->setToUniChar == CFStringGetCharactersPtr(slot->setToString.get());
    const ConversionBuffer* buffer = bufferForLength(slot->setToLength);
    return buffer->hash == slot->setToHash && buffer->length == slot->setToLength
        && buffer->uniChar == slot->setToUniChar;
}

bool slotIsReady(const CacheSlot* slot, Pending* exception)
{
    return KFR_REQUIRE(slot->icu_regex && slot->regexString && slot->setToString && slot->setToUniChar
                   && liesWithin(slot->setToRange, slot->setToLength),
               "(cacheSlot->icu_regex != NULL) && (cacheSlot->regexString != NULL) && "
               "(cacheSlot->setToString != NULL) && (cacheSlot->setToUniChar != NULL) && "
               "(NSMaxRange(cacheSlot->setToRange) <= cacheSlot->setToLength)",
               exception)
        && KFR_REQUIRE(textIsCoherent(slot),
            "cacheSlot->setToUniChar == (cacheSlot->setToNeedsConversion ? buffer->uniChar : "
            "CFStringGetCharactersPtr(cacheSlot->setToString))",
            exception);
}

Ref<NSObject> dispatch(CacheSlot* slot, std::uint32_t regexOp, NSRange range, NSInteger capture,
    const Ref<NSString>& replacementString, RegexOpResult* result, Pending* exception, UErrorCode* status)
{
    switch (regexOp & codeMask) {
    case rangeOp:
        result->matchRange = rangeOfCapture(slot, range, capture, exception, status);
        return nullptr;
    case replaceOp:
        return kfr_replaceString(slot, regexOp, replacementString.get(), &result->replacedCount, exception, status);
    case splitOp:
    case matchesOp:
    case allCapturesOp:
    case firstCapturesOp:
        return findAllMatches(slot, regexOp, range, capture, exception, status);
    default:
        storeFailure(exception, __func__, __LINE__, "Unknown regexOp code.");
        return nullptr;
    }
}

Ref<NSObject> kfr_performRegexOp(Method method, std::uint32_t regexOp, const Ref<NSString>& regexString,
    std::uint32_t options, NSInteger capture, const Ref<NSString>& matchString, NSRange* matchRange,
    const Ref<NSString>& replacementString, Ref<NSError>* error, RegexOpResult* result)
{
    if (error)
        *error = nullptr;
    const std::uint32_t code = regexOp & codeMask;
    checkArguments(method, code, regexString, matchString, replacementString);

    Pending pending;
    Ref<NSError> compileError;
    Ref<NSObject> object;
    UErrorCode status = U_ZERO_ERROR;
    CacheLock lock;
    CFIndex length = 0;
    CacheSlot* slot = kfr_getCachedRegexSetToString(
        regexString, options, matchString, &length, matchRange, &compileError, &pending, &status);
    if (!slot)
        length = CFStringGetLength(matchString.get());
    if (matchRange->length == upToTheEnd)
        matchRange->length = static_cast<NSUInteger>(length);
    checkAgainstSubject(slot, code, *matchRange, length, capture, &pending);
    if (slot && U_SUCCESS(status) && !pending && slotIsReady(slot, &pending))
        object = dispatch(slot, regexOp, *matchRange, capture, replacementString, result, &pending, &status);
    lock.unlock();

    if (compileError && error)
        *error = compileError;
    else if (compileError)
        storePending(&pending, exceptionForCompileError(compileError));
    if (U_FAILURE(status) && !pending)
        pending = kfr_NSExceptionForRegex(regexString, options, nullptr, status);
    if (pending) {
        kfr_handleDelayedAssert(method, pending);
        return nullptr;
    }
    if ((regexOp & inReceiver) && object && result->replacedCount > 0)
        static_cast<NSMutableString*>(matchString.get())
            ->replaceCharactersInRange(*matchRange, Ref<NSString>::retain(static_cast<NSString*>(object.get())));
    if (status < U_ZERO_ERROR && !object && error)
        *error = errorForWarning(regexString, options, status);
    return object;
}

bool kfr_isRegexValid(Method method, const Ref<NSString>& regexString, std::uint32_t options,
    NSInteger* captureCountPtr, Ref<NSError>* error)
{
    if (error)
        *error = nullptr;
    *captureCountPtr = -1;
    if (!regexString)
        raiseForMethod(method, NSInvalidArgumentException, "The regular expression argument is NULL.");

    Pending pending;
    Ref<NSError> compileError;
    CacheLock lock;
    const CacheSlot* slot = kfr_getCachedRegex(regexString, options, &compileError, &pending);
    if (slot)
        *captureCountPtr = slot->captureCount;
    lock.unlock();

    if (error)
        *error = compileError;
    if (pending)
        kfr_handleDelayedAssert(method, pending);
    return slot != nullptr;
}

// What the categories' methods share

constexpr NSRange wholeString = kfr::wholeString;

NSRange findRange(const Ref<NSString>& receiver, const char* selector, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, NSInteger capture, Ref<NSError>* error)
{
    if (!receiver)
        return {};
    RegexOpResult result;
    kfr_performRegexOp(
        {receiver.get(), selector}, rangeOp, regex, options, capture, receiver, &range, nullptr, error, &result);
    return result.matchRange;
}

bool findsMatch(const Ref<NSString>& receiver, const char* selector, const Ref<NSString>& regex, std::uint32_t options,
    NSRange range, Ref<NSError>* error)
{
    return receiver && findRange(receiver, selector, regex, options, range, 0, error).location != NSNotFound;
}

Ref<NSString> findString(const Ref<NSString>& receiver, const char* selector, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, NSInteger capture, Ref<NSError>* error)
{
    if (!receiver)
        return nullptr;
    const NSRange found = findRange(receiver, selector, regex, options, range, capture, error);
    if (found == notFound)
        return nullptr;
    return CFStringCreateWithSubstring(
        receiver.get(), {static_cast<CFIndex>(found.location), static_cast<CFIndex>(found.length)});
}

Ref<NSArray> findArray(const Ref<NSString>& receiver, const char* selector, std::uint32_t regexOp,
    const Ref<NSString>& regex, std::uint32_t options, NSRange range, NSInteger capture, Ref<NSError>* error)
{
    if (!receiver)
        return nullptr;
    RegexOpResult result;
    Ref<NSObject> array = kfr_performRegexOp(
        {receiver.get(), selector}, regexOp, regex, options, capture, receiver, &range, nullptr, error, &result);
    return Ref<NSArray>::adopt(static_cast<NSArray*>(array.leak()));
}

Ref<NSString> replacedString(const Ref<NSString>& receiver, const char* selector, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    if (!receiver)
        return nullptr;
    RegexOpResult result;
    Ref<NSObject> string = kfr_performRegexOp(
        {receiver.get(), selector}, replaceOp, regex, options, 0, receiver, &range, replacement, error, &result);
    return Ref<NSString>::adopt(static_cast<NSString*>(string.leak()));
}

NSUInteger replaceInReceiver(const Ref<NSMutableString>& receiver, const char* selector, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    if (!receiver)
        return 0;
    RegexOpResult result;
    kfr_performRegexOp({receiver.get(), selector}, replaceOp | inReceiver, regex, options, 0, receiver, &range,
        replacement, error, &result);
    return result.replacedCount;
}

NSInteger countCaptures(Method method, const Ref<NSString>& regex, std::uint32_t options, Ref<NSError>* error)
{
    NSInteger count = 0;
    kfr_isRegexValid(method, regex, options, &count, error);
    return count;
}

bool isValid(const Ref<NSString>& receiver, const char* selector, std::uint32_t options, Ref<NSError>* error)
{
    NSInteger count = 0;
    return receiver && kfr_isRegexValid({receiver.get(), selector}, receiver, options, &count, error);
}

} // namespace

namespace KFRegexAdditions {

void clearStringCache()
{
    CacheLock lock;
    kfr_clearStringCache();
    lock.unlock();
}

void flushCachedRegexData(const Ref<NSString>& receiver)
{
    if (!receiver)
        return;
    const CFIndex length = CFStringGetLength(receiver.get());
    const CFHashCode hash = CFHash(receiver);
    CacheLock lock;
    for (CacheSlot& slot : kfr_cacheSlots)
        if (slot.setToString
            && (slot.setToString == receiver || (slot.setToLength == length && slot.setToHash == hash)))
            kfr_clearCacheSlotSetTo(&slot);
    ConversionBuffer* buffer = bufferForLength(length);
    if (buffer->string == receiver || (buffer->length == length && buffer->hash == hash))
        kfr_clearBuffer(buffer, false);
    lock.unlock();
}

NSInteger captureCountForRegex(const Ref<NSString>& regex)
{
    return countCaptures({nullptr, "captureCountForRegex:"}, regex, 0, nullptr);
}

NSInteger captureCountForRegex(const Ref<NSString>& regex, std::uint32_t options, Ref<NSError>* error)
{
    return countCaptures({nullptr, "captureCountForRegex:options:error:"}, regex, options, error);
}

NSInteger captureCount(const Ref<NSString>& receiver)
{
    return receiver ? countCaptures({receiver.get(), "captureCount"}, receiver, 0, nullptr) : 0;
}

NSInteger captureCountWithOptions(const Ref<NSString>& receiver, std::uint32_t options, Ref<NSError>* error)
{
    return receiver ? countCaptures({receiver.get(), "captureCountWithOptions:error:"}, receiver, options, error) : 0;
}

bool isRegexValid(const Ref<NSString>& receiver) { return isValid(receiver, "isRegexValid", 0, nullptr); }

bool isRegexValidWithOptions(const Ref<NSString>& receiver, std::uint32_t options, Ref<NSError>* error)
{
    return isValid(receiver, "isRegexValidWithOptions:error:", options, error);
}

Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findArray(receiver, "componentsSeparatedByRegex:", splitOp, regex, 0, wholeString, 0, nullptr);
}

Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findArray(receiver, "componentsSeparatedByRegex:range:", splitOp, regex, 0, range, 0, nullptr);
}

Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    return findArray(
        receiver, "componentsSeparatedByRegex:options:range:error:", splitOp, regex, options, range, 0, error);
}

bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findsMatch(receiver, "isMatchedByRegex:", regex, 0, wholeString, nullptr);
}

bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findsMatch(receiver, "isMatchedByRegex:inRange:", regex, 0, range, nullptr);
}

bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options, NSRange range,
    Ref<NSError>* error)
{
    return findsMatch(receiver, "isMatchedByRegex:options:inRange:error:", regex, options, range, error);
}

NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findRange(receiver, "rangeOfRegex:", regex, 0, wholeString, 0, nullptr);
}

NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture)
{
    return findRange(receiver, "rangeOfRegex:capture:", regex, 0, wholeString, capture, nullptr);
}

NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findRange(receiver, "rangeOfRegex:inRange:", regex, 0, range, 0, nullptr);
}

NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options, NSRange range,
    NSInteger capture, Ref<NSError>* error)
{
    return findRange(receiver, "rangeOfRegex:options:inRange:capture:error:", regex, options, range, capture, error);
}

Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findString(receiver, "stringByMatching:", regex, 0, wholeString, 0, nullptr);
}

Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture)
{
    return findString(receiver, "stringByMatching:capture:", regex, 0, wholeString, capture, nullptr);
}

Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findString(receiver, "stringByMatching:inRange:", regex, 0, range, 0, nullptr);
}

Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options,
    NSRange range, NSInteger capture, Ref<NSError>* error)
{
    return findString(
        receiver, "stringByMatching:options:inRange:capture:error:", regex, options, range, capture, error);
}

Ref<NSString> stringByReplacingOccurrencesOfRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement)
{
    return replacedString(
        receiver, "stringByReplacingOccurrencesOfRegex:withString:", regex, replacement, 0, wholeString, nullptr);
}

Ref<NSString> stringByReplacingOccurrencesOfRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement, NSRange range)
{
    return replacedString(
        receiver, "stringByReplacingOccurrencesOfRegex:withString:range:", regex, replacement, 0, range, nullptr);
}

Ref<NSString> stringByReplacingOccurrencesOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    return replacedString(receiver, "stringByReplacingOccurrencesOfRegex:withString:options:range:error:", regex,
        replacement, options, range, error);
}

Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findArray(receiver, "componentsMatchedByRegex:", matchesOp, regex, 0, wholeString, 0, nullptr);
}

Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture)
{
    return findArray(receiver, "componentsMatchedByRegex:capture:", matchesOp, regex, 0, wholeString, capture, nullptr);
}

Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findArray(receiver, "componentsMatchedByRegex:range:", matchesOp, regex, 0, range, 0, nullptr);
}

Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options,
    NSRange range, NSInteger capture, Ref<NSError>* error)
{
    return findArray(receiver, "componentsMatchedByRegex:options:range:capture:error:", matchesOp, regex, options,
        range, capture, error);
}

Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findArray(receiver, "captureComponentsMatchedByRegex:", firstCapturesOp, regex, 0, wholeString, 0, nullptr);
}

Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findArray(receiver, "captureComponentsMatchedByRegex:range:", firstCapturesOp, regex, 0, range, 0, nullptr);
}

Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    return findArray(receiver, "captureComponentsMatchedByRegex:options:range:error:", firstCapturesOp, regex, options,
        range, 0, error);
}

Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex)
{
    return findArray(receiver, "arrayOfCaptureComponentsMatchedByRegex:", allCapturesOp | asSubarrays, regex, 0,
        wholeString, 0, nullptr);
}

Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range)
{
    return findArray(receiver, "arrayOfCaptureComponentsMatchedByRegex:range:", allCapturesOp | asSubarrays, regex, 0,
        range, 0, nullptr);
}

Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    return findArray(receiver,
        "arrayOfCaptureComponentsMatchedByRegex:options:range:error:", allCapturesOp | asSubarrays, regex, options,
        range, 0, error);
}

NSUInteger replaceOccurrencesOfRegex(
    const Ref<NSMutableString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement)
{
    return replaceInReceiver(
        receiver, "replaceOccurrencesOfRegex:withString:", regex, replacement, 0, wholeString, nullptr);
}

NSUInteger replaceOccurrencesOfRegex(
    const Ref<NSMutableString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement, NSRange range)
{
    return replaceInReceiver(
        receiver, "replaceOccurrencesOfRegex:withString:range:", regex, replacement, 0, range, nullptr);
}

NSUInteger replaceOccurrencesOfRegex(const Ref<NSMutableString>& receiver, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error)
{
    return replaceInReceiver(receiver, "replaceOccurrencesOfRegex:withString:options:range:error:", regex, replacement,
        options, range, error);
}

} // namespace KFRegexAdditions
