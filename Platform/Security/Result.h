// The one result type inside the platform: a value, or the status that says
// why there is none.
#pragma once

#include "Security/SecBase.h"

#include <cassert>
#include <optional>
#include <utility>

namespace kf {

/// A failure on its way to a Result of any type. Never success.
struct Failure {
    OSStatus status;
};

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : value_(std::move(value)) {}
    Result(Failure failure) noexcept : status_(failure.status) { assert(failure.status != errSecSuccess); }

    explicit operator bool() const noexcept { return value_.has_value(); }
    OSStatus status() const noexcept { return status_; }
    Failure failure() const noexcept { return Failure{status_}; }
    T& value() & { return *value_; }
    const T& value() const& { return *value_; }
    T&& value() && { return std::move(*value_); }
    T* operator->() { return &*value_; }
    const T* operator->() const { return &*value_; }
    T& operator*() & { return *value_; }
    const T& operator*() const& { return *value_; }
    T&& operator*() && { return std::move(*value_); }

private:
    std::optional<T> value_;
    OSStatus status_ = errSecSuccess;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() noexcept = default;
    Result(Failure failure) noexcept : status_(failure.status) { assert(failure.status != errSecSuccess); }

    explicit operator bool() const noexcept { return status_ == errSecSuccess; }
    OSStatus status() const noexcept { return status_; }
    Failure failure() const noexcept { return Failure{status_}; }

private:
    OSStatus status_ = errSecSuccess;
};

using Status = Result<void>;

} // namespace kf
