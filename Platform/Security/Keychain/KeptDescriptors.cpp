#include "Security/Keychain/KeptDescriptors.h"

#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kf::keychain {

namespace {

/// Where SQLite's locks lie (SQLite file format; os.h, PENDING_BYTE): the pending and the reserved byte, and 510 shared
/// ones.
constexpr off_t locksStart = 0x40000000;
constexpr off_t locksLength = 512;

using FileId = std::pair<dev_t, ino_t>;

struct Kept {
    std::mutex mutex;
    /// By file, not by path: an open file's number is given to no other one.
    std::multimap<FileId, int> descriptors;
};

/// Never destroyed: threads that outlive main() may still read a keychain.
Kept& kept()
{
    static Kept* const instance = new Kept;
    return *instance;
}

FileId idOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

} // namespace

int keptDescriptor(const std::string& file)
{
    struct stat status { };
    if (::faccessat(AT_FDCWD, file.c_str(), R_OK, AT_EACCESS) != 0 || ::stat(file.c_str(), &status) != 0)
        return -1;
    const std::lock_guard lock(kept().mutex);
    if (const auto found = kept().descriptors.find(idOf(status)); found != kept().descriptors.end())
        return found->second;
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0)
        return -1;
    return kept().descriptors.emplace(idOf(status), descriptor)->second;
}

bool isLockedForWriting(const std::string& file)
{
    struct flock wanted { };
    wanted.l_type = F_RDLCK;
    wanted.l_whence = SEEK_SET;
    wanted.l_start = locksStart;
    wanted.l_len = locksLength;
    const int descriptor = keptDescriptor(file);
    // Of an open file description's own, it meets this process's locks too.
    return descriptor >= 0 && ::fcntl(descriptor, F_OFD_GETLK, &wanted) == 0 && wanted.l_type != F_UNLCK;
}

void closeKeptDescriptors()
{
    const std::lock_guard lock(kept().mutex);
    for (const auto& [id, descriptor] : kept().descriptors)
        ::close(descriptor);
    kept().descriptors.clear();
}

} // namespace kf::keychain
