#include "Foundation/NSString.h"

#include "Foundation/NSArray.h"
#include "Foundation/NSException.h"
#include "Foundation/StringHash.h"
#include "Foundation/StringMemory.h"

#include <bit>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <typeinfo>
#include <unicode/uchar.h>

namespace {

// Apple's table for 0x80 to 0xFF, as Unicode publishes it (ROMAN.TXT).
constexpr char16_t macRoman[] = u"\u00C4\u00C5\u00C7\u00C9\u00D1\u00D6\u00DC\u00E1\u00E0\u00E2\u00E4\u00E3\u00E5\u00E7"
                                u"\u00E9\u00E8\u00EA\u00EB\u00ED\u00EC\u00EE\u00EF\u00F1\u00F3\u00F2\u00F4\u00F6\u00F5"
                                u"\u00FA\u00F9\u00FB\u00FC\u2020\u00B0\u00A2\u00A3\u00A7\u2022\u00B6\u00DF\u00AE\u00A9"
                                u"\u2122\u00B4\u00A8\u2260\u00C6\u00D8\u221E\u00B1\u2264\u2265\u00A5\u00B5\u2202\u2211"
                                u"\u220F\u03C0\u222B\u00AA\u00BA\u03A9\u00E6\u00F8\u00BF\u00A1\u00AC\u221A\u0192\u2248"
                                u"\u2206\u00AB\u00BB\u2026\u00A0\u00C0\u00C3\u00D5\u0152\u0153\u2013\u2014\u201C\u201D"
                                u"\u2018\u2019\u00F7\u25CA\u00FF\u0178\u2044\u20AC\u2039\u203A\uFB01\uFB02\u2021\u00B7"
                                u"\u201A\u201E\u2030\u00C2\u00CA\u00C1\u00CB\u00C8\u00CD\u00CE\u00CF\u00CC\u00D3\u00D4"
                                u"\uF8FF\u00D2\u00DA\u00DB\u00D9\u0131\u02C6\u02DC\u00AF\u02D8\u02D9\u02DA\u00B8\u02DD"
                                u"\u02DB\u02C7";
static_assert(std::size(macRoman) == 129);

constexpr char16_t noUnits[1] = {};

const NSString* asString(const NSObject* object) noexcept
{
    // Twice a comparison of names: far cheaper than a dynamic cast, and all the kinds of strings there are.
    if (!object)
        return nullptr;
    const std::type_info& type = typeid(*object);
    return type == typeid(NSString) || type == typeid(NSMutableString) ? static_cast<const NSString*>(object) : nullptr;
}

bool equalUnits(std::span<const std::uint8_t> narrow, std::u16string_view wide) noexcept
{
    return std::equal(narrow.begin(), narrow.end(), wide.begin(), wide.end());
}

/// Without a way out of the loop the compiler looks at many units at once.
template <class Units>
auto allBits(const Units& units) noexcept
{
    typename Units::value_type all = 0;
    for (const auto unit : units)
        all |= unit;
    return all;
}

bool fitsLatin1(std::u16string_view units) noexcept { return allBits(units) <= 0xFF; }

/// Four 8-bit characters as four 16-bit units.
constexpr std::uint64_t spread(std::uint32_t fourBytes) noexcept
{
    std::uint64_t units = fourBytes;
    units = (units | units << 16) & 0x0000FFFF0000FFFFU;
    return (units | units << 8) & 0x00FF00FF00FF00FFU;
}

static_assert(std::endian::native == std::endian::little, "packed units are read straight from memory");

std::uint64_t hashNarrow(const std::uint8_t* bytes, std::size_t length) noexcept
{
    kf::StringHasher hasher;
    std::size_t index = 0;
    // Sixteen at a time the compiler widens with vector instructions.
    for (char16_t units[16]; index + std::size(units) <= length; index += std::size(units)) {
        std::copy_n(bytes + index, std::size(units), units);
        std::uint64_t words[4];
        std::memcpy(words, units, sizeof words);
        for (const std::uint64_t word : words)
            hasher.add(word);
    }
    for (; index + 8 <= length; index += 8) {
        std::uint64_t eight;
        std::memcpy(&eight, bytes + index, 8);
        hasher.add(spread(static_cast<std::uint32_t>(eight)));
        hasher.add(spread(static_cast<std::uint32_t>(eight >> 32)));
    }
    if (index < length) {
        std::uint64_t last = 0;
        for (std::size_t rest = length; rest-- > index;)
            last = last << 8 | bytes[rest];
        hasher.add(spread(static_cast<std::uint32_t>(last)));
        if (length - index > 4)
            hasher.add(spread(static_cast<std::uint32_t>(last >> 32)));
    }
    return hasher.finish(length);
}

std::uint64_t hashWide(const char16_t* units, std::size_t length) noexcept
{
    kf::StringHasher hasher;
    std::size_t index = 0;
    for (; index + 4 <= length; index += 4) {
        std::uint64_t four;
        std::memcpy(&four, units + index, 8);
        hasher.add(four);
    }
    if (index < length) {
        std::uint64_t last = 0;
        for (std::size_t rest = length; rest-- > index;)
            last = last << 16 | units[rest];
        hasher.add(last);
    }
    return hasher.finish(length);
}

/// Walks a string's code points; an unpaired surrogate gives itself.
class CodePoints {
public:
    explicit CodePoints(const NSString& string) noexcept
        : string_(string), length_(static_cast<std::size_t>(string.length()))
    {
    }
    bool atEnd() const noexcept { return index_ == length_; }
    char32_t next() noexcept
    {
        return string_.isWide() ? kf::nextCodePointOfUTF16(string_.utf16(), index_) : string_.latin1()[index_++];
    }

private:
    const NSString& string_;
    std::size_t length_;
    std::size_t index_ = 0;
};

/// Decodes UTF-8; nothing where it is ill-formed.
template <class Units>
bool decodeUTF8(std::string_view text, Units& units)
{
    units.reserve(text.size());
    for (std::size_t index = 0; index < text.size();) {
        const char32_t codePoint = kf::nextCodePointOfUTF8(text, index);
        if (codePoint == kf::invalidCodePoint)
            return false;
        kf::appendUTF16(units, codePoint);
    }
    return true;
}

bool isASCII(std::span<const std::uint8_t> bytes) noexcept { return allBits(bytes) < 0x80; }

std::span<const std::uint8_t> asBytes(std::string_view text) noexcept
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

} // namespace

// Memory

void* NSString::operator new(std::size_t size) { return kf::allocateString(size); }
void NSString::operator delete(void* memory) { kf::freeString(memory); }

template <class Unit>
NSString::Allocated<Unit> NSString::allocate(CFIndex length, bool sensitive)
{
    static_assert(sizeof(NSString) % alignof(Unit) == 0);
    if (length > std::numeric_limits<CFIndex>::max() / 4)
        throw std::bad_alloc();
    const std::size_t bytes = static_cast<std::size_t>(length) * sizeof(Unit);
    void* const memory = operator new(sizeof(NSString) + bytes);
    auto* const units = reinterpret_cast<Unit*>(static_cast<std::byte*>(memory) + sizeof(NSString));
    auto* const string = ::new (memory) NSString(units, length, sizeof(Unit) == sizeof(char16_t), sensitive);
    return {Ref<NSString>::adopt(string), units};
}

NSString::~NSString()
{
    if (!sensitive_)
        return;
    explicit_bzero(const_cast<void*>(storage_), static_cast<std::size_t>(length_) << (wide_ ? 1 : 0));
    cachedHash_.store(0, std::memory_order_relaxed);
}

// Making

Ref<NSString> NSString::string() { return ""_ns; }

Ref<NSString> NSString::narrowest(std::u16string_view characters, bool sensitive)
{
    const auto length = static_cast<CFIndex>(characters.size());
    if (!fitsLatin1(characters)) {
        auto [string, units] = allocate<char16_t>(length, sensitive);
        std::copy(characters.begin(), characters.end(), units);
        return string;
    }
    auto [string, units] = allocate<std::uint8_t>(length, sensitive);
    std::transform(
        characters.begin(), characters.end(), units, [](char16_t unit) { return static_cast<std::uint8_t>(unit); });
    return string;
}

Ref<NSString> NSString::stringWithUTF8String(std::string_view text)
{
    if (isASCII(asBytes(text)))
        return stringWithLatin1(asBytes(text));
    std::u16string units;
    return decodeUTF8(text, units) ? narrowest(units, false) : nullptr;
}

Ref<NSString> NSString::sensitiveStringWithUTF8String(std::string_view text)
{
    std::vector<char16_t, WipingAllocator<char16_t>> units;
    return decodeUTF8(text, units) ? narrowest({units.data(), units.size()}, true) : nullptr;
}

Ref<NSString> NSString::stringWithCharacters(std::u16string_view characters)
{
    auto [string, units] = allocate<char16_t>(static_cast<CFIndex>(characters.size()));
    std::copy(characters.begin(), characters.end(), units);
    return string;
}

Ref<NSString> NSString::stringWithLatin1(std::span<const std::uint8_t> bytes)
{
    auto [string, units] = allocate<std::uint8_t>(static_cast<CFIndex>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), units);
    return string;
}

NSString::UnwrittenLatin1 NSString::unwrittenLatin1(CFIndex length)
{
    auto [string, units] = allocate<std::uint8_t>(length);
    return {string, {units, static_cast<std::size_t>(length)}};
}

Ref<NSString> NSString::stringWithBytes(std::span<const std::uint8_t> bytes, NSStringEncoding encoding)
{
    switch (encoding) {
    case NSASCIIStringEncoding:
        return isASCII(bytes) ? stringWithLatin1(bytes) : nullptr;
    case NSUTF8StringEncoding:
        return stringWithUTF8String({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    case NSISOLatin1StringEncoding:
        return stringWithLatin1(bytes);
    case NSMacOSRomanStringEncoding: {
        std::u16string units(bytes.size(), u'\0');
        std::transform(bytes.begin(), bytes.end(), units.begin(),
            [](std::uint8_t byte) { return byte < 0x80 ? static_cast<char16_t>(byte) : macRoman[byte - 0x80]; });
        return narrowest(units, false);
    }
    }
    return nullptr;
}

Ref<NSString> NSString::stringWithString(const Ref<NSString>& other) { return CFStringCreateCopy(other.get()); }

// Reading

char16_t NSString::characterAtIndex(CFIndex index) const noexcept
{
    if (index < 0 || index >= length_)
        return 0;
    const auto at = static_cast<std::size_t>(index);
    return wide_ ? utf16()[at] : latin1()[at];
}

std::u16string NSString::characters() const
{
    if (wide_)
        return std::u16string(utf16());
    return std::u16string(latin1().begin(), latin1().end());
}

namespace {

/// ASCII text, which is the common case by far, is UTF-8 as it stands.
template <class Units>
bool copyASCII(const Units& units, std::string& text)
{
    if (allBits(units) >= 0x80)
        return false;
    text.resize(units.size());
    std::transform(units.begin(), units.end(), text.begin(), [](auto unit) { return static_cast<char>(unit); });
    return true;
}

bool copyASCII(const NSString& string, std::string& text)
{
    return string.isWide() ? copyASCII(string.utf16(), text) : copyASCII(string.latin1(), text);
}

} // namespace

std::optional<std::string> NSString::UTF8String() const
{
    std::string text;
    if (copyASCII(*this, text))
        return text;
    text.reserve(static_cast<std::size_t>(length_));
    for (CodePoints points(*this); !points.atEnd();) {
        const char32_t codePoint = points.next();
        if (kf::isSurrogate(codePoint))
            return std::nullopt;
        kf::appendUTF8(text, codePoint);
    }
    return text;
}

std::string toUTF8(const NSString* string)
{
    if (!string)
        return "(null)";
    std::string text;
    if (copyASCII(*string, text))
        return text;
    text.reserve(static_cast<std::size_t>(string->length()));
    for (CodePoints points(*string); !points.atEnd();) {
        const char32_t codePoint = points.next();
        kf::appendUTF8(text, kf::isSurrogate(codePoint) ? kf::replacementCharacter : codePoint);
    }
    return text;
}

// Comparing

bool NSString::isEqual(const NSObject* other) const noexcept
{
    if (this == other)
        return true;
    const NSString* const string = asString(other);
    if (!string || string->length_ != length_)
        return false;
    if (wide_ == string->wide_)
        return std::memcmp(storage_, string->storage_, static_cast<std::size_t>(length_) << (wide_ ? 1 : 0)) == 0;
    return wide_ ? equalUnits(string->latin1(), utf16()) : equalUnits(latin1(), string->utf16());
}

CFHashCode NSString::computeHash() const noexcept
{
    const auto length = static_cast<std::size_t>(length_);
    return wide_ ? hashWide(static_cast<const char16_t*>(storage_), length)
                 : hashNarrow(static_cast<const std::uint8_t*>(storage_), length);
}

CFHashCode NSString::hash() const noexcept
{
    // Threads that meet here compute the same value: no order between them is needed.
    CFHashCode hash = cachedHash_.load(std::memory_order_relaxed);
    if (hash == 0) {
        hash = computeHash();
        cachedHash_.store(hash, std::memory_order_relaxed);
    }
    return hash;
}

NSComparisonResult NSString::caseInsensitiveCompare(const Ref<NSString>& other) const
{
    if (!other)
        return NSOrderedDescending;
    const auto fold = [](char32_t codePoint) {
        return u_foldCase(static_cast<UChar32>(codePoint), U_FOLD_CASE_DEFAULT);
    };
    CodePoints mine(*this);
    CodePoints theirs(*other);
    while (!mine.atEnd() && !theirs.atEnd()) {
        const UChar32 left = fold(mine.next());
        const UChar32 right = fold(theirs.next());
        if (left != right)
            return left < right ? NSOrderedAscending : NSOrderedDescending;
    }
    if (mine.atEnd() && theirs.atEnd())
        return NSOrderedSame;
    return mine.atEnd() ? NSOrderedAscending : NSOrderedDescending;
}

// Deriving

Ref<NSString> NSString::stringByAppendingString(const Ref<NSString>& other) const
{
    if (!other)
        NSRaise(NSInvalidArgumentException, "*** -[NSString stringByAppendingString:]: nil argument"_ns);
    const bool sensitive = sensitive_ || other->sensitive_;
    const auto fill = [&](auto allocated) {
        const auto copy = [](const NSString& from, auto* to) {
            if (from.wide_)
                std::transform(from.utf16().begin(), from.utf16().end(), to,
                    [](char16_t unit) { return static_cast<std::remove_pointer_t<decltype(to)>>(unit); });
            else
                std::copy(from.latin1().begin(), from.latin1().end(), to);
        };
        copy(*this, allocated.units);
        copy(*other, allocated.units + length_);
        return allocated.string;
    };
    if (wide_ || other->wide_)
        return fill(allocate<char16_t>(length_ + other->length_, sensitive));
    return fill(allocate<std::uint8_t>(length_ + other->length_, sensitive));
}

Ref<NSArray> NSString::pathComponents() const
{
    auto components = NSMutableArray::array();
    const auto isSlash = [&](CFIndex index) { return characterAtIndex(index) == u'/'; };
    if (length_ > 0 && isSlash(0))
        components->addObject("/"_ns);
    for (CFIndex start = 0; start < length_;) {
        CFIndex end = start;
        while (end < length_ && !isSlash(end))
            ++end;
        if (end > start)
            components->addObject(CFStringCreateWithSubstring(this, {start, end - start}));
        start = end + 1;
    }
    return components;
}

Ref<NSString> NSString::description() const
{
    if (sensitive_)
        return "(secret)"_ns;
    return CFStringCreateCopy(this);
}

// The CF calls

CFIndex CFStringGetLength(const NSString* string) noexcept { return string ? string->length() : 0; }

const char16_t* CFStringGetCharactersPtr(const NSString* string) noexcept
{
    return string && string->isWide() ? string->utf16().data() : nullptr;
}

void CFStringGetCharacters(const NSString* string, CFRange range, char16_t* buffer) noexcept
{
    if (!string)
        return;
    assert(range.location >= 0 && range.length >= 0 && range.length <= string->length() - range.location);
    const auto location = static_cast<std::size_t>(range.location);
    const auto length = static_cast<std::size_t>(range.length);
    if (string->isWide())
        std::copy_n(string->utf16().data() + location, length, buffer);
    else
        std::copy_n(string->latin1().data() + location, length, buffer);
}

Ref<NSString> CFStringCreateCopy(const NSString* string)
{
    if (!string)
        return nullptr;
    if (!string->isMutable())
        return Ref<NSString>::retain(const_cast<NSString*>(string));
    return CFStringCreateWithSubstring(string, {0, string->length()});
}

Ref<NSString> CFStringCreateWithSubstring(const NSString* string, CFRange range)
{
    if (!string || range.location < 0 || range.length < 0 || range.length > string->length() - range.location)
        return nullptr;
    const auto location = static_cast<std::size_t>(range.location);
    const auto length = static_cast<std::size_t>(range.length);
    try {
        if (string->isWide()) {
            auto [part, units] = NSString::allocate<char16_t>(range.length, string->sensitive_);
            std::memcpy(units, string->utf16().data() + location, length * sizeof(char16_t));
            return std::move(part);
        }
        auto [part, units] = NSString::allocate<std::uint8_t>(range.length, string->sensitive_);
        std::memcpy(units, string->latin1().data() + location, length);
        return std::move(part);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

Ref<NSString> CFStringCreateWithCharacters(const char16_t* characters, CFIndex length)
{
    if (length < 0 || (!characters && length > 0))
        return nullptr;
    try {
        return NSString::stringWithCharacters(std::u16string_view(characters, static_cast<std::size_t>(length)));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Mutable strings

NSMutableString::~NSMutableString()
{
    // Its storage is gone, and wiped, when the base class looks.
    sensitive_ = false;
}

Ref<NSMutableString> NSMutableString::string() { return stringWithCapacity(0); }

Ref<NSMutableString> NSMutableString::stringWithCapacity(NSUInteger capacity)
{
    auto string = makeRef<NSMutableString>();
    string->narrowText_.reserve(capacity);
    string->sync();
    return string;
}

Ref<NSMutableString> NSMutableString::stringWithString(const Ref<NSString>& other)
{
    if (!other)
        return nullptr;
    auto string = makeRef<NSMutableString>();
    string->wide_ = other->isWide();
    string->sync();
    string->replace({0, 0}, *other);
    return string;
}

void NSMutableString::sync() noexcept
{
    length_ = static_cast<CFIndex>(wide_ ? wideText_.size() : narrowText_.size());
    storage_ = wide_ ? static_cast<const void*>(wideText_.data()) : narrowText_.data();
    // An empty vector may have no memory, and a string always has: ICU refuses a null text.
    if (length_ == 0)
        storage_ = noUnits;
}

void NSMutableString::widen()
{
    if (wide_)
        return;
    wideText_.assign(narrowText_.begin(), narrowText_.end());
    narrowText_ = {};
    wide_ = true;
    sync();
}

void NSMutableString::replace(CFRange range, const NSString& replacement)
{
    if (&replacement == this) {
        // Its own storage moves under the insertion.
        const auto copy = CFStringCreateCopy(this);
        if (!copy)
            throw std::bad_alloc();
        return replace(range, *copy);
    }
    if (replacement.isWide() && !fitsLatin1(replacement.utf16()))
        widen();
    const auto splice = [&](auto& text, const auto& units) {
        using Unit = typename std::remove_reference_t<decltype(text)>::value_type;
        const auto growth = static_cast<CFIndex>(units.size()) - range.length;
        // Room first: where there is no memory for it, nothing has changed.
        if (growth > 0)
            text.insert(text.begin() + range.location + range.length, static_cast<std::size_t>(growth), Unit{});
        const auto end = std::transform(units.begin(), units.end(), text.begin() + range.location,
            [](auto unit) { return static_cast<Unit>(unit); });
        if (growth < 0)
            text.erase(end, end - growth);
    };
    const auto spliceInto = [&](auto& text) {
        if (replacement.isWide())
            splice(text, replacement.utf16());
        else
            splice(text, replacement.latin1());
    };
    if (wide_)
        spliceInto(wideText_);
    else
        spliceInto(narrowText_);
    sensitive_ = sensitive_ || replacement.sensitive_;
    sync();
}

void NSMutableString::appendString(const Ref<NSString>& other)
{
    if (!other)
        NSRaise(NSInvalidArgumentException, "*** -[NSMutableString appendString:]: nil argument"_ns);
    replace({length_, 0}, *other);
}

void NSMutableString::appendCharacter(char16_t character)
{
    if (character > 0xFF)
        widen();
    if (wide_)
        wideText_.push_back(character);
    else
        narrowText_.push_back(static_cast<std::uint8_t>(character));
    sync();
}

void NSMutableString::setString(const Ref<NSString>& other)
{
    if (!other)
        NSRaise(NSInvalidArgumentException, "*** -[NSMutableString setString:]: nil argument"_ns);
    replace({0, length_}, *other);
}

void NSMutableString::replaceCharactersInRange(NSRange range, const Ref<NSString>& replacement)
{
    const auto length = static_cast<NSUInteger>(length_);
    if (range.location > length || range.length > length - range.location)
        NSRaise(NSRangeException,
            "*** -[NSMutableString replaceCharactersInRange:withString:]: Range or index out of bounds"_ns);
    if (!replacement)
        NSRaise(
            NSInvalidArgumentException, "*** -[NSMutableString replaceCharactersInRange:withString:]: nil argument"_ns);
    replace({static_cast<CFIndex>(range.location), static_cast<CFIndex>(range.length)}, *replacement);
}

CFHashCode NSMutableString::hash() const noexcept { return computeHash(); }
