// Where this computer's keychains stand.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kf::keychain {

class Backend;

/// The machine-wide keychain's directory.
inline constexpr const char* systemKeychainPath = "/Library/Keychains/System.keychain";

/// The directory where the browsers keep the user's certificates: the older
/// place where it is there, else the newer one. Nothing without HOME.
std::optional<std::string> defaultKeychainPath(Backend& backend);

/// The keychains that searches look at, in order: each that is there.
std::vector<std::string> searchListPaths(Backend& backend);

/// Whether a keychain that is not there counts as an empty one: the default
/// keychain before its first item, the System keychain of a new machine.
bool mayBeMissing(const std::string& path);

/// An absolute path without trailing or doubled slashes and without "." and "..".
std::string normalizedPath(const std::string& path);

} // namespace kf::keychain
