// A message that is named and bound to its receiver.
#pragma once

#include "Foundation/NSObject.h"

#include <functional>
#include <string>

namespace kf {

/// What is handed to a runner instead of a selector and its target: the name,
/// which logs and tests show, and the call.
struct Selector {
    std::string name;
    std::function<void(const Ref<NSObject>& object)> call;

    explicit operator bool() const noexcept { return static_cast<bool>(call); }
};

/// A member function without arguments, bound to its object, which must outlive the selector.
template <class T>
Selector selector(std::string name, T* target, void (T::*member)())
{
    return {std::move(name), [target, member](const Ref<NSObject>&) { (target->*member)(); }};
}

} // namespace kf
