// The launcher with a tool and a digest of a test's own: they are named in the file "places" beside the program.
#include "launcher/Launcher.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

int main(int count, char** words)
{
    kf::launcher::leaveTheCallersProcess();
    kf::launcher::Places places;
    std::ifstream file(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "places");
    std::getline(file, places.tool);
    std::getline(file, places.authorityDigest);
    places.digestOwner = ::getuid();
    return kf::launcher::run(std::vector<std::string>(words + 1, words + count), places, ::getuid());
}
