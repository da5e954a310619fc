#include "Foundation/NSNumber.h"

#include "Foundation/NSFormat.h"

#include <bit>
#include <cmath>
#include <limits>

namespace {

/// The integer part, held within what 64 bits hold; 0 for what is no number.
std::int64_t truncated(double value) noexcept
{
    constexpr double bound = 9223372036854775808.0;
    if (std::isnan(value))
        return 0;
    if (value >= bound)
        return std::numeric_limits<std::int64_t>::max();
    if (value < -bound)
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

} // namespace

NSNumber::NSNumber(double value) noexcept : integer_(truncated(value)), real_(value), isReal_(true) { }
NSNumber::~NSNumber() = default;

Ref<NSNumber> NSNumber::numberWithInt(std::int32_t value) { return makeRef<NSNumber>(std::int64_t{value}); }
Ref<NSNumber> NSNumber::numberWithUnsignedInt(std::uint32_t value) { return makeRef<NSNumber>(std::int64_t{value}); }
Ref<NSNumber> NSNumber::numberWithLong(std::int64_t value) { return makeRef<NSNumber>(value); }
Ref<NSNumber> NSNumber::numberWithDouble(double value) { return makeRef<NSNumber>(value); }

std::int32_t NSNumber::intValue() const noexcept { return static_cast<std::int32_t>(integer_); }
std::uint32_t NSNumber::unsignedIntValue() const noexcept { return static_cast<std::uint32_t>(integer_); }
std::int64_t NSNumber::longValue() const noexcept { return integer_; }
double NSNumber::doubleValue() const noexcept { return real_; }

bool NSNumber::isEqual(const NSObject* other) const noexcept
{
    if (this == other)
        return true;
    const auto* const number = dynamic_cast<const NSNumber*>(other);
    // Both: large integers may differ where their doubles do not, and doubles where their integer parts do not.
    return number && number->integer_ == integer_ && number->real_ == real_;
}

CFHashCode NSNumber::hash() const noexcept { return std::bit_cast<CFHashCode>(integer_); }

Ref<NSString> NSNumber::description() const
{
    return isReal_ ? NSStringWithFormat("%.15g", real_) : NSStringWithFormat("%ld", integer_);
}
