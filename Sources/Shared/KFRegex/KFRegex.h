// Regular expressions on strings: matching, splitting, collecting, replacing.
//
// The categories NSString(KFRegexAdditions) and NSMutableString(KFRegexAdditions)
// over ICU's regular expressions. A process-wide cache keeps compiled patterns
// and the UTF-16 form of the text that each was last applied to, so that the
// same pattern, and the same text, are cheap to use again.
//
// Throughout:
// - `regex` is a pattern in ICU's syntax and `options` ICU's flags for
//   uregex_open, 0 for none.
// - `range` counts UTF-16 units of the receiver; kfr::wholeString means all of
//   it. A pattern sees nothing outside its range: "^" and "$" match at its ends.
// - `capture` is a group's number, 0 the whole match.
// - Results are new objects. Where there is none they are nil.
// - `error`, where not null, is set to nil or to what went wrong: the pattern
//   does not compile, or, with a negative code, ICU gave a warning instead of a
//   result. The result is then nil, {NSNotFound, 0}, NO or 0. Without `error` a
//   pattern that does not compile raises KFRICURegexException, but for those
//   methods that only ask about a pattern; a warning is dropped.
// - Any thread may call. A mutable string is not to change during a call.
// - A nil receiver gives nil, 0, {0, 0} or NO and nothing else happens.
//
// What is raised carries the receiver's class and the method in its reason:
// - NSInvalidArgumentException for a nil pattern or replacement and for a group
//   that the pattern does not have;
// - NSRangeException for a range past the end, for text or a pattern over
//   2147483646 units, and for a replacement of about half that length;
// - NSInternalInconsistencyException for a result of 2147483647 units or more;
// - KFRICURegexException where ICU gives up on a match or on a replacement's
//   text, for instance because its backtracking stack is full.
// With a reason of its own, NSInternalInconsistencyException tells that no
// memory was left for a text's UTF-16 form, that a text of over 1.4 thousand
// million units was to be replaced in, or that the layer is at fault.
//
// Where memory is exhausted otherwise, there is silently no result: nil,
// {NSNotFound, 0}, NO or 0, a mutable receiver unchanged. Only while an error or
// exception is being made, or a mutable receiver grows, std::bad_alloc passes.
#pragma once

#include "Foundation/NSArray.h"
#include "Foundation/NSError.h"
#include "Foundation/NSString.h"

#include <atomic>

/// Name of exceptions and domain of errors; the code is ICU's UErrorCode.
extern const Ref<NSString> KFRICURegexException;
extern const Ref<NSString> KFRICURegexErrorDomain;

/// Keys of the details of an exception or error: ICU's status and its name.
extern const Ref<NSString> KFRICURegexErrorCodeErrorKey;
extern const Ref<NSString> KFRICURegexErrorNameErrorKey;
/// Where the pattern is wrong: line, column, the text before and after. There
/// only where ICU tells the position.
extern const Ref<NSString> KFRICURegexLineErrorKey;
extern const Ref<NSString> KFRICURegexOffsetErrorKey;
extern const Ref<NSString> KFRICURegexPreContextErrorKey;
extern const Ref<NSString> KFRICURegexPostContextErrorKey;
/// The pattern and its options.
extern const Ref<NSString> KFRICURegexRegexErrorKey;
extern const Ref<NSString> KFRICURegexRegexOptionsErrorKey;

extern "C" {
/// How often an operation was found to have left the cache's lock in the wrong state.
extern std::atomic<NSUInteger> kfr_debugCacheSpinLockCount;
/// Called each time that happens; does nothing but count. A place for a breakpoint.
void kfr_debugCacheSpinLock();
}

namespace kfr {
inline constexpr NSRange wholeString{0, UINT64_MAX};
}

namespace KFRegexAdditions {

/// Drops every compiled pattern, every cached text and all scratch memory.
void clearStringCache();
/// Drops what is cached of the receiver's text. For a mutable string that was
/// changed so that neither its length nor its hash changed.
void flushCachedRegexData(const Ref<NSString>& receiver);

/// Number of capture groups of a pattern; -1 where it does not compile.
NSInteger captureCountForRegex(const Ref<NSString>& regex);
NSInteger captureCountForRegex(const Ref<NSString>& regex, std::uint32_t options, Ref<NSError>* error);
/// The same, with the receiver as the pattern.
NSInteger captureCount(const Ref<NSString>& receiver);
NSInteger captureCountWithOptions(const Ref<NSString>& receiver, std::uint32_t options, Ref<NSError>* error);

/// Whether the receiver compiles as a pattern.
bool isRegexValid(const Ref<NSString>& receiver);
bool isRegexValidWithOptions(const Ref<NSString>& receiver, std::uint32_t options, Ref<NSError>* error);

/// The pieces between matches (those of componentsMatchedByRegex); the pattern's
/// groups stand between the pieces. The first piece may be empty, the last never is.
Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
Ref<NSArray> componentsSeparatedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error);

/// Whether there is a match.
bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
bool isMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options, NSRange range,
    Ref<NSError>* error);

/// Where the first match, or a group of it, lies in the receiver; {NSNotFound, 0}
/// where there is no match or the group took no part in it.
NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture);
NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
NSRange rangeOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options, NSRange range,
    NSInteger capture, Ref<NSError>* error);

/// The text of the first match or of a group of it; nil where rangeOfRegex finds nothing.
Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex);
Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture);
Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
Ref<NSString> stringByMatching(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options,
    NSRange range, NSInteger capture, Ref<NSError>* error);

/// The text of `range` with each match replaced by `replacement`, in which "$1"
/// stands for a group and a backslash takes the next character as it is. Where
/// nothing matches, an immutable copy of the whole receiver, whatever the range.
Ref<NSString> stringByReplacingOccurrencesOfRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement);
Ref<NSString> stringByReplacingOccurrencesOfRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement, NSRange range);
Ref<NSString> stringByReplacingOccurrencesOfRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error);

/// The text of every match, or of one group of every match ("" where it took no
/// part). The search goes on behind each match, one unit further behind an empty
/// one, until that is the end of the range. What could match emptily at the very
/// end is therefore not always found: "x*" gives "" once in "a", and "b|$" gives
/// "b" in "ab" but "b" and "" in "ba".
Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSInteger capture);
Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
Ref<NSArray> componentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, std::uint32_t options,
    NSRange range, NSInteger capture, Ref<NSError>* error);

/// The first match: its text, then that of each group. Empty where nothing matches.
Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
Ref<NSArray> captureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error);

/// Every match of componentsMatchedByRegex as captureComponentsMatchedByRegex gives the first.
Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex);
Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(
    const Ref<NSString>& receiver, const Ref<NSString>& regex, NSRange range);
Ref<NSArray> arrayOfCaptureComponentsMatchedByRegex(const Ref<NSString>& receiver, const Ref<NSString>& regex,
    std::uint32_t options, NSRange range, Ref<NSError>* error);

/// Replaces each match within `range` in the receiver itself; the number of replacements.
NSUInteger replaceOccurrencesOfRegex(
    const Ref<NSMutableString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement);
NSUInteger replaceOccurrencesOfRegex(
    const Ref<NSMutableString>& receiver, const Ref<NSString>& regex, const Ref<NSString>& replacement, NSRange range);
NSUInteger replaceOccurrencesOfRegex(const Ref<NSMutableString>& receiver, const Ref<NSString>& regex,
    const Ref<NSString>& replacement, std::uint32_t options, NSRange range, Ref<NSError>* error);

}
