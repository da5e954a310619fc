// Which keychains a call is about.
#pragma once

#include "Security/Result.h"
#include "Security/SecKeychain.h"

#include <vector>

namespace kf::keychain {

/// The keychains of a SecKeychain, an array of them, or (nil) the search list.
/// errSecParam for anything else.
Result<std::vector<SecKeychainRef>> targetKeychains(const Ref<NSObject>& keychainOrArray);

} // namespace kf::keychain
