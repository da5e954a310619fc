// Running the distribution's programs.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kf::security {

struct CommandResult {
    int exitStatus = 0; ///< 128 + the signal where one ended it; 127 where it could not be started
    std::string output; ///< standard output and error, the first 16 KiB
};

/// Runs a program by its absolute path, with an environment of its own, no
/// input and / as its directory, and waits for it. When `patience` is at its end
/// it is killed, with what it started.
CommandResult runCommand(
    const std::vector<std::string>& words, std::chrono::milliseconds patience = std::chrono::minutes(3));

} // namespace kf::security
