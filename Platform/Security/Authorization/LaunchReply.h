// What the launcher tells the program that wants a tool run.
#pragma once

namespace kf::authorization {

/// The launcher's descriptor 0 is one end of a connection. It sends one of
/// these bytes and then ends, or becomes the tool. Nothing at all means that
/// the launcher was not reached.
enum class LaunchReply : char {
    /// The tool is being started. With the byte comes a descriptor, the reading
    /// end of a pipe that nobody but the launcher holds: it ends unread when the
    /// tool runs, and gives an errno (an int) where that could not be started.
    starting = 's',
    /// The words are not of the grammar: nothing was done.
    refused = 'r',
    /// The certificate is not the deployment's own: it takes the other way in.
    notTheAuthority = 'o',
    /// The certificate could not be read, or something else went wrong: nothing was done.
    failed = 'f',
};

/// The launcher's first word, its way in: each is a polkit action of its own.
inline constexpr const char* wayOfTheAuthority = "authority";
inline constexpr const char* wayOfAnyCertificate = "certificate";

/// The launcher's second word: whether descriptor 1 is the tool's input too.
inline constexpr const char* withPipe = "pipe";
inline constexpr const char* withoutPipe = "null";

/// Where the launcher is installed.
inline constexpr const char* launcherPath = "/usr/libexec/keyfold/keyfold-launcher";

} // namespace kf::authorization
