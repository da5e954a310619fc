// Running the distribution's programs.
#pragma once

#include <string>
#include <vector>

namespace kf::security {

struct CommandResult {
    int exitStatus = 0; ///< 128 + the signal where one ended it; 127 where it could not be started
    std::string output; ///< standard output and error
};

/// Runs a program by its absolute path, with an environment of its own, no
/// input and / as its directory, and waits for it.
CommandResult runCommand(const std::vector<std::string>& words);

} // namespace kf::security
