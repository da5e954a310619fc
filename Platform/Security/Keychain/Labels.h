// Labels that NSS can live with.
#pragma once

#include "Security/Keychain/Index.h"

namespace kf::keychain {

/// The text without colons, control characters and outer spaces: NSS reads "token:nickname".
std::string cleanLabel(std::string_view text);

/// What a certificate is called where nobody named it.
std::string defaultLabel(const ParsedCertificate& certificate);

} // namespace kf::keychain
