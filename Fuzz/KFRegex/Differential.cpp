#include "Differential.h"

#include "Foundation/NSException.h"
#include "KFRegex/KFRegex.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unicode/regex.h>

using namespace KFRegexAdditions;

namespace fuzz {
namespace {

class Choices {
public:
    explicit Choices(std::span<const std::uint8_t> bytes) : bytes_(bytes) { }
    bool atEnd() const { return bytes_.empty(); }
    /// A number below `limit`; 0 once the bytes are used up.
    std::size_t below(std::size_t limit)
    {
        std::size_t value = 0;
        for (std::size_t reach = 1; reach < limit && !bytes_.empty(); reach *= 256) {
            value = value * 256 + bytes_.front();
            bytes_ = bytes_.subspan(1);
        }
        return value % limit;
    }
    bool once(std::size_t in) { return below(in) == in - 1; }
    template <class T, std::size_t size>
    T oneOf(const T (&values)[size])
    {
        return values[below(size)];
    }

private:
    std::span<const std::uint8_t> bytes_;
};

/// How large a history's texts are. The larger, the fewer unbounded repetitions
/// a pattern has: a search takes the length to that power.
struct Scale {
    std::size_t longestSubject;
    int repetitions;
};
constexpr Scale shortTexts{64, 2};
constexpr Scale longTexts{4200, 1};
constexpr Scale hugeTexts{46000, 0};

Scale chooseScale(Choices& choices)
{
    const std::size_t choice = choices.below(32);
    return choice < 27 ? shortTexts : choice < 31 ? longTexts : hugeTexts;
}

// Making patterns and texts

class PatternMaker {
public:
    PatternMaker(Choices& choices, int repetitions) : choices_(choices), repetitions_(repetitions) { }
    std::u16string make()
    {
        if (choices_.once(12))
            return garbage();
        return alternatives(0);
    }

private:
    std::u16string garbage()
    {
        constexpr char16_t odd[] = u"ab()[]{}|\\*+?^$.1,:<=!\u00E9\U0001F600";
        std::u16string text;
        // Without repetition: what is thrown together must not be catastrophic.
        for (std::size_t left = choices_.below(6); left > 0; --left) {
            const char16_t unit = odd[choices_.below(std::size(odd) - 1)];
            if (unit != u'*' && unit != u'+')
                text += unit;
        }
        return text;
    }
    std::u16string alternatives(int depth)
    {
        std::u16string text = sequence(depth);
        while (choices_.once(5))
            text += u'|' + sequence(depth);
        return text;
    }
    std::u16string sequence(int depth)
    {
        std::u16string text;
        for (std::size_t left = choices_.below(3) + 1; left > 0; --left)
            text += piece(depth);
        return text;
    }
    std::u16string piece(int depth)
    {
        static const std::u16string atoms[] = {u"a", u"b", u"c", u"ab", u".", u"\\w", u"\\s", u"[ab]", u"[^a]", u"\\d",
            u"\u00E9", u"\u2192", u"\U0001F600", u",", u"\\n"};
        static const std::u16string anchors[] = {
            u"^", u"$", u"\\b", u"\\A", u"\\Z", u"(?=a)", u"(?<=b)", u"(?!c)", u"\\1"};
        if (depth < 2 && choices_.once(3))
            return group(depth);
        if (choices_.once(8))
            return anchors[choices_.below(std::size(anchors))];
        return atoms[choices_.below(std::size(atoms))] + quantifier(true);
    }
    std::u16string group(int depth)
    {
        static const std::u16string openings[] = {u"(", u"(", u"(", u"(?:", u"(?<n>", u"(?i:", u"(?>"};
        return openings[choices_.below(std::size(openings))] + alternatives(depth + 1) + u")" + quantifier(false);
    }
    std::u16string quantifier(bool mayBeUnbounded)
    {
        static const std::u16string bounded[] = {u"", u"", u"", u"?", u"??", u"{1,2}", u"{0,1}"};
        static const std::u16string unbounded[] = {u"*", u"+", u"*?", u"+?", u"*+"};
        if (mayBeUnbounded && repetitions_ > 0 && choices_.once(3)) {
            --repetitions_;
            return unbounded[choices_.below(std::size(unbounded))];
        }
        return bounded[choices_.below(std::size(bounded))];
    }

    Choices& choices_;
    int repetitions_;
};

std::u16string makeText(Choices& choices, std::size_t longest)
{
    static const std::u16string parts[] = {u"a", u"b", u"c", u"ab", u" ", u"\n", u",", u"1", u"aab", u"\u00E9"};
    static const std::u16string wideParts[] = {u"\u2192", u"\U0001F600", u"\xD83D"};
    std::u16string text;
    const bool isWide = choices.once(3);
    for (std::size_t left = choices.below(24); left > 0; --left)
        text += isWide && choices.once(4) ? wideParts[choices.below(std::size(wideParts))]
                                          : parts[choices.below(std::size(parts))];
    if (longest > 64 && choices.once(2)) {
        // Up to and around the lengths where the buffers change; line breaks stop most patterns.
        const std::size_t edges[] = {2046, 2047, 2048, 2049, 3000, longest - 100};
        text.insert(choices.below(text.size() + 1), edges[choices.below(std::size(edges))], u'\n');
    }
    return text;
}

Ref<NSString> makeString(const std::u16string& text, bool prefersNarrow)
{
    const bool fits = std::all_of(text.begin(), text.end(), [](char16_t unit) { return unit <= 0xFF; });
    if (!prefersNarrow || !fits)
        return NSString::stringWithCharacters(text);
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    return NSString::stringWithLatin1(bytes);
}

std::u16string makeTemplate(Choices& choices)
{
    static const std::u16string parts[] = {u"", u"x", u"yy", u"$0", u"$1", u"\\$", u"\\\\", u"$9", u"$", u"${n}",
        u"\u2192", u"zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz"};
    std::u16string text;
    for (std::size_t left = choices.below(4); left > 0; --left)
        text += parts[choices.below(std::size(parts))];
    return text;
}

// What ICU says

using Texts = std::vector<std::u16string>;

struct Match {
    /// The groups' bounds, the whole match first; not found is {NSNotFound, 0}.
    std::vector<NSRange> groups;
};

constexpr NSRange none{NSNotFound, 0};

/// A pattern with a text, as ICU's C++ interface sees them.
class Oracle {
public:
    Oracle(const std::u16string& pattern, std::uint32_t options, const std::u16string& text)
        : text_(text.data(), static_cast<std::int32_t>(text.size()))
    {
        if (pattern.empty()) {
            status_ = U_ILLEGAL_ARGUMENT_ERROR; // as the C interface has it
            return;
        }
        UParseError parseError;
        pattern_.reset(
            icu::RegexPattern::compile(icu::UnicodeString(pattern.data(), static_cast<std::int32_t>(pattern.size())),
                options, parseError, status_));
        if (U_SUCCESS(status_))
            matcher_.reset(pattern_->matcher(text_, status_));
    }
    UErrorCode status() const { return status_; }
    std::int32_t groupCount() const { return matcher_->groupCount(); }
    void restart() { matcher_->reset(); }

    std::optional<Match> next(NSUInteger offset)
    {
        if (!matcher_->find(status_) || U_FAILURE(status_))
            return std::nullopt;
        Match match;
        for (std::int32_t group = 0; group <= groupCount(); ++group) {
            const std::int32_t start = matcher_->start(group, status_);
            const std::int32_t end = matcher_->end(group, status_);
            match.groups.push_back(start < 0
                    ? none
                    : NSRange{offset + static_cast<NSUInteger>(start), static_cast<NSUInteger>(end - start)});
        }
        return match;
    }

    /// Every match up to the end of the text, where an empty one counts only as the first.
    std::vector<Match> all(NSUInteger offset)
    {
        restart();
        std::vector<Match> matches;
        const NSUInteger textEnd = offset + static_cast<NSUInteger>(text_.length());
        for (NSUInteger position = offset; matches.empty() || position < textEnd;) {
            const std::optional<Match> match = next(offset);
            if (!match)
                break;
            matches.push_back(*match);
            const NSUInteger end = match->groups[0].location + match->groups[0].length;
            position = match->groups[0].length == 0 ? end + 1 : end;
        }
        return matches;
    }

    std::u16string replaceAll(const std::u16string& replacement)
    {
        restart();
        const icu::UnicodeString result = matcher_->replaceAll(
            icu::UnicodeString(replacement.data(), static_cast<std::int32_t>(replacement.size())), status_);
        return {result.getBuffer(), static_cast<std::size_t>(result.length())};
    }

    NSUInteger countMatches()
    {
        restart();
        NSUInteger count = 0;
        while (matcher_->find(status_) && U_SUCCESS(status_))
            ++count;
        return count;
    }

private:
    UErrorCode status_ = U_ZERO_ERROR;
    icu::UnicodeString text_;
    std::unique_ptr<icu::RegexPattern> pattern_;
    std::unique_ptr<icu::RegexMatcher> matcher_;
};

// Comparing

std::string show(const std::u16string& text)
{
    std::string shown;
    for (const char16_t unit : text.substr(0, 200)) {
        char buffer[8];
        std::snprintf(buffer, sizeof buffer, unit >= 32 && unit < 127 ? "%c" : "\\u%04x", unit);
        shown += buffer;
    }
    return shown + (text.size() > 200 ? "... (" + std::to_string(text.size()) + ")" : "");
}
std::string show(NSRange range)
{
    return "{" + std::to_string(range.location) + ", " + std::to_string(range.length) + "}";
}
std::string show(NSUInteger number) { return std::to_string(number); }
std::string show(const Texts& texts)
{
    std::string shown = std::to_string(texts.size()) + ":";
    for (std::size_t i = 0; i < std::min<std::size_t>(texts.size(), 20); ++i)
        shown += " <" + show(texts[i]) + ">";
    return shown;
}

Texts textsOf(const Ref<NSArray>& array)
{
    Texts texts;
    if (!array)
        return {u"(nil)"};
    for (NSUInteger i = 0; i < array->count(); ++i) {
        if (const Ref<NSArray> inner = array->objectAs<NSArray>(i)) {
            const Texts members = textsOf(inner);
            texts.insert(texts.end(), members.begin(), members.end());
            texts.push_back(u"(end of array)");
        } else {
            texts.push_back(array->objectAs<NSString>(i)->characters());
        }
    }
    return texts;
}

std::u16string textOf(const Ref<NSString>& string) { return string ? string->characters() : u"(nil)"; }

/// One call: its arguments and ICU's view of them.
class Call {
public:
    Call(const Ref<NSString>& subject, const Ref<NSString>& pattern, std::uint32_t options, NSRange range,
        NSInteger capture, bool asksForError)
        : subject_(subject), pattern_(pattern), text_(subject->characters()), options_(options), capture_(capture),
          asksForError_(asksForError), range_(range)
    {
        if (range.length == UINT64_MAX)
            range_.length = text_.size();
        isInside_ = range_.location <= text_.size() && range_.length <= text_.size() - range_.location;
        givenRange_ = range;
        if (isInside_)
            searched_ = text_.substr(range_.location, range_.length);
        oracle_ = std::make_unique<Oracle>(pattern->characters(), options, searched_);
    }

    void rangeOf()
    {
        attempt("rangeOfRegex", true, [&] {
            const NSRange found = rangeOfRegex(subject_, pattern_, options_, givenRange_, capture_, error());
            const std::optional<Match> match = oracle_->next(range_.location);
            expectEqual(found, match ? match->groups[static_cast<std::size_t>(capture_)] : none);
        });
    }
    void stringBy()
    {
        attempt("stringByMatching", true, [&] {
            const Ref<NSString> found = stringByMatching(subject_, pattern_, options_, givenRange_, capture_, error());
            const std::optional<Match> match = oracle_->next(range_.location);
            expectEqual(textOf(found),
                !match || match->groups[static_cast<std::size_t>(capture_)] == none
                    ? u"(nil)"
                    : part(match->groups[static_cast<std::size_t>(capture_)]));
        });
    }
    void isMatched()
    {
        attempt("isMatchedByRegex", false, [&] {
            const bool found = isMatchedByRegex(subject_, pattern_, options_, givenRange_, error());
            expectEqual(NSUInteger{found}, NSUInteger{oracle_->next(0).has_value()});
        });
    }
    void separate()
    {
        attempt("componentsSeparatedByRegex", false, [&] {
            const Texts found = textsOf(componentsSeparatedByRegex(subject_, pattern_, options_, givenRange_, error()));
            Texts expected;
            NSUInteger last = range_.location;
            for (const Match& match : oracle_->all(range_.location)) {
                expected.push_back(part({last, match.groups[0].location - last}));
                for (std::size_t group = 1; group < match.groups.size(); ++group)
                    expected.push_back(part(match.groups[group]));
                last = match.groups[0].location + match.groups[0].length;
            }
            if (last < range_.location + range_.length)
                expected.push_back(part({last, range_.location + range_.length - last}));
            expectEqual(found, expected);
        });
    }
    void matches()
    {
        attempt("componentsMatchedByRegex", true, [&] {
            const Texts found =
                textsOf(componentsMatchedByRegex(subject_, pattern_, options_, givenRange_, capture_, error()));
            Texts expected;
            for (const Match& match : oracle_->all(range_.location))
                expected.push_back(part(match.groups[static_cast<std::size_t>(capture_)]));
            expectEqual(found, expected);
        });
    }
    void firstCaptures()
    {
        attempt("captureComponentsMatchedByRegex", false, [&] {
            const Texts found =
                textsOf(captureComponentsMatchedByRegex(subject_, pattern_, options_, givenRange_, error()));
            Texts expected;
            if (const std::optional<Match> match = oracle_->next(range_.location))
                for (const NSRange& group : match->groups)
                    expected.push_back(part(group));
            expectEqual(found, expected);
        });
    }
    void allCaptures()
    {
        attempt("arrayOfCaptureComponentsMatchedByRegex", false, [&] {
            const Texts found =
                textsOf(arrayOfCaptureComponentsMatchedByRegex(subject_, pattern_, options_, givenRange_, error()));
            Texts expected;
            for (const Match& match : oracle_->all(range_.location)) {
                for (const NSRange& group : match.groups)
                    expected.push_back(part(group));
                expected.push_back(u"(end of array)");
            }
            expectEqual(found, expected);
        });
    }
    void replace(const Ref<NSString>& replacement)
    {
        template_ = replacement->characters();
        attempt("stringByReplacingOccurrencesOfRegex", false, [&] {
            const Ref<NSString> found =
                stringByReplacingOccurrencesOfRegex(subject_, pattern_, replacement, options_, givenRange_, error());
            const std::u16string expected = oracle_->replaceAll(template_);
            // Where nothing is replaced the whole subject comes back, except for an empty range.
            const bool isCopy = oracle_->countMatches() == 0 && !searched_.empty();
            expectEqual(textOf(found), isCopy ? text_ : expected);
        });
    }
    void replaceInPlace(const Ref<NSMutableString>& receiver, const Ref<NSString>& replacement)
    {
        template_ = replacement->characters();
        attempt("replaceOccurrencesOfRegex", false, [&] {
            const NSUInteger count =
                replaceOccurrencesOfRegex(receiver, pattern_, replacement, options_, givenRange_, error());
            const std::u16string expected = oracle_->replaceAll(template_);
            expectEqual(count, oracle_->countMatches());
            expectEqual(textOf(receiver),
                text_.substr(0, range_.location) + expected + text_.substr(range_.location + range_.length));
        });
    }

private:
    Ref<NSError>* error() { return asksForError_ ? &error_ : nullptr; }
    std::u16string part(NSRange range) const
    {
        return range == none ? std::u16string() : text_.substr(range.location, range.length);
    }

    /// Runs a call and its comparison, or expects the failure that is due.
    template <class Run>
    void attempt(const char* name, bool takesCapture, Run run)
    {
        name_ = name;
        const bool compiles = U_SUCCESS(oracle_->status());
        const bool wrongCapture = takesCapture && compiles && (capture_ < 0 || capture_ > oracle_->groupCount());
        const std::string due = !isInside_ ? "NSRangeException"
            : wrongCapture                 ? "NSInvalidArgumentException"
            : compiles || asksForError_    ? ""
                                           : "KFRICURegexException";
        if (!compiles && due.empty()) {
            attemptWithBadPattern(name);
            return;
        }
        std::string raised;
        try {
            if (due.empty())
                run();
            else
                provoke(name);
        } catch (const NSRaisedException& exception) {
            raised = toUTF8(exception.exception()->name());
        }
        // A template or a match that ICU gives up on shows in both.
        if (due.empty() && U_FAILURE(oracleStatusAfter()))
            expectRaised(raised, "KFRICURegexException");
        else
            expectRaised(raised, due);
    }
    UErrorCode oracleStatusAfter()
    {
        if (U_SUCCESS(oracle_->status()) && template_.find(u'$') != std::u16string::npos)
            oracle_->replaceAll(template_);
        return oracle_->status();
    }
    void attemptWithBadPattern(const char* name)
    {
        provoke(name);
        if (!error_)
            fail("no error", "an error");
        if (error_->code() != oracle_->status())
            fail(std::to_string(error_->code()), std::to_string(oracle_->status()));
    }
    /// Makes the call for its failure alone.
    void provoke(const std::string& name)
    {
        if (name == "componentsMatchedByRegex")
            componentsMatchedByRegex(subject_, pattern_, options_, givenRange_, capture_, error());
        else if (name == "componentsSeparatedByRegex")
            componentsSeparatedByRegex(subject_, pattern_, options_, givenRange_, error());
        else if (name == "stringByReplacingOccurrencesOfRegex" || name == "replaceOccurrencesOfRegex")
            stringByReplacingOccurrencesOfRegex(subject_, pattern_, NSString::string(), options_, givenRange_, error());
        else
            rangeOfRegex(subject_, pattern_, options_, givenRange_, capture_, error());
    }

    template <class T>
    void expectEqual(const T& found, const T& expected)
    {
        if (U_SUCCESS(oracle_->status()) && found != expected)
            fail(show(found), show(expected));
    }
    void expectRaised(const std::string& raised, const std::string& due)
    {
        if (raised != due)
            fail("raised \"" + raised + "\"", "raised \"" + due + "\"");
    }
    [[noreturn]] void fail(const std::string& found, const std::string& expected) const
    {
        throw Mismatch(std::string(name_) + ", pattern <" + show(pattern_->characters()) + ">, options "
            + std::to_string(options_) + ", subject <" + show(text_) + ">, range " + show(givenRange_) + ", capture "
            + std::to_string(capture_) + ", template <" + show(template_) + ">:\n  found    " + found + "\n  expected "
            + expected);
    }

    const char* name_ = "";
    Ref<NSString> subject_;
    Ref<NSString> pattern_;
    std::u16string text_;
    std::uint32_t options_;
    NSInteger capture_;
    bool asksForError_;
    NSRange range_;
    NSRange givenRange_;
    bool isInside_ = false;
    std::u16string searched_;
    std::u16string template_;
    Ref<NSError> error_;
    std::unique_ptr<Oracle> oracle_;
};

// A history

class History {
public:
    explicit History(std::span<const std::uint8_t> choices) : choices_(choices), scale_(chooseScale(choices_))
    {
        for (std::size_t left = choices_.below(6) + 1; left > 0; --left)
            patterns_.push_back(newString(PatternMaker(choices_, scale_.repetitions).make()));
        for (std::size_t left = choices_.below(4) + 1; left > 0; --left)
            subjects_.push_back(newString(makeText(choices_, scale_.longestSubject)));
    }

    int run()
    {
        int calls = 0;
        for (; !choices_.atEnd(); ++calls)
            step();
        return calls;
    }

private:
    Ref<NSString> newString(const std::u16string& text)
    {
        const Ref<NSString> string = makeString(text, !choices_.once(3));
        return choices_.once(3) ? Ref<NSString>(NSMutableString::stringWithString(string)) : string;
    }

    void step()
    {
        Ref<NSString>& subject = subjects_[choices_.below(subjects_.size())];
        switch (choices_.below(16)) {
        case 0:
            subject = newString(makeText(choices_, scale_.longestSubject));
            return;
        case 1:
            change(subject);
            return;
        case 2:
            if (choices_.once(4))
                clearStringCache();
            else
                flushCachedRegexData(subject);
            return;
        case 3:
            patterns_[choices_.below(patterns_.size())] = newString(PatternMaker(choices_, scale_.repetitions).make());
            return;
        default:
            call(subject);
        }
    }

    void change(const Ref<NSString>& subject)
    {
        const Ref<NSMutableString> receiver = refCast<NSMutableString>(subject);
        if (!receiver)
            return;
        const auto length = static_cast<NSUInteger>(receiver->length());
        const NSUInteger location = choices_.below(length + 1);
        const NSUInteger replaced = choices_.below(std::min<NSUInteger>(length - location, 4) + 1);
        receiver->replaceCharactersInRange({location, replaced}, newString(makeText(choices_, 64)));
    }

    void call(const Ref<NSString>& subject)
    {
        constexpr std::uint32_t optionWords[] = {0, 0, 0, UREGEX_CASE_INSENSITIVE, UREGEX_MULTILINE, UREGEX_DOTALL,
            UREGEX_LITERAL, UREGEX_COMMENTS, UREGEX_UWORD};
        Ref<NSString> pattern = patterns_[choices_.below(patterns_.size())];
        if (choices_.once(4))
            pattern = NSString::stringWithCharacters(pattern->characters()); // equal, but another object
        std::uint32_t options = choices_.oneOf(optionWords);
        if (scale_.repetitions > 0 && scale_.longestSubject > 64 && options == UREGEX_DOTALL)
            options = 0; // line breaks must go on stopping dots
        const NSInteger capture = choices_.once(3) ? static_cast<NSInteger>(choices_.below(5)) - 1 : 0;
        Call call(subject, pattern, options, range(subject), capture, choices_.once(2));
        const Ref<NSMutableString> receiver = refCast<NSMutableString>(subject);
        const std::size_t operation = choices_.below(9);
        switch (operation) {
        case 0:
            return call.rangeOf();
        case 1:
            return call.stringBy();
        case 2:
            return call.isMatched();
        case 3:
            return call.separate();
        case 4:
            return call.matches();
        case 5:
            return call.firstCaptures();
        case 6:
            return call.allCaptures();
        default:
            const Ref<NSString> replacement = newString(makeTemplate(choices_));
            // A text that doubles again and again would soon fill the memory.
            if (operation == 8 && receiver && receiver->length() < static_cast<CFIndex>(scale_.longestSubject) * 2)
                return call.replaceInPlace(receiver, replacement);
            return call.replace(replacement);
        }
    }

    NSRange range(const Ref<NSString>& subject)
    {
        const auto length = static_cast<NSUInteger>(subject->length());
        if (choices_.below(3) != 0)
            return kfr::wholeString;
        const NSUInteger location = choices_.below(length + (choices_.once(8) ? 2 : 1));
        const NSUInteger left = length > location ? length - location : 0;
        return {location, choices_.below(left + (choices_.once(8) ? 3 : 1))};
    }

    Choices choices_;
    Scale scale_;
    std::vector<Ref<NSString>> patterns_;
    std::vector<Ref<NSString>> subjects_;
};

} // namespace

int runHistory(std::span<const std::uint8_t> choices) { return History(choices).run(); }

} // namespace fuzz
