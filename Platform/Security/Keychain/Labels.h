// Labels that NSS can live with.
#pragma once

#include "Security/Keychain/Index.h"

#include <functional>

namespace kf::keychain {

/// The text without colons, control characters and outer spaces: NSS reads "token:nickname".
std::string cleanLabel(std::string_view text);

/// What a certificate is called where nobody named it.
std::string defaultLabel(const ParsedCertificate& certificate);

/// `wanted` where it is free or empty, else with " #2" and so on: the lowest number that is free, where those taken
/// have no gaps. Asks for as many labels as the logarithm of what is taken.
std::string freeLabel(const std::string& wanted, const std::function<bool(const std::string& label)>& isTaken);

} // namespace kf::keychain
