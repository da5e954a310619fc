// Pass phrases on their way to libraries that want bytes.
#pragma once

#include "Foundation/NSString.h"
#include "Foundation/SecretBytes.h"

#include <optional>

namespace kf::keychain {

/// UTF-8 in wiped memory; nothing where the text holds an unpaired surrogate.
std::optional<SecretBytes> secretUTF8(const NSString& text);

} // namespace kf::keychain
