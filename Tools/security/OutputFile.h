// Files that a command makes for its user.
#pragma once

#include <span>
#include <string>

namespace kf::security {

/// Writes a file that nobody but its owner can read (0600), whole or not at
/// all, also after a crash. What stands there is replaced only where `replaces`
/// is set. Gives what went wrong; empty for nothing.
std::string writeOutputFile(const std::string& path, std::span<const std::uint8_t> content, bool replaces);

} // namespace kf::security
