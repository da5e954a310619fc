// Steps between UTF-8 and UTF-16, usable in constant expressions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kf {

/// What a decoder gives for ill-formed input.
inline constexpr char32_t invalidCodePoint = 0xFFFFFFFF;
inline constexpr char32_t replacementCharacter = 0xFFFD;

constexpr bool isHighSurrogate(char32_t unit) noexcept { return unit >= 0xD800 && unit <= 0xDBFF; }
constexpr bool isLowSurrogate(char32_t unit) noexcept { return unit >= 0xDC00 && unit <= 0xDFFF; }
constexpr bool isSurrogate(char32_t unit) noexcept { return unit >= 0xD800 && unit <= 0xDFFF; }

/// The code point at `index`, which moves past it. Ill-formed input (RFC 3629:
/// overlong forms, surrogates, values past U+10FFFF, cut sequences) gives
/// invalidCodePoint and moves past the bytes that could begin a character.
constexpr char32_t nextCodePointOfUTF8(std::string_view text, std::size_t& index) noexcept
{
    const auto byteAt = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const char32_t lead = byteAt(index++);
    if (lead < 0x80)
        return lead;
    if (lead < 0xC2 || lead > 0xF4)
        return invalidCodePoint;
    const int trailing = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    char32_t value = lead & (0x3FU >> trailing);
    for (int i = 0; i < trailing; ++i) {
        if (index == text.size())
            return invalidCodePoint;
        const char32_t byte = byteAt(index);
        char32_t low = 0x80;
        char32_t high = 0xBF;
        if (i == 0 && lead == 0xE0)
            low = 0xA0;
        else if (i == 0 && lead == 0xED)
            high = 0x9F;
        else if (i == 0 && lead == 0xF0)
            low = 0x90;
        else if (i == 0 && lead == 0xF4)
            high = 0x8F;
        if (byte < low || byte > high)
            return invalidCodePoint;
        value = value << 6 | (byte & 0x3F);
        ++index;
    }
    return value;
}

/// The code point at `index`, which moves past it; an unpaired surrogate gives itself.
constexpr char32_t nextCodePointOfUTF16(std::u16string_view text, std::size_t& index) noexcept
{
    const char32_t unit = text[index++];
    if (!isHighSurrogate(unit) || index == text.size() || !isLowSurrogate(text[index]))
        return unit;
    return 0x10000 + ((unit - 0xD800) << 10) + (static_cast<char32_t>(text[index++]) - 0xDC00);
}

/// Appends a code point to a container of UTF-16 units.
template <class Units>
constexpr void appendUTF16(Units& units, char32_t codePoint)
{
    if (codePoint < 0x10000) {
        units.push_back(static_cast<char16_t>(codePoint));
        return;
    }
    units.push_back(static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
    units.push_back(static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF)));
}

/// Appends a code point, no surrogate, as UTF-8.
inline void appendUTF8(std::string& text, char32_t codePoint)
{
    const auto append = [&](char32_t byte) { text.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
    if (codePoint < 0x80) {
        append(codePoint);
    } else if (codePoint < 0x800) {
        append(0xC0 | codePoint >> 6);
        append(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        append(0xE0 | codePoint >> 12);
        append(0x80 | (codePoint >> 6 & 0x3F));
        append(0x80 | (codePoint & 0x3F));
    } else {
        append(0xF0 | codePoint >> 18);
        append(0x80 | (codePoint >> 12 & 0x3F));
        append(0x80 | (codePoint >> 6 & 0x3F));
        append(0x80 | (codePoint & 0x3F));
    }
}

} // namespace kf
