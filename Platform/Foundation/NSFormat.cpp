#include "Foundation/NSFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

using Text = std::u16string;

constexpr std::u16string_view unfit = u"(?)";
constexpr std::u16string_view null = u"(null)";
// Widths beyond this are mistakes; a format must not exhaust the memory.
constexpr int largestField = 4096;

struct Conversion {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool isLong = false;
    int width = 0;
    int precision = -1;
    char letter = 0;
};

void appendDecoded(Text& text, std::string_view utf8)
{
    for (std::size_t index = 0; index < utf8.size();) {
        const char32_t codePoint = kf::nextCodePointOfUTF8(utf8, index);
        kf::appendUTF16(text, codePoint == kf::invalidCodePoint ? kf::replacementCharacter : codePoint);
    }
}

Text widened(std::string_view ascii) { return Text(ascii.begin(), ascii.end()); }

void appendPadded(Text& out, const Conversion& conversion, std::u16string_view body)
{
    const auto width = static_cast<std::size_t>(conversion.width);
    const std::size_t padding = body.size() < width ? width - body.size() : 0;
    if (!conversion.left)
        out.append(padding, u' ');
    out.append(body);
    if (conversion.left)
        out.append(padding, u' ');
}

void appendNumber(Text& out, const Conversion& conversion, std::string_view sign, std::string digits, bool zeros)
{
    if (zeros && conversion.zero && !conversion.left) {
        const auto width = static_cast<std::size_t>(conversion.width);
        const std::size_t used = sign.size() + digits.size();
        if (used < width)
            digits.insert(0, width - used, '0');
    }
    appendPadded(out, conversion, widened(std::string(sign) + digits));
}

std::string_view signOf(const Conversion& conversion, bool negative)
{
    return negative ? "-" : conversion.plus ? "+" : conversion.space ? " " : "";
}

std::string integerDigits(const Conversion& conversion, std::uint64_t magnitude, int base)
{
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, magnitude, base).ptr;
    std::string digits(buffer, end);
    if (conversion.letter == 'X')
        std::transform(digits.begin(), digits.end(), digits.begin(),
            [](char digit) { return digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit; });
    if (conversion.precision >= 0 && digits.size() < static_cast<std::size_t>(conversion.precision))
        digits.insert(0, static_cast<std::size_t>(conversion.precision) - digits.size(), '0');
    return digits;
}

/// What %u and %x show of a negative number: its two's complement, in 32 bits
/// unless the format asks for more, because C's int is what such a format means.
std::uint64_t asUnsigned(const Conversion& conversion, std::int64_t value)
{
    if (!conversion.isLong && value < 0 && value >= std::numeric_limits<std::int32_t>::min())
        return static_cast<std::uint32_t>(value);
    return static_cast<std::uint64_t>(value);
}

bool appendInteger(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    const auto* const signedValue = std::get_if<std::int64_t>(&value);
    const auto* const unsignedValue = std::get_if<std::uint64_t>(&value);
    if (!signedValue && !unsignedValue)
        return false;
    const bool isDecimal = conversion.letter == 'd' || conversion.letter == 'i';
    if (isDecimal) {
        const bool negative = signedValue && *signedValue < 0;
        const std::uint64_t magnitude = !signedValue ? *unsignedValue
            : negative                               ? 0 - static_cast<std::uint64_t>(*signedValue)
                                                     : static_cast<std::uint64_t>(*signedValue);
        appendNumber(out, conversion, signOf(conversion, negative), integerDigits(conversion, magnitude, 10),
            conversion.precision < 0);
        return true;
    }
    const std::uint64_t magnitude = signedValue ? asUnsigned(conversion, *signedValue) : *unsignedValue;
    const bool prefix = conversion.alternate && conversion.letter != 'u' && magnitude != 0;
    appendNumber(out, conversion,
        !prefix                        ? ""
            : conversion.letter == 'X' ? "0X"
                                       : "0x",
        integerDigits(conversion, magnitude, conversion.letter == 'u' ? 10 : 16), conversion.precision < 0);
    return true;
}

bool appendReal(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    const auto* const real = std::get_if<double>(&value);
    if (!real)
        return false;
    const bool negative = std::signbit(*real);
    const std::string_view sign = signOf(conversion, negative && !std::isnan(*real));
    if (!std::isfinite(*real)) {
        appendNumber(out, conversion, sign, std::isnan(*real) ? "nan" : "inf", false);
        return true;
    }
    const auto form = conversion.letter == 'f' ? std::chars_format::fixed : std::chars_format::general;
    const int precision = conversion.precision < 0 ? 6 : conversion.precision;
    // The longest double has 309 digits before its point.
    std::string digits(static_cast<std::size_t>(precision) + 330, '\0');
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), std::fabs(*real), form, precision).ptr;
    digits.resize(static_cast<std::size_t>(end - digits.data()));
    appendNumber(out, conversion, sign, std::move(digits), true);
    return true;
}

bool appendCharacter(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    char16_t unit = 0;
    if (const auto* const signedValue = std::get_if<std::int64_t>(&value))
        unit = static_cast<unsigned char>(*signedValue);
    else if (const auto* const unsignedValue = std::get_if<std::uint64_t>(&value))
        unit = static_cast<unsigned char>(*unsignedValue);
    else
        return false;
    appendPadded(out, conversion, {&unit, 1});
    return true;
}

bool appendCText(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    const auto* const pointer = std::get_if<const char*>(&value);
    const auto* const object = std::get_if<const NSObject*>(&value);
    // A bare nullptr is text and object alike.
    if (!pointer && (!object || *object))
        return false;
    Text body;
    if (!pointer || !*pointer)
        body = null;
    else if (conversion.precision >= 0)
        appendDecoded(body, {*pointer, strnlen(*pointer, static_cast<std::size_t>(conversion.precision))});
    else
        appendDecoded(body, *pointer);
    appendPadded(out, conversion, body);
    return true;
}

bool appendObject(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    const auto* const object = std::get_if<const NSObject*>(&value);
    if (!object)
        return false;
    Text body(null);
    if (*object) {
        const auto description = (*object)->description();
        if (description)
            body = description->characters();
    }
    if (conversion.precision >= 0 && body.size() > static_cast<std::size_t>(conversion.precision))
        body.resize(static_cast<std::size_t>(conversion.precision));
    appendPadded(out, conversion, body);
    return true;
}

bool appendArgument(Text& out, const Conversion& conversion, const NSFormatArgument::Value& value)
{
    switch (conversion.letter) {
    case '@':
        return appendObject(out, conversion, value);
    case 's':
        return appendCText(out, conversion, value);
    case 'c':
        return appendCharacter(out, conversion, value);
    case 'f':
    case 'g':
        return appendReal(out, conversion, value);
    default:
        return appendInteger(out, conversion, value);
    }
}

/// Reads a format from its conversions' '%' on.
class ConversionReader {
public:
    ConversionReader(std::string_view format, std::size_t index) noexcept : format_(format), index_(index) { }

    /// False where the text is no conversion known here.
    bool read(Conversion& conversion)
    {
        readFlags(conversion);
        conversion.width = std::max(readNumber(), 0);
        if (peek() == '.') {
            ++index_;
            conversion.precision = std::max(readNumber(), 0);
        }
        for (; std::strchr("hlqzjt", peek()) && peek(); ++index_)
            conversion.isLong = conversion.isLong || peek() != 'h';
        conversion.letter = peek();
        if (!conversion.letter || !std::strchr("@scdiuxXfg", conversion.letter))
            return false;
        ++index_;
        return true;
    }
    std::size_t index() const noexcept { return index_; }

private:
    char peek() const noexcept { return index_ < format_.size() ? format_[index_] : '\0'; }

    void readFlags(Conversion& conversion)
    {
        for (;; ++index_) {
            switch (peek()) {
            case '-':
                conversion.left = true;
                break;
            case '0':
                conversion.zero = true;
                break;
            case '+':
                conversion.plus = true;
                break;
            case ' ':
                conversion.space = true;
                break;
            case '#':
                conversion.alternate = true;
                break;
            default:
                return;
            }
        }
    }

    int readNumber()
    {
        int number = -1;
        for (; peek() >= '0' && peek() <= '9'; ++index_)
            number = std::min(std::max(number, 0) * 10 + (peek() - '0'), largestField);
        return number;
    }

    std::string_view format_;
    std::size_t index_;
};

} // namespace

Ref<NSString> NSFormat(std::string_view format, std::initializer_list<NSFormatArgument> arguments)
{
    Text out;
    out.reserve(format.size() * 2);
    const NSFormatArgument* argument = arguments.begin();
    for (std::size_t index = 0; index < format.size();) {
        const std::size_t percent = std::min(format.find('%', index), format.size());
        appendDecoded(out, format.substr(index, percent - index));
        if (percent == format.size())
            break;
        if (format.substr(percent, 2) == "%%") {
            out.push_back(u'%');
            index = percent + 2;
            continue;
        }
        Conversion conversion;
        ConversionReader reader(format, percent + 1);
        if (!reader.read(conversion)) {
            out.push_back(u'%');
            index = percent + 1;
            continue;
        }
        if (argument == arguments.end() || !appendArgument(out, conversion, argument->value()))
            appendPadded(out, conversion, unfit);
        if (argument != arguments.end())
            ++argument;
        index = reader.index();
    }
    return NSString::narrowest(out, false);
}
