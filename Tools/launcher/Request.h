// What the launcher may be asked for.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kf::launcher {

/// The one program that is run, and the one keychain that it is run on.
inline constexpr const char* toolPath = "/usr/bin/security";
inline constexpr const char* systemKeychain = "/Library/Keychains/System.keychain";

struct Request {
    bool isForTheAuthority = false;     ///< came in on the right that is kept
    bool hasPipe = false;               ///< descriptor 1 is the tool's input too
    std::vector<std::string> toolWords; ///< the tool's arguments, up to the certificate's file
    std::string certificate;            ///< that file's absolute path
};

/// Reads the words after the launcher's name. They are
///
///     authority|certificate null|pipe /usr/bin/security
///         add-trusted-cert -k /Library/Keychains/System.keychain -d -r trustRoot FILE
///         | remove-trusted-cert -d FILE
///
/// in this order, each once; FILE is absolute. Nothing for anything else.
std::optional<Request> parseRequest(const std::vector<std::string>& words);

} // namespace kf::launcher
