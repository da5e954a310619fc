// Keychains that a command writes to.
#pragma once

#include "Security/SecKeychain.h"

namespace kf::security {

/// Whether this process may try: the System keychain is for administrators. Tells where it may not.
bool requireWritable(const SecKeychainRef& keychain);

} // namespace kf::security
