// keyfold-unpublish: takes everything back that `security add-trusted-cert -d` has published on this machine, whatever
// certificates they were. The System keychain is not looked at. Needs root; run by the package when it is purged.
#include "security/FileTools.h"
#include "security/TrustPlace.h"

#include <cstdlib>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace kf::security;

/// The same paths and words whatever the caller's environment says.
void cleanEnvironment()
{
    ::clearenv();
    ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    ::setenv("LC_ALL", "C.UTF-8", 1);
    ::umask(022); // what everybody is to read
}

/// Tells each place by itself. False where one of those that decide failed.
bool removeEverything()
{
    bool succeeded = true;
    for (const auto& place : publishedPlaces()) {
        const Outcome outcome = attempt([&] { return place->removeAll(); });
        (outcome.succeeded() ? std::cout : std::cerr) << place->name() << ": " << outcome.text << std::endl;
        succeeded &= outcome.succeeded() || !place->decides();
    }
    return succeeded;
}

} // namespace

int main()
{
    if (::geteuid() != 0) {
        std::cerr << "keyfold-unpublish: only root may change what the machine trusts\n";
        return EXIT_FAILURE;
    }
    cleanEnvironment();
    constexpr auto patience = std::chrono::minutes(4); // longer than any one place takes
    const FileLock turn(turnLock, patience);
    if (!turn.isHeld()) {
        std::cerr << "keyfold-unpublish: another run does not end (" << turnLock << ")\n";
        return EXIT_FAILURE;
    }
    return removeEverything() ? EXIT_SUCCESS : EXIT_FAILURE;
}
