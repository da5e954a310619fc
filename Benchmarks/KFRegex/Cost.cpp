// Runs one case so many times; instructions.sh counts what a run costs.

#include "RawICU.h"
#include "Subjects.h"

#include "Certificates/NSData+KeyfoldAdditions.h"
#include "KFRegex/KFRegex.h"
#include "Security/ScopedOpenSSL.h"

#include <array>
#include <cstdio>
#include <functional>
#include <map>

using namespace KFRegexAdditions;

namespace {

using Case = std::function<void(int iteration)>;
/// Makes what the case needs, once.
using Maker = std::function<Case()>;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

struct Texts {
    explicit Texts(const std::string& first, const std::string& second)
        : units{subjects::units(first), subjects::units(second)},
          narrow{subjects::narrow(first), subjects::narrow(second)}, wide{subjects::wide(first), subjects::wide(second)}
    {
    }
    std::u16string units[2];
    Ref<NSString> narrow[2];
    Ref<NSString> wide[2];
};

template <class Run>
Case with(const std::string& first, const std::string& second, Run run)
{
    return [texts = Texts(first, second), run](int i) mutable { run(texts, i & 1); };
}

Case rawMatch()
{
    return with(subjects::matchTexts[0], subjects::matchTexts[1],
        [regex = std::shared_ptr(raw::open(subjects::matchPattern))](
            const Texts& texts, int i) { require(raw::match(regex.get(), texts.units[i])); });
}

Case rawMatchOpeningEachTime()
{
    return with(subjects::matchTexts[0], subjects::matchTexts[1], [](const Texts& texts, int i) {
        require(raw::match(raw::open(subjects::matchPattern).get(), texts.units[i]));
    });
}

Case matchWide()
{
    return with(subjects::matchTexts[0], subjects::matchTexts[1],
        [pattern = subjects::narrow(subjects::matchPattern)](
            const Texts& texts, int i) { require(isMatchedByRegex(texts.wide[i], pattern)); });
}

/// Two equal patterns in turn: none is the last slot's by identity.
Case matchNarrowByHash()
{
    return with(subjects::matchTexts[0], subjects::matchTexts[1],
        [patterns = std::array{subjects::narrow(subjects::matchPattern), subjects::narrow(subjects::matchPattern)}](
            const Texts& texts, int i) {
            require(isMatchedByRegex(texts.narrow[i], patterns[static_cast<std::size_t>(i)]));
        });
}

Case matchRepeated()
{
    return with(subjects::matchTexts[0], subjects::matchTexts[1],
        [pattern = subjects::narrow(subjects::matchPattern)](
            const Texts& texts, int) { require(isMatchedByRegex(texts.wide[0], pattern)); });
}

Case rawStrip(std::size_t size)
{
    return with(subjects::base64Text(size, 0), subjects::base64Text(size, 1),
        [regex = std::shared_ptr(raw::open(subjects::stripPattern)), result = std::vector<char16_t>(size * 2)](
            const Texts& texts, int i) mutable { require(raw::strip(regex.get(), texts.units[i], result) > 0); });
}

Case strip(std::size_t size)
{
    return with(subjects::base64Text(size, 0), subjects::base64Text(size, 1),
        [pattern = subjects::narrow(subjects::stripPattern), nothing = NSString::string()](const Texts& texts, int i) {
            require(stringByReplacingOccurrencesOfRegex(texts.narrow[i], pattern, nothing)->length() > 0);
        });
}

/// Text that was never seen before: its hash has to be computed.
Case stripFresh(std::size_t size)
{
    return [text = subjects::base64Text(size), pattern = subjects::narrow(subjects::stripPattern)](int) {
        require(stringByReplacingOccurrencesOfRegex(subjects::narrow(text), pattern, NSString::string())->length() > 0);
    };
}

Case makeFresh(std::size_t size)
{
    return [text = subjects::base64Text(size)](int) { require(subjects::narrow(text)->length() > 0); };
}

constexpr int fieldCount = 10000;

Case rawSplit()
{
    return with(subjects::fields(fieldCount, 'a'), subjects::fields(fieldCount, 'b'),
        [regex = std::shared_ptr(raw::open(subjects::splitPattern)),
            found = std::vector<std::pair<std::int32_t, std::int32_t>>(fieldCount)](const Texts& texts, int i) mutable {
            require(raw::ranges(regex.get(), texts.units[i], 0, found) == fieldCount - 1);
        });
}

Case split()
{
    return with(subjects::fields(fieldCount, 'a'), subjects::fields(fieldCount, 'b'),
        [pattern = subjects::narrow(subjects::splitPattern)](const Texts& texts, int i) {
            require(countOf(componentsSeparatedByRegex(texts.narrow[i], pattern)) == fieldCount);
        });
}

constexpr int matchCount = 5000;
constexpr auto rangeCount = std::size_t{matchCount} * 4;

Case rawFindAll()
{
    return with(subjects::assignments(matchCount, 'a'), subjects::assignments(matchCount, 'b'),
        [regex = std::shared_ptr(raw::open(subjects::findPattern)),
            found = std::vector<std::pair<std::int32_t, std::int32_t>>(rangeCount)](const Texts& texts, int i) mutable {
            require(raw::ranges(regex.get(), texts.units[i], 3, found) == rangeCount);
        });
}

Case findAll()
{
    return with(subjects::assignments(matchCount, 'a'), subjects::assignments(matchCount, 'b'),
        [pattern = subjects::narrow(subjects::findPattern)](const Texts& texts, int i) {
            require(countOf(arrayOfCaptureComponentsMatchedByRegex(texts.narrow[i], pattern)) == matchCount);
        });
}

constexpr std::size_t decodedSize = 8192;

Case decode()
{
    return with(
        subjects::base64Text(decodedSize, 0), subjects::base64Text(decodedSize, 1), [](const Texts& texts, int i) {
            require(KeyfoldAdditions::dataWithBase64EncodedString(texts.narrow[i])->length() > 6000);
        });
}

/// OpenSSL's filter alone, on text without line breaks, into memory that is there.
Case filter()
{
    std::string text = subjects::base64Text(decodedSize);
    std::erase(text, '\n');
    text.resize(text.size() / 4 * 4);
    return [text, result = std::vector<unsigned char>(decodedSize)](int) mutable {
        kf::ScopedBIOChain chain(BIO_new(BIO_f_base64()));
        BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
        BIO_push(chain.get(), BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        std::size_t length = 0;
        for (int count; (count = BIO_read(chain.get(), result.data() + length, 512)) > 0;)
            length += static_cast<std::size_t>(count);
        require(length > 6000);
    };
}

const std::map<std::string, Maker>& cases()
{
    static const std::map<std::string, Maker> all = {
        {"raw-match", rawMatch},
        {"open-match", rawMatchOpeningEachTime},
        {"match-wide", matchWide},
        {"match-narrow-hash", matchNarrowByHash},
        {"match-repeated", matchRepeated},
        {"raw-strip-4k", [] { return rawStrip(4096); }},
        {"strip-4k", [] { return strip(4096); }},
        {"fresh-4k", [] { return makeFresh(4096); }},
        {"strip-fresh-4k", [] { return stripFresh(4096); }},
        {"raw-split", rawSplit},
        {"split", split},
        {"raw-find-all", rawFindAll},
        {"find-all", findAll},
        {"strip-8k", [] { return strip(decodedSize); }},
        {"filter-8k", filter},
        {"decode-8k", decode},
    };
    return all;
}

} // namespace

int main(int argc, char** argv)
{
    const auto found = argc == 3 ? cases().find(argv[1]) : cases().end();
    if (found == cases().end()) {
        std::fprintf(stderr, "usage: kfregex_cost CASE ITERATIONS, where CASE is one of\n");
        for (const auto& [name, maker] : cases())
            std::fprintf(stderr, "  %s\n", name.c_str());
        return 2;
    }
    const Case run = found->second();
    const int iterations = std::stoi(argv[2]);
    for (int i = 0; i < iterations; ++i)
        run(i);
}
