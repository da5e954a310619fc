// Numbers as objects.
#pragma once

#include "Foundation/NSObject.h"

/// An immutable number.
class NSNumber final : public NSObject {
public:
    static Ref<NSNumber> numberWithInt(std::int32_t value);
    static Ref<NSNumber> numberWithUnsignedInt(std::uint32_t value);
    static Ref<NSNumber> numberWithLong(std::int64_t value);
    static Ref<NSNumber> numberWithDouble(double value);

    /// The value cut to 32 bits.
    std::int32_t intValue() const noexcept;
    std::uint32_t unsignedIntValue() const noexcept;
    std::int64_t longValue() const noexcept;
    double doubleValue() const noexcept;

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSNumber"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit NSNumber(std::int64_t value) noexcept : integer_(value), real_(static_cast<double>(value)) { }
    explicit NSNumber(double value) noexcept;
    ~NSNumber() override;

    std::int64_t integer_;
    double real_;
    bool isReal_ = false;
};
