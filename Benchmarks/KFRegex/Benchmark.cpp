// Times of the regular expressions beside ICU alone and other libraries.
//
// Names are CASE/LIBRARY. "layer" is ours, "icu" ICU on an expression that is
// kept, "icu-open" ICU opened for each call as naive code does; the others are
// yardsticks, each on an expression that is kept and on text in its own form.

#include "RawICU.h"
#include "Subjects.h"

#include "Certificates/NSData+KeyfoldAdditions.h"
#include "Foundation/OSSpinLock.h"
#include "KFRegex/KFRegex.h"

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <mutex>
#include <regex>
#include <thread>

#if KEYFOLD_BENCH_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 16
#include <pcre2.h>
#endif
#if KEYFOLD_BENCH_RE2
#include <re2/re2.h>
#endif
#if KEYFOLD_BENCH_BOOST
#include <boost/regex.hpp>
#endif
#if KEYFOLD_BENCH_QT
#include <QRegularExpression>
#endif

using namespace KFRegexAdditions;
using benchmark::State;

namespace {

void require(State& state, bool condition)
{
    if (!condition)
        state.SkipWithError("wrong answer");
}

// What each library does: find the first match, or remove or list all.

struct Layer {
    using Text = Ref<NSString>;
    static Text text(const std::string& text) { return subjects::narrow(text); }
    explicit Layer(const std::string& pattern) : pattern_(subjects::narrow(pattern)) { }
    bool find(const Text& text) { return isMatchedByRegex(text, pattern_); }
    std::size_t remove(const Text& text)
    {
        return static_cast<std::size_t>(
            stringByReplacingOccurrencesOfRegex(text, pattern_, NSString::string())->length());
    }
    std::size_t split(const Text& text) { return countOf(componentsSeparatedByRegex(text, pattern_)); }
    std::size_t findAll(const Text& text) { return countOf(arrayOfCaptureComponentsMatchedByRegex(text, pattern_)); }

private:
    Ref<NSString> pattern_;
};

/// Ranges only: ICU makes no strings.
struct ICU {
    using Text = std::u16string;
    static Text text(const std::string& text) { return subjects::units(text); }
    explicit ICU(const std::string& pattern) : regex_(raw::open(pattern)) { }
    bool find(const Text& text) { return raw::match(regex_.get(), text); }
    std::size_t remove(const Text& text)
    {
        result_.resize(text.size() * 2);
        return static_cast<std::size_t>(raw::strip(regex_.get(), text, result_));
    }
    std::size_t split(const Text& text) { return raw::ranges(regex_.get(), text, 0, found_) + 1; }
    std::size_t findAll(const Text& text) { return raw::ranges(regex_.get(), text, 3, found_) / 4; }

private:
    raw::Regex regex_;
    std::vector<char16_t> result_;
    std::vector<std::pair<std::int32_t, std::int32_t>> found_;
};

struct ICUOpenedEachTime {
    using Text = std::u16string;
    static Text text(const std::string& text) { return subjects::units(text); }
    explicit ICUOpenedEachTime(const std::string& pattern) : pattern_(pattern) { }
    bool find(const Text& text) { return ICU(pattern_).find(text); }
    std::size_t remove(const Text& text) { return ICU(pattern_).remove(text); }
    std::size_t split(const Text& text) { return ICU(pattern_).split(text); }
    std::size_t findAll(const Text& text) { return ICU(pattern_).findAll(text); }

private:
    std::string pattern_;
};

/// std::regex and Boost.Regex have the same interface.
template <class Regex, class Match, class Iterator, class TokenIterator, auto search, auto replace>
struct StandardLike {
    using Text = std::string;
    static Text text(const std::string& text) { return text; }
    explicit StandardLike(const std::string& pattern) : regex_(pattern) { }
    bool find(const Text& text) { return search(text, regex_); }
    std::size_t remove(const Text& text) { return replace(text, regex_).size(); }
    std::size_t split(const Text& text)
    {
        std::vector<std::string> pieces(TokenIterator(text.begin(), text.end(), regex_, -1), TokenIterator());
        return pieces.size();
    }
    std::size_t findAll(const Text& text)
    {
        std::vector<std::vector<std::string>> matches;
        for (Iterator match(text.begin(), text.end(), regex_); match != Iterator(); ++match)
            matches.emplace_back(match->begin(), match->end());
        return matches.size();
    }

private:
    Regex regex_;
};

using Standard = StandardLike<std::regex, std::smatch, std::sregex_iterator, std::sregex_token_iterator,
    [](const std::string& text, const std::regex& regex) { return std::regex_search(text, regex); },
    [](const std::string& text, const std::regex& regex) { return std::regex_replace(text, regex, std::string()); }>;

#if KEYFOLD_BENCH_BOOST
using Boost = StandardLike<boost::regex, boost::smatch, boost::sregex_iterator, boost::sregex_token_iterator,
    [](const std::string& text, const boost::regex& regex) { return boost::regex_search(text, regex); },
    [](const std::string& text, const boost::regex& regex) {
        return boost::regex_replace(text, regex, std::string());
    }>;
#endif

#if KEYFOLD_BENCH_RE2
struct RE2Library {
    using Text = std::string;
    static Text text(const std::string& text) { return text; }
    explicit RE2Library(const std::string& pattern) : regex_("(" + pattern + ")") { }
    bool find(const Text& text) { return RE2::PartialMatch(text, regex_); }
    std::size_t remove(const Text& text)
    {
        Text result = text;
        RE2::GlobalReplace(&result, regex_, "");
        return result.size();
    }
    std::size_t split(const Text& text)
    {
        std::vector<std::string> pieces;
        re2::StringPiece rest(text);
        re2::StringPiece match;
        const char* start = text.data();
        while (RE2::FindAndConsume(&rest, regex_, &match)) {
            pieces.emplace_back(start, match.data());
            start = match.data() + match.size();
        }
        pieces.emplace_back(start, text.data() + text.size());
        return pieces.size();
    }
    std::size_t findAll(const Text& text)
    {
        std::vector<std::array<std::string, 4>> matches;
        re2::StringPiece rest(text);
        std::array<std::string, 4> groups;
        while (RE2::FindAndConsume(&rest, regex_, &groups[0], &groups[1], &groups[2], &groups[3]))
            matches.push_back(groups);
        return matches.size();
    }

private:
    RE2 regex_;
};
#endif

#if KEYFOLD_BENCH_QT
struct QtLibrary {
    using Text = QString;
    static Text text(const std::string& text) { return QString::fromStdString(text); }
    explicit QtLibrary(const std::string& pattern) : regex_(QString::fromStdString(pattern)) { regex_.optimize(); }
    bool find(const Text& text) { return regex_.match(text).hasMatch(); }
    std::size_t remove(const Text& text) { return static_cast<std::size_t>(QString(text).remove(regex_).size()); }
    std::size_t split(const Text& text) { return static_cast<std::size_t>(text.split(regex_).size()); }
    std::size_t findAll(const Text& text)
    {
        std::vector<QStringList> matches;
        for (auto match = regex_.globalMatch(text); match.hasNext();)
            matches.push_back(match.next().capturedTexts());
        return matches.size();
    }

private:
    QRegularExpression regex_;
};
#endif

#if KEYFOLD_BENCH_PCRE2
/// With its just-in-time compiler, on UTF-16; ranges only, as ICU.
struct PCRE2 {
    using Text = std::u16string;
    static Text text(const std::string& text) { return subjects::units(text); }
    explicit PCRE2(const std::string& pattern)
    {
        const std::u16string units = subjects::units(pattern);
        int error = 0;
        PCRE2_SIZE offset = 0;
        code_.reset(pcre2_compile(
            reinterpret_cast<PCRE2_SPTR>(units.data()), units.size(), PCRE2_UTF, &error, &offset, nullptr));
        pcre2_jit_compile(code_.get(), PCRE2_JIT_COMPLETE);
        match_.reset(pcre2_match_data_create_from_pattern(code_.get(), nullptr));
    }
    bool find(const Text& text) { return next(text, 0); }
    std::size_t remove(const Text& text)
    {
        std::u16string result(text.size() * 2, u'\0');
        PCRE2_SIZE length = result.size();
        pcre2_substitute(code_.get(), subject(text), text.size(), 0, PCRE2_SUBSTITUTE_GLOBAL, match_.get(), nullptr,
            reinterpret_cast<PCRE2_SPTR>(u""), 0, reinterpret_cast<PCRE2_UCHAR*>(result.data()), &length);
        return length;
    }
    std::size_t split(const Text& text) { return ranges(text, 0) + 1; }
    std::size_t findAll(const Text& text) { return ranges(text, 3) / 4; }

private:
    struct Free {
        void operator()(pcre2_code* code) const { pcre2_code_free(code); }
        void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
    };
    static PCRE2_SPTR subject(const Text& text) { return reinterpret_cast<PCRE2_SPTR>(text.data()); }
    bool next(const Text& text, std::size_t start)
    {
        return pcre2_match(code_.get(), subject(text), text.size(), start, PCRE2_NO_UTF_CHECK, match_.get(), nullptr)
            > 0;
    }
    std::size_t ranges(const Text& text, std::size_t groups)
    {
        found_.clear();
        for (std::size_t start = 0; next(text, start); start = pcre2_get_ovector_pointer(match_.get())[1])
            for (std::size_t group = 0; group <= groups; ++group)
                found_.emplace_back(pcre2_get_ovector_pointer(match_.get())[2 * group],
                    pcre2_get_ovector_pointer(match_.get())[2 * group + 1]);
        return found_.size();
    }
    std::unique_ptr<pcre2_code, Free> code_;
    std::unique_ptr<pcre2_match_data, Free> match_;
    std::vector<std::pair<std::size_t, std::size_t>> found_;
};
#endif

// The cases

template <class Library>
void match(State& state)
{
    Library library(subjects::matchPattern);
    const typename Library::Text texts[] = {
        Library::text(subjects::matchTexts[0]), Library::text(subjects::matchTexts[1])};
    for (std::size_t i = 0; auto _ : state)
        require(state, library.find(texts[++i & 1]));
}

template <class Library>
void matchRepeated(State& state)
{
    Library library(subjects::matchPattern);
    const typename Library::Text text = Library::text(subjects::matchTexts[0]);
    for (auto _ : state)
        require(state, library.find(text));
}

template <class Library>
void strip(State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    Library library(subjects::stripPattern);
    const typename Library::Text texts[] = {
        Library::text(subjects::base64Text(size, 0)), Library::text(subjects::base64Text(size, 1))};
    for (std::size_t i = 0; auto _ : state)
        require(state, library.remove(texts[++i & 1]) == size - size / 65);
}

template <class Library>
void split(State& state)
{
    constexpr int count = 10000;
    Library library(subjects::splitPattern);
    const typename Library::Text texts[] = {
        Library::text(subjects::fields(count, 'a')), Library::text(subjects::fields(count, 'b'))};
    for (std::size_t i = 0; auto _ : state)
        require(state, library.split(texts[++i & 1]) == count);
}

template <class Library>
void findAll(State& state)
{
    constexpr int count = 5000;
    Library library(subjects::findPattern);
    const typename Library::Text texts[] = {
        Library::text(subjects::assignments(count, 'a')), Library::text(subjects::assignments(count, 'b'))};
    for (std::size_t i = 0; auto _ : state)
        require(state, library.findAll(texts[++i & 1]) == count);
}

void decode(State& state)
{
    const Ref<NSString> texts[] = {
        subjects::narrow(subjects::base64Text(8192, 0)), subjects::narrow(subjects::base64Text(8192, 1))};
    for (std::size_t i = 0; auto _ : state)
        require(state, KeyfoldAdditions::dataWithBase64EncodedString(texts[++i & 1])->length() > 6000);
}
BENCHMARK(decode)->Name("decode 8 KB/layer");

// Locks

struct SpinLock {
    void lock() { OSSpinLockLock(&lock_); }
    void unlock() { OSSpinLockUnlock(&lock_); }
    OSSpinLock lock_ = OS_SPINLOCK_INIT;
};

template <class Lock>
void uncontended(State& state)
{
    Lock lock;
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
}

/// The same in a process that has a second thread, as the page's has.
template <class Lock>
void uncontendedOfTwoThreads(State& state)
{
    std::atomic<bool> done = false;
    std::thread other([&] { done.wait(false); });
    uncontended<Lock>(state);
    done = true;
    done.notify_one();
    other.join();
}

/// About a microsecond of work, however fast the clock is.
void workAMicrosecond()
{
    volatile std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < 500; ++i)
        sum = sum + i;
}

void work(State& state)
{
    for (auto _ : state)
        workAMicrosecond();
}
BENCHMARK(work)->Name("work inside the lock");

template <class Lock>
void contended(State& state)
{
    static Lock lock;
    for (auto _ : state) {
        lock.lock();
        workAMicrosecond();
        lock.unlock();
    }
}

BENCHMARK(uncontended<SpinLock>)->Name("lock, uncontended/layer");
BENCHMARK(uncontended<std::mutex>)->Name("lock, uncontended/std::mutex");
BENCHMARK(uncontendedOfTwoThreads<SpinLock>)->Name("lock, uncontended, second thread/layer");
BENCHMARK(uncontendedOfTwoThreads<std::mutex>)->Name("lock, uncontended, second thread/std::mutex");
BENCHMARK(contended<SpinLock>)->Name("lock, 8 threads/layer")->Threads(8)->UseRealTime();
BENCHMARK(contended<std::mutex>)->Name("lock, 8 threads/std::mutex")->Threads(8)->UseRealTime();

template <class Library>
[[maybe_unused]] void registerLibrary(const std::string& name)
{
    using benchmark::RegisterBenchmark;
    RegisterBenchmark(("match 40/" + name).c_str(), match<Library>);
    RegisterBenchmark(("match again/" + name).c_str(), matchRepeated<Library>);
    RegisterBenchmark(("strip 4 KB/" + name).c_str(), strip<Library>)->Arg(4096);
    RegisterBenchmark(("strip 1 MB/" + name).c_str(), strip<Library>)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
    RegisterBenchmark(("split 10,000/" + name).c_str(), split<Library>)->Unit(benchmark::kMicrosecond);
    RegisterBenchmark(("find all 5,000/" + name).c_str(), findAll<Library>)->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char** argv)
{
    registerLibrary<Layer>("layer");
    registerLibrary<ICU>("icu");
    registerLibrary<ICUOpenedEachTime>("icu-open");
    registerLibrary<Standard>("std::regex");
#if KEYFOLD_BENCH_BOOST
    registerLibrary<Boost>("boost");
#endif
#if KEYFOLD_BENCH_RE2
    registerLibrary<RE2Library>("re2");
#endif
#if KEYFOLD_BENCH_PCRE2
    registerLibrary<PCRE2>("pcre2-jit");
#endif
#if KEYFOLD_BENCH_QT
    registerLibrary<QtLibrary>("qt");
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
}
