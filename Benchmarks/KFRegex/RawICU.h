// The same work done by ICU alone on an expression that is kept: the floor of
// any layer over it.
#pragma once

#include "Subjects.h"

#include <cstdlib>
#include <memory>
#include <vector>

#include <unicode/uregex.h>

namespace raw {

struct Close {
    void operator()(URegularExpression* regex) const { uregex_close(regex); }
};
using Regex = std::unique_ptr<URegularExpression, Close>;

inline void check(UErrorCode status)
{
    if (U_FAILURE(status))
        std::abort();
}

inline Regex open(const std::string& pattern)
{
    UErrorCode status = U_ZERO_ERROR;
    const std::u16string text = subjects::units(pattern);
    Regex regex(uregex_open(text.data(), static_cast<std::int32_t>(text.size()), 0, nullptr, &status));
    check(status);
    return regex;
}

inline bool match(URegularExpression* regex, const std::u16string& text)
{
    UErrorCode status = U_ZERO_ERROR;
    uregex_setText(regex, text.data(), static_cast<std::int32_t>(text.size()), &status);
    const bool found = uregex_find(regex, 0, &status);
    check(status);
    return found;
}

/// Replaces every match by nothing; the number of units written.
inline std::int32_t strip(URegularExpression* regex, const std::u16string& text, std::vector<char16_t>& result)
{
    UErrorCode status = U_ZERO_ERROR;
    uregex_setText(regex, text.data(), static_cast<std::int32_t>(text.size()), &status);
    char16_t* end = result.data();
    auto roomLeft = static_cast<std::int32_t>(result.size());
    std::int32_t length = 0;
    uregex_reset(regex, 0, &status);
    while (uregex_findNext(regex, &status))
        length += uregex_appendReplacement(regex, u"", 0, &end, &roomLeft, &status);
    length += uregex_appendTail(regex, &end, &roomLeft, &status);
    check(status);
    return length;
}

/// The bounds of every match and of its groups; how many.
inline std::size_t ranges(URegularExpression* regex, const std::u16string& text, std::int32_t groups,
    std::vector<std::pair<std::int32_t, std::int32_t>>& found)
{
    UErrorCode status = U_ZERO_ERROR;
    found.clear();
    uregex_setText(regex, text.data(), static_cast<std::int32_t>(text.size()), &status);
    uregex_reset(regex, 0, &status);
    while (uregex_findNext(regex, &status))
        for (std::int32_t group = 0; group <= groups; ++group)
            found.emplace_back(uregex_start(regex, group, &status), uregex_end(regex, group, &status));
    check(status);
    return found.size();
}

} // namespace raw
