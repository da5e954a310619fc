// Whoever starts a test program, and however, root too: it changes nothing that everybody on the machine trusts, and
// what that is does not change its outcome. Programs that it starts inherit both.

#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

namespace {

/// Gives this process a user namespace of its own, in which it stays the user that it is.
bool enterUserNamespace()
{
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER) != 0)
        return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user + ' ' + user + " 1";
    std::ofstream("/proc/self/gid_map") << group + ' ' + group + " 1";
    return true;
}

/// Where this machine has a System keychain, puts an empty folder in its place,
/// for this process and those that it starts; where that is not permitted, tests
/// of the search list see it.
bool hideSystemKeychain()
{
    if (::access("/Library/Keychains/System.keychain", F_OK) != 0)
        return false;
    return (::geteuid() == 0 || enterUserNamespace()) && ::unshare(CLONE_NEWNS) == 0
        && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
        && ::mount("tmpfs", "/Library/Keychains", "tmpfs", MS_RDONLY, nullptr) == 0;
}

[[maybe_unused]] const int withoutRights = ::setenv("KEYFOLD_AUTHORIZATION", "none", 0);
[[maybe_unused]] const bool withoutSystemKeychain = hideSystemKeychain();

} // namespace
