// Texts of the authorization codes.
#pragma once

#include "Security/SecBase.h"

namespace kf {

/// The text of an errAuthorization code, success included; nil for every other code. Any thread.
Ref<NSString> authorizationErrorText(OSStatus status);

} // namespace kf
