#include "Security/Keychain/DatabaseFiles.h"

#include "Foundation/NSLog.h"
#include "Security/Keychain/KeptDescriptors.h"
#include "Security/ScopedDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kf::keychain {

namespace {

constexpr auto makersPatience = std::chrono::seconds(5);

constexpr std::array<const char*, 2> fileNames = {"cert9.db", "key4.db"};
constexpr const char* newDirectoryMark = ".keyfold-new-";
/// SQLite takes file names of up to 512 bytes, the longest being a database's journal.
constexpr std::size_t longestDirectory = 512 - std::string_view("/cert9.db-journal").size();

std::string fileIn(const std::string& directory, const char* name) { return directory + "/" + name; }

OSStatus statusOf(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return errSecNoSuchKeychain;
    case EACCES:
    case EPERM:
        return errSecKeychainUnreadable;
    case ENAMETOOLONG:
        return errSecKeychainPathTooLong;
    default:
        return errSecIO;
    }
}

Failure writingFailure(int error)
{
    return Failure{error == EACCES || error == EPERM || error == EROFS ? errSecReadOnly : errSecIO};
}

/// A failure whose cause the status alone does not tell.
Failure logged(OSStatus status, const std::filesystem::path& path, const std::string& cause)
{
    NSLog("%@: %@", NSString::stringWithUTF8String(path.string()), NSString::stringWithUTF8String(cause));
    return Failure{status};
}

Failure makingFailure(int error, const std::filesystem::path& path)
{
    return logged(writingFailure(error).status, path, std::generic_category().message(error));
}

bool hasPartOfOthers(const std::filesystem::path& path)
{
    std::filesystem::path prefix = path.root_path();
    for (const auto& part : path.relative_path()) {
        prefix /= part;
        struct stat status { };
        if (::lstat(prefix.c_str(), &status) == 0 && status.st_uid != 0)
            return true;
    }
    return false;
}

/// Root acts for itself alone: behind a folder or a link of somebody else's, who could lead it anywhere at any moment,
/// it writes nothing.
bool isReachedThroughOthers(const std::filesystem::path& path)
{
    std::error_code ignored;
    return ::geteuid() == 0
        && (hasPartOfOthers(path) || hasPartOfOthers(std::filesystem::weakly_canonical(path, ignored)));
}

/// Whether this user may write, and should: files of another one are left alone also by those who could.
OSStatus writingStatus(const std::string& path, const struct stat& status)
{
    if (status.st_uid != ::geteuid())
        return errSecWrPerm;
    if (::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0)
        return errSecReadOnly;
    return errSecSuccess;
}

Status checkHeader(const std::string& file)
{
    const int descriptor = keptDescriptor(file);
    if (descriptor < 0)
        return Failure{statusOf(errno)};
    constexpr char magic[] = "SQLite format 3"; // with its terminator: 16 bytes
    char header[sizeof magic];
    if (::pread(descriptor, header, sizeof header, 0) != sizeof header || std::memcmp(header, magic, sizeof magic) != 0)
        return Failure{errSecInvalidKeychain};
    return {};
}

std::uint64_t changeCounter(const std::string& file)
{
    const int descriptor = keptDescriptor(file);
    std::uint8_t bytes[4] = {};
    if (descriptor < 0 || ::pread(descriptor, bytes, sizeof bytes, 24) != sizeof bytes)
        return 0;
    return static_cast<std::uint64_t>(bytes[0]) << 24U | static_cast<std::uint64_t>(bytes[1]) << 16U
        | static_cast<std::uint64_t>(bytes[2]) << 8U | bytes[3];
}

/// The nearest directory above that is there decides whose the new ones would be.
Status checkAncestor(const std::filesystem::path& directory)
{
    std::filesystem::path ancestor = directory;
    struct stat status { };
    while (::stat(ancestor.c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            return makingFailure(errno, ancestor);
        if (::lstat(ancestor.c_str(), &status) == 0)
            return logged(errSecKeychainWrongType, ancestor, "a link to something that is not there");
        if (ancestor == ancestor.parent_path())
            return Failure{errSecIO};
        ancestor = ancestor.parent_path();
    }
    if (!S_ISDIR(status.st_mode))
        return logged(errSecKeychainWrongType, ancestor, "no folder");
    // Below a directory of the system's, ordinary permission decides.
    if ((status.st_uid != ::geteuid() && status.st_uid != 0) || isReachedThroughOthers(directory))
        return logged(errSecWrPerm, ancestor, "belongs to somebody else, or stands in somebody else's folder");
    return {};
}

/// A directory with exactly this mode, whatever the process's mask.
bool makeDirectory(const std::filesystem::path& directory, mode_t mode)
{
    return ::mkdir(directory.c_str(), mode) == 0 && ::chmod(directory.c_str(), mode) == 0;
}

Status makeDirectories(const std::filesystem::path& directory, mode_t mode)
{
    if (directory == directory.root_path() || makeDirectory(directory, mode) || errno == EEXIST)
        return {};
    if (errno != ENOENT)
        return makingFailure(errno, directory);
    if (const auto made = makeDirectories(directory.parent_path(), mode); !made)
        return made;
    if (!makeDirectory(directory, mode) && errno != EEXIST)
        return makingFailure(errno, directory);
    return {};
}

/// False, with EEXIST, where something stands there. File systems that cannot promise it are looked at first.
bool renameWithoutReplacing(const std::string& from, const std::string& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    struct stat status { };
    if (::lstat(to.c_str(), &status) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool isThere(const std::string& file)
{
    struct stat status { };
    return ::lstat(file.c_str(), &status) == 0;
}

/// Moves a database's file over nothing. True also where one stands there.
bool moveFile(const std::string& from, const std::string& to, const char* name)
{
    // A journal without its file is left of a database that was deleted. SQLite would roll it back into the new one.
    if (!isThere(fileIn(to, name)))
        for (const char* suffix : {"-journal", "-wal"})
            ::unlink((fileIn(to, name) + suffix).c_str());
    return renameWithoutReplacing(fileIn(from, name), fileIn(to, name)) || errno == EEXIST;
}

/// Where a new database is made: beside its place.
struct Place {
    std::filesystem::path target;
    std::filesystem::path parent;
    std::string prefix; ///< of the names of the directories in which it is made

    /// A link to a folder keeps being one: the database is made, and moved, where the link leads.
    static Result<Place> of(const std::string& path)
    {
        std::error_code error;
        const std::filesystem::path target = std::filesystem::weakly_canonical(path, error);
        if (error)
            return makingFailure(error.value(), path);
        return Place{target, target.parent_path(), "." + target.filename().string() + newDirectoryMark};
    }
};

/// One maker at a time. Whoever may read the folder can hold its lock, so nobody waits for ever.
Result<ScopedDescriptor> lockParent(const std::filesystem::path& parent)
{
    ScopedDescriptor lock(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.get() < 0)
        return makingFailure(errno, parent);
    const auto deadline = std::chrono::steady_clock::now() + makersPatience;
    while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return makingFailure(errno, parent);
        if (std::chrono::steady_clock::now() >= deadline)
            return logged(errSecKeychainBusy, parent, "kept locked by another program");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return lock;
}

/// This user's directories whose names begin so.
std::vector<std::string> leftovers(const Place& place)
{
    std::vector<std::string> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(place.parent, ignored)) {
        struct stat status { };
        if (entry.path().filename().string().starts_with(place.prefix) && ::lstat(entry.path().c_str(), &status) == 0
            && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid())
            found.push_back(entry.path());
    }
    return found;
}

} // namespace

Result<DatabaseFiles> inspectDatabase(const std::string& path)
{
    struct stat directory { };
    if (::stat(path.c_str(), &directory) != 0)
        return Failure{statusOf(errno)};
    if (!S_ISDIR(directory.st_mode))
        return Failure{errSecKeychainWrongType};
    if (path.size() > longestDirectory)
        return Failure{errSecKeychainPathTooLong};
    DatabaseFiles files;
    files.writing = isReachedThroughOthers(path) ? errSecWrPerm : writingStatus(path, directory);
    files.identity.numbers[0] = directory.st_dev;
    files.identity.numbers[1] = directory.st_ino;

    struct stat status[fileNames.size()] = {};
    std::size_t missing = 0;
    for (std::size_t index = 0; index < fileNames.size(); ++index) {
        if (::stat(fileIn(path, fileNames[index]).c_str(), &status[index]) == 0)
            continue;
        if (errno != ENOENT)
            return Failure{statusOf(errno)};
        ++missing;
    }
    if (missing > 0)
        return Failure{missing == fileNames.size() ? errSecNoSuchKeychain : errSecKeychainIncomplete};

    for (std::size_t index = 0; index < fileNames.size(); ++index) {
        const std::string file = fileIn(path, fileNames[index]);
        const bool isKeys = index == 1;
        if (!S_ISREG(status[index].st_mode))
            return Failure{errSecKeychainWrongType};
        if (status[index].st_size == 0)
            return Failure{errSecKeychainEmpty};
        const auto header = checkHeader(file);
        if (isKeys && header.status() == errSecKeychainUnreadable)
            files.keysReadable = false;
        else if (!header)
            return header.failure();
        files.identity.numbers[2 + 2 * index] = status[index].st_dev;
        files.identity.numbers[3 + 2 * index] = status[index].st_ino;
        if (files.writing == errSecSuccess)
            files.writing = writingStatus(file, status[index]);
    }
    return files;
}

bool holdsDatabaseFiles(const std::string& path)
{
    for (const char* name : fileNames) {
        struct stat status { };
        if (::lstat(fileIn(path, name).c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR))
            return true;
    }
    return false;
}

bool isBeingWritten(const std::string& path)
{
    return std::ranges::any_of(fileNames, [&](const char* name) { return isLockedForWriting(fileIn(path, name)); });
}

Result<Generation> databaseGeneration(const std::string& path)
{
    Generation generation{};
    for (std::size_t index = 0; index < fileNames.size(); ++index) {
        const std::string file = fileIn(path, fileNames[index]);
        struct stat status { };
        if (::stat(file.c_str(), &status) != 0)
            return Failure{statusOf(errno)};
        generation[4 * index] = status.st_dev;
        generation[4 * index + 1] = status.st_ino;
        generation[4 * index + 2] = static_cast<std::uint64_t>(status.st_size);
        generation[4 * index + 3] = changeCounter(file);
    }
    return generation;
}

NewDatabase::NewDatabase(std::string path, bool readableByAll, ScopedDescriptor parentLock) noexcept
    : path_(std::move(path)), readableByAll_(readableByAll), parentLock_(std::move(parentLock))
{
}

Result<std::unique_ptr<NewDatabase>> NewDatabase::begin(const std::string& path, bool readableByAll)
{
    if (const auto allowed = checkAncestor(path); !allowed)
        return allowed.failure();
    const auto place = Place::of(path);
    if (!place)
        return place.failure();
    const auto& parent = place->parent;
    std::string pattern = (parent / (place->prefix + "XXXXXX")).string();
    if (pattern.size() > longestDirectory)
        return logged(errSecKeychainPathTooLong, path, "too long for a database");
    if (const auto made = makeDirectories(parent, readableByAll ? 0755 : 0700); !made)
        return made.failure();
    auto lock = lockParent(parent);
    if (!lock)
        return lock.failure();
    // What a maker that died left behind goes.
    std::error_code ignored;
    for (const auto& leftover : leftovers(*place))
        std::filesystem::remove_all(leftover, ignored);
    if (!::mkdtemp(pattern.data()))
        return makingFailure(errno, parent);
    std::unique_ptr<NewDatabase> fresh(new NewDatabase(place->target, readableByAll, std::move(*lock)));
    fresh->directory_ = pattern;
    return fresh;
}

NewDatabase::~NewDatabase()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

bool NewDatabase::finishMove(const std::string& path)
{
    const auto place = Place::of(path);
    if (!place || !checkAncestor(path))
        return false;
    const auto lock = lockParent(place->parent);
    if (!lock)
        return false;
    const std::string target = place->target;
    for (const auto& leftover : leftovers(*place)) {
        // The keys' file goes first: one without its sibling, there and here, tells that they belong together.
        if (!isThere(fileIn(target, "key4.db")) || isThere(fileIn(target, "cert9.db"))
            || isThere(fileIn(leftover, "key4.db")) || !moveFile(leftover, target, "cert9.db"))
            continue;
        std::error_code ignored;
        std::filesystem::remove_all(leftover, ignored);
        return true;
    }
    return false;
}

Status NewDatabase::moveIntoPlace()
{
    if (holdsDatabaseFiles(path_))
        return {};
    if (readableByAll_
        && (::chmod(directory_.c_str(), 0755) != 0 || ::chmod(fileIn(directory_, "cert9.db").c_str(), 0644) != 0))
        return makingFailure(errno, directory_);
    // Takes the place of nothing, or of an empty directory.
    if (::rename(directory_.c_str(), path_.c_str()) == 0)
        return ::fsync(parentLock_.get()) == 0 ? Status() : makingFailure(errno, path_);
    if (errno != ENOTEMPTY && errno != EEXIST)
        return makingFailure(errno, path_);
    // A directory with other things in it: the files move one by one. Where one has appeared since, NSS made it in
    // another program, which then takes the other one as it finds it.
    for (const char* name : {"key4.db", "cert9.db"})
        if (!moveFile(directory_, path_, name))
            return makingFailure(errno, path_);
    return {};
}

} // namespace kf::keychain
