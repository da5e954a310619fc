// Short ways to write strings in tests.
#pragma once

#include "Foundation/NSArray.h"
#include "Foundation/NSString.h"

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

inline void PrintTo(const NSRange& range, std::ostream* out)
{
    *out << '{' << range.location << ", " << range.length << '}';
}

/// 8-bit where the text allows it.
inline Ref<NSString> text(std::string_view utf8) { return NSString::stringWithUTF8String(utf8); }

/// 16-bit storage.
inline Ref<NSString> wide(std::u16string_view units) { return NSString::stringWithCharacters(units); }

/// The same text in 16-bit storage.
inline Ref<NSString> widened(const Ref<NSString>& string) { return wide(string->characters()); }

inline Ref<NSMutableString> changeable(std::string_view utf8) { return NSMutableString::stringWithString(text(utf8)); }

/// The members as UTF-8; an array of arrays is joined with "|".
inline std::vector<std::string> list(const Ref<NSArray>& array)
{
    std::vector<std::string> result;
    if (!array)
        return {"(nil)"};
    for (const Ref<NSObject>& member : *array) {
        if (const Ref<NSArray> inner = refCast<NSArray>(member)) {
            std::string joined;
            for (const std::string& part : list(inner))
                joined += part + "|";
            result.push_back(joined);
        } else {
            result.push_back(toUTF8(refCast<NSString>(member)));
        }
    }
    return result;
}
