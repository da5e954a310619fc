// Formats of the platform: "%@" for objects beside the C conversions.
#pragma once

#include "Foundation/NSString.h"

#include <concepts>
#include <initializer_list>
#include <type_traits>
#include <variant>

/// One argument of a format: a signed or unsigned integer, a floating-point
/// number, C text or an object.
class NSFormatArgument {
public:
    template <std::integral T>
    NSFormatArgument(T value) noexcept
        : value_(static_cast<std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>>(value))
    {
    }
    NSFormatArgument(double value) noexcept : value_(value) { }
    NSFormatArgument(const char* text) noexcept : value_(text) { }
    NSFormatArgument(const std::string& text) noexcept : value_(text.c_str()) { }
    NSFormatArgument(std::nullptr_t) noexcept : value_(static_cast<const NSObject*>(nullptr)) { }
    NSFormatArgument(const NSObject* object) noexcept : value_(object) { }
    template <class T>
    NSFormatArgument(const Ref<T>& object) noexcept : value_(static_cast<const NSObject*>(object.get()))
    {
    }

    using Value = std::variant<std::int64_t, std::uint64_t, double, const char*, const NSObject*>;
    const Value& value() const noexcept { return value_; }

private:
    Value value_;
};

/// Text of a format with the conversions %@ %s %c %d %i %u %x %X %f %g %% (with
/// flags, width, precision and the length marks h, l, ll, z, q, which are read
/// and not needed). A nil object and a null text print "(null)". An argument
/// that does not fit its conversion, or is missing, prints "(?)": a format
/// never reads what is not there.
Ref<NSString> NSFormat(std::string_view format, std::initializer_list<NSFormatArgument> arguments);

template <class... Arguments>
Ref<NSString> NSStringWithFormat(std::string_view format, const Arguments&... arguments)
{
    return NSFormat(format, {NSFormatArgument(arguments)...});
}
