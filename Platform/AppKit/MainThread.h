// The way from any thread to the thread of the interface.
#pragma once

#include "AppKit/Selector.h"

#include <functional>

namespace kf {

/// Runs `call` on the main thread and returns when it has ended; at once, and
/// directly, where the caller is the main thread already. False, with `call`
/// not run, where the program has no interface (any more): quitting releases
/// whoever waits. An exception of `call` is logged and ends there.
bool performOnMainThread(const std::function<void()>& call);

} // namespace kf

/// As the platform's message of that name. With `waitUntilDone` false, the call
/// is made when the main thread next takes events.
void performSelectorOnMainThread(const kf::Selector& selector, const Ref<NSObject>& object, bool waitUntilDone);
