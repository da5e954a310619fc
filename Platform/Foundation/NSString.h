// Strings of UTF-16 units with 8-bit or 16-bit storage.
//
// The width is fixed when a string is made: 8-bit storage holds ISO 8859-1,
// 16-bit storage UTF-16. Every operation gives the same answer for equal text
// in either width; only CFStringGetCharactersPtr tells them apart.
#pragma once

#include "Foundation/NSObject.h"
#include "Foundation/SecretBytes.h"
#include "Foundation/UnicodeConversion.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

enum NSStringEncoding : std::uint32_t {
    NSASCIIStringEncoding = 1,
    NSUTF8StringEncoding = 4,
    NSISOLatin1StringEncoding = 5,
    NSMacOSRomanStringEncoding = 30,
};

enum NSComparisonResult : NSInteger {
    NSOrderedAscending = -1,
    NSOrderedSame = 0,
    NSOrderedDescending = 1,
};

class NSArray;

namespace kf {
// auto, for clang 14 takes two declarations with a deduced class for different ones.
template <auto text>
class LiteralString;
} // namespace kf

/// Immutable text. Safe to read from any thread.
class NSString : public NSObject {
public:
    /// The empty string; always the same object.
    static Ref<NSString> string();
    /// Text from UTF-8, 8-bit storage where every character is ISO 8859-1,
    /// else 16-bit. Nil where `text` is no well-formed UTF-8.
    static Ref<NSString> stringWithUTF8String(std::string_view text);
    /// 16-bit storage, whatever the characters.
    static Ref<NSString> stringWithCharacters(std::u16string_view characters);
    /// 8-bit storage: each byte is one ISO 8859-1 character.
    static Ref<NSString> stringWithLatin1(std::span<const std::uint8_t> bytes);
    /// 8-bit text that its maker writes in place, before anyone else sees the string.
    struct UnwrittenLatin1 {
        Ref<NSString> string;
        std::span<std::uint8_t> text;
    };
    static UnwrittenLatin1 unwrittenLatin1(CFIndex length);
    /// Decodes bytes; nil where they are not valid in the encoding.
    static Ref<NSString> stringWithBytes(std::span<const std::uint8_t> bytes, NSStringEncoding encoding);
    /// An immutable copy; the same object where `other` is immutable. Nil gives nil.
    static Ref<NSString> stringWithString(const Ref<NSString>& other);
    /// Text that is wiped from memory when its last reference goes: pass
    /// phrases. What is made of it (parts, joined text, mutable copies) is wiped
    /// too, and its description, which formats and logs print, does not tell it.
    /// Nil where `text` is no well-formed UTF-8.
    static Ref<NSString> sensitiveStringWithUTF8String(std::string_view text);

    /// Number of UTF-16 units.
    CFIndex length() const noexcept { return length_; }
    char16_t characterAtIndex(CFIndex index) const noexcept;
    bool isWide() const noexcept { return wide_; }
    virtual bool isMutable() const noexcept { return false; }

    /// The text as UTF-8; empty optional where it holds an unpaired surrogate.
    std::optional<std::string> UTF8String() const;
    std::u16string characters() const;

    bool isEqualToString(const Ref<NSString>& other) const noexcept { return isEqual(other.get()); }
    /// Comparison by simple Unicode case folding, character by character. A nil
    /// argument is never the same: the receiver is then NSOrderedDescending.
    NSComparisonResult caseInsensitiveCompare(const Ref<NSString>& other) const;
    Ref<NSString> stringByAppendingString(const Ref<NSString>& other) const;
    /// The parts of a file path; an absolute path begins with the component "/".
    Ref<NSArray> pathComponents() const;

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSString"; }

    /// The storage, for the platform's own algorithms; valid while the string
    /// lives and, for a mutable one, until its next change.
    /// Each is empty where the string has the other width.
    std::span<const std::uint8_t> latin1() const noexcept
    {
        if (wide_)
            return {};
        return {static_cast<const std::uint8_t*>(storage_), static_cast<std::size_t>(length_)};
    }
    std::u16string_view utf16() const noexcept
    {
        if (!wide_)
            return {};
        return {static_cast<const char16_t*>(storage_), static_cast<std::size_t>(length_)};
    }

    static void operator delete(void* memory);

protected:
    NSString() noexcept = default;
    /// Text that follows the object in its own memory.
    NSString(const void* storage, CFIndex length, bool wide, bool sensitive) noexcept
        : wide_(wide), sensitive_(sensitive), storage_(storage), length_(length)
    {
    }
    /// A constant, whose text stands elsewhere for good.
    constexpr NSString(Immortal immortal, const void* storage, CFIndex length, bool wide) noexcept
        : NSObject(immortal), wide_(wide), storage_(storage), length_(length)
    {
    }
    ~NSString() override;

    static void* operator new(std::size_t size);

    template <class Unit>
    struct Allocated {
        Ref<NSString> string;
        Unit* units;
    };
    /// A string whose text the caller fills in before anyone else sees it.
    template <class Unit>
    static Allocated<Unit> allocate(CFIndex length, bool sensitive = false);
    /// Text that is 8-bit where it can be.
    static Ref<NSString> narrowest(std::u16string_view characters, bool sensitive);
    CFHashCode computeHash() const noexcept;

    // First, so that they lie in the padding behind the reference count.
    bool wide_ = false;
    bool sensitive_ = false;
    const void* storage_ = nullptr;
    CFIndex length_ = 0;
    mutable std::atomic<CFHashCode> cachedHash_{0};

    template <auto text>
    friend class kf::LiteralString;
    friend class NSMutableString;
    friend Ref<NSString> NSFormat(std::string_view format, std::initializer_list<class NSFormatArgument> arguments);
    friend Ref<NSString> CFStringCreateCopy(const NSString* string);
    friend Ref<NSString> CFStringCreateWithSubstring(const NSString* string, CFRange range);
};

/// Text that can change. One thread at a time. Where memory runs out, std::bad_alloc, and the text is as it was.
class NSMutableString final : public NSString {
public:
    static Ref<NSMutableString> string();
    static Ref<NSMutableString> stringWithCapacity(NSUInteger capacity);
    /// A mutable copy with the same width. Nil gives nil.
    static Ref<NSMutableString> stringWithString(const Ref<NSString>& other);

    bool isMutable() const noexcept override { return true; }
    void appendString(const Ref<NSString>& other);
    void appendCharacter(char16_t character);
    void setString(const Ref<NSString>& other);
    /// Raises NSRangeException where the range passes the end,
    /// NSInvalidArgumentException where `replacement` is nil.
    void replaceCharactersInRange(NSRange range, const Ref<NSString>& replacement);

    CFHashCode hash() const noexcept override;
    const char* className() const noexcept override { return "NSMutableString"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSMutableString() = default;
    ~NSMutableString() override;
    void widen();
    void sync() noexcept;
    void replace(CFRange range, const NSString& replacement);

    // Wiping: a copy of a sensitive string may grow and leave blocks behind.
    template <class Unit>
    using Units = std::vector<Unit, WipingAllocator<Unit>>;
    Units<std::uint8_t> narrowText_;
    Units<char16_t> wideText_;
};

using CFStringRef = Ref<NSString>;

CFIndex CFStringGetLength(const NSString* string) noexcept;
/// The string's own UTF-16 storage, or null for 8-bit storage. Borrowed.
const char16_t* CFStringGetCharactersPtr(const NSString* string) noexcept;
/// Copies the units of `range` into `buffer`, which must have room for them.
void CFStringGetCharacters(const NSString* string, CFRange range, char16_t* buffer) noexcept;
/// An immutable copy (the same object where it is immutable already); null on exhausted memory.
Ref<NSString> CFStringCreateCopy(const NSString* string);
/// The text of a range, in the width of `string`.
Ref<NSString> CFStringCreateWithSubstring(const NSString* string, CFRange range);
/// A 16-bit string.
Ref<NSString> CFStringCreateWithCharacters(const char16_t* characters, CFIndex length);

namespace kf {

/// Source text of a string constant.
template <std::size_t size>
struct LiteralText {
    consteval LiteralText(const char (&text)[size]) { std::copy_n(text, size, bytes); }
    constexpr std::string_view view() const noexcept { return {bytes, size - 1}; }
    char bytes[size];
};

/// A string constant's object: laid down by the compiler, the same one for
/// equal text, there before any initialiser runs and after every destructor.
template <auto text>
class LiteralString {
public:
    static Ref<NSString> reference() noexcept { return Ref<NSString>::retain(&storage_.string); }
    /// The same without raising the count, for constant initialisation.
    static constexpr Ref<NSString> constant() noexcept { return Ref<NSString>::adopt(&storage_.string); }

private:
    struct Decoded {
        std::array<std::uint8_t, sizeof(text.bytes)> narrow{};
        std::array<char16_t, sizeof(text.bytes)> wide{};
        CFIndex length = 0;
        bool isWide = false;

        constexpr void push_back(char16_t unit)
        {
            const auto index = static_cast<std::size_t>(length++);
            narrow[index] = static_cast<std::uint8_t>(unit & 0xFF);
            wide[index] = unit;
            isWide = isWide || unit > 0xFF;
        }
    };
    static constexpr Decoded decode()
    {
        Decoded decoded;
        for (std::size_t index = 0; index < text.view().size();) {
            const char32_t codePoint = nextCodePointOfUTF8(text.view(), index);
            if (codePoint == invalidCodePoint)
                throw "a string constant must be well-formed UTF-8";
            appendUTF16(decoded, codePoint);
        }
        return decoded;
    }
    static constexpr Decoded decoded_ = decode();

    static constexpr const void* units() noexcept
    {
        if (decoded_.isWide)
            return decoded_.wide.data();
        return decoded_.narrow.data();
    }
    // A union, so that no destructor runs at exit.
    union Storage {
        constexpr Storage() noexcept : string(NSString::Immortal{}, units(), decoded_.length, decoded_.isWide) { }
        ~Storage() { }
        NSString string;
    };
    static constinit inline Storage storage_{};
};

} // namespace kf

namespace kf {
/// For string constants with a name, which other initialisers may use:
/// `constinit const Ref<NSString> NSFoo = kf::constant<"NSFoo">();`
template <LiteralText text>
constexpr Ref<NSString> constant() noexcept
{
    return LiteralString<text>::constant();
}
} // namespace kf

/// A constant of the program's own text (ASCII or UTF-8): the same object for the same text.
template <kf::LiteralText text>
Ref<NSString> operator""_ns() noexcept
{
    return kf::LiteralString<text>::reference();
}

/// UTF-8 for messages and file names: unpaired surrogates become U+FFFD, nil becomes "(null)".
std::string toUTF8(const NSString* string);
inline std::string toUTF8(const Ref<NSString>& string) { return toUTF8(string.get()); }
