// From the launcher's words to the running tool.
#pragma once

#include "launcher/Request.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::launcher {

struct Places {
    std::string tool = toolPath;
    /// The digest of the deployment's own authority.
    std::string authorityDigest = "/usr/lib/keyfold/authority.sha256";
    uid_t digestOwner = 0;
};

/// Leaves nothing that the caller chose: environment, working directory,
/// descriptors above the standard ones, file mask, limits, timers, signals.
void leaveTheCallersProcess();

/// Does what the words ask for and tells so on descriptor 0 (LaunchReply.h). On
/// success this process becomes the tool, with the certificate's bytes, read
/// with the rights of `caller`, at /dev/fd/3. Gives the exit status where it does not.
int run(const std::vector<std::string>& words, const Places& places, uid_t caller);

} // namespace kf::launcher
