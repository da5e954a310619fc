// polkit's authority on the system bus.
#pragma once

#include "Security/Authorization/OpenRequest.h"
#include "Security/Result.h"

#include <string>

namespace kf::authorization {

/// Asks whether this process may do an action, and a person where
/// `interactionAllowed`. Waits as long as the person does, unless the request is
/// given up. Errors as PolkitBackend::obtainRight.
Status checkAuthorization(const std::string& action, bool interactionAllowed, const OpenRequest& request);

} // namespace kf::authorization
