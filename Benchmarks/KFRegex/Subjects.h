// The texts and patterns that the regular-expression benchmarks share.
#pragma once

#include "Foundation/NSString.h"

#include <string>

namespace subjects {

inline const std::string matchPattern = "\\b\\w+@\\w+\\.example";
/// Two texts of 40 characters; the match begins at the 20th.
inline const std::string matchTexts[2] = {
    "To: undisclosed rec. ada@orvane.example;", "Cc: undisclosed rec. bob@orvane.example;"};

inline const std::string stripPattern = "\\s+";
inline const std::string splitPattern = ",";
inline const std::string findPattern = "(\\w+)=(\\w+)(;)";

/// Base64 text in lines of 64 characters, so many characters in all.
inline std::string base64Text(std::size_t size, char shift = 0)
{
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    std::uint32_t random = 12345U + static_cast<std::uint32_t>(shift);
    while (text.size() < size) {
        random = random * 1664525U + 1013904223U;
        text += text.size() % 65 == 64 ? '\n' : alphabet[random >> 26];
    }
    return text;
}

/// Fields of one to eight characters with a comma between them.
inline std::string fields(int count, char letter)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += std::string(static_cast<std::size_t>(i % 8 + 1), letter) + (i + 1 < count ? "," : "");
    return text;
}

/// Assignments, one a match.
inline std::string assignments(int count, char letter)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += std::string("key") + letter + "=value" + std::to_string(i) + "; ";
    return text;
}

inline Ref<NSString> narrow(const std::string& text) { return NSString::stringWithUTF8String(text); }
inline std::u16string units(const std::string& text) { return {text.begin(), text.end()}; }
inline Ref<NSString> wide(const std::string& text) { return NSString::stringWithCharacters(units(text)); }

} // namespace subjects
