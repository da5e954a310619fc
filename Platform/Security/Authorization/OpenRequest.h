// Questions that wait for a person's answer, and giving them up.
#pragma once

#include "Security/ScopedDescriptor.h"

namespace kf::authorization {

/// Gives up every question for administrator rights that is open in this
/// process: whoever waits gets errAuthorizationCanceled. Changes nothing where
/// none is open. Any thread.
void cancelOpenRequests();

/// One question, open while this lives.
class OpenRequest {
public:
    OpenRequest();
    OpenRequest(const OpenRequest&) = delete;
    OpenRequest& operator=(const OpenRequest&) = delete;
    ~OpenRequest();

    /// Becomes readable, for good, when the question is given up.
    int descriptor() const noexcept { return event_.get(); }
    bool isCanceled() const noexcept;
    /// Waits until one of the descriptors (-1: none) can be read or has ended; false where the question was given up
    /// first.
    bool waitFor(int one, int other = -1) const noexcept;

private:
    ScopedDescriptor event_;
};

} // namespace kf::authorization
