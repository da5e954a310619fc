// Running a tool through the launcher.
#pragma once

#include "Security/Authorization/Backend.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::authorization {

/// How a launch ended.
enum class LaunchEnd {
    started,         ///< the tool is this process's child
    canceled,        ///< given up while somebody was asked
    notReached,      ///< the launcher did not run
    notTheAuthority, ///< the launcher wants the other way in
    refused,         ///< the launcher does not run such a tool
    failed,          ///< the tool, or what should lead to it, could not be started
};

struct LaunchResult {
    LaunchEnd end;
    pid_t child = -1;    ///< where it was started
    int exitStatus = -1; ///< where the launcher was not reached: of what should have led there
};

/// Starts `prefix` (a program by its absolute path, and words of its own) as a
/// child, with the tool's words behind, and waits until the launcher at its end
/// has told what came of them. `leadsGroup`: it gets a process group of its own,
/// and giving up ends the group.
LaunchResult launch(std::vector<std::string> prefix, const char* way, const ToolCommand& tool, std::FILE** pipe,
    std::optional<std::vector<std::string>> environment, bool leadsGroup);

/// What `execute` gives for a launch. `notReached` is the code for a launcher that did not run.
Result<pid_t> resultOfLaunch(const LaunchResult& result, OSStatus notReached);

} // namespace kf::authorization
