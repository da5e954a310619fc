// The edge at which a job's exceptions end.
#pragma once

#include "Foundation/NSLog.h"

#include <exception>

namespace kf {

/// Calls `job` and lets nothing out of it: true where it returned, false where
/// it threw, which is logged as far as logging still works.
template <class Job>
bool guarded(const char* name, Job&& job) noexcept
{
    const auto log = [name](const char* reason) noexcept {
        try {
            NSLog("%s ended with an exception: %s", name, reason);
        } catch (...) { // there is nobody left to tell
        }
    };
    try {
        std::forward<Job>(job)();
        return true;
    } catch (const std::exception& exception) {
        log(exception.what());
    } catch (...) {
        log("unknown");
    }
    return false;
}

} // namespace kf
