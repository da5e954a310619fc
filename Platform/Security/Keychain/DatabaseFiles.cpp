#include "Security/Keychain/DatabaseFiles.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace kf::keychain {

namespace {

constexpr auto makersPatience = std::chrono::seconds(5);

constexpr std::array<const char*, 2> fileNames = {"cert9.db", "key4.db"};
constexpr const char* newDirectoryMark = ".keyfold-new-";

class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) { }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    int get() const noexcept { return descriptor_; }

private:
    int descriptor_;
};

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
    default:
        return errSecIO;
    }
}

Failure writingFailure(int error)
{
    return Failure{error == EACCES || error == EPERM || error == EROFS ? errSecReadOnly : errSecIO};
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
    const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (descriptor.get() < 0)
        return Failure{statusOf(errno)};
    constexpr char magic[] = "SQLite format 3"; // with its terminator: 16 bytes
    char header[sizeof magic];
    if (::pread(descriptor.get(), header, sizeof header, 0) != sizeof header
        || std::memcmp(header, magic, sizeof magic) != 0)
        return Failure{errSecInvalidKeychain};
    return {};
}

std::uint64_t changeCounter(const std::string& file)
{
    const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::uint8_t bytes[4] = {};
    if (descriptor.get() < 0 || ::pread(descriptor.get(), bytes, sizeof bytes, 24) != sizeof bytes)
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
        if (errno != ENOENT)
            return writingFailure(errno);
        if (ancestor == ancestor.parent_path())
            return Failure{errSecIO};
        ancestor = ancestor.parent_path();
    }
    if (!S_ISDIR(status.st_mode))
        return Failure{errSecKeychainWrongType};
    // Below a directory of the system's, ordinary permission decides.
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return Failure{errSecWrPerm};
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
        return writingFailure(errno);
    if (const auto made = makeDirectories(directory.parent_path(), mode); !made)
        return made;
    if (!makeDirectory(directory, mode) && errno != EEXIST)
        return writingFailure(errno);
    return {};
}

void removeLeftovers(const std::filesystem::path& parent, const std::string& prefix)
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(parent, ignored))
        if (entry.path().filename().string().starts_with(prefix))
            std::filesystem::remove_all(entry.path(), ignored);
}

} // namespace

Result<DatabaseFiles> inspectDatabase(const std::string& path)
{
    struct stat directory { };
    if (::stat(path.c_str(), &directory) != 0)
        return Failure{statusOf(errno)};
    if (!S_ISDIR(directory.st_mode))
        return Failure{errSecKeychainWrongType};
    DatabaseFiles files;
    files.writing = writingStatus(path, directory);
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

NewDatabase::NewDatabase(std::string path, bool readableByAll, int parentLock) noexcept
    : path_(std::move(path)), readableByAll_(readableByAll), parentLock_(parentLock)
{
}

Result<std::unique_ptr<NewDatabase>> NewDatabase::begin(const std::string& path, bool readableByAll)
{
    const std::filesystem::path target(path);
    const std::filesystem::path parent = target.parent_path();
    if (const auto allowed = checkAncestor(target); !allowed)
        return allowed.failure();
    if (const auto made = makeDirectories(parent, readableByAll ? 0755 : 0700); !made)
        return made.failure();
    const int lock = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock < 0)
        return writingFailure(errno);
    std::unique_ptr<NewDatabase> fresh(new NewDatabase(path, readableByAll, lock));
    // One maker at a time; what an earlier one that died left behind goes. Whoever may read the folder can hold its
    // lock, so nobody waits for ever.
    const auto deadline = std::chrono::steady_clock::now() + makersPatience;
    while (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return Failure{errSecIO};
        if (std::chrono::steady_clock::now() >= deadline)
            return Failure{errSecKeychainBusy};
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::string prefix = "." + target.filename().string() + newDirectoryMark;
    removeLeftovers(parent, prefix);
    std::string pattern = (parent / (prefix + "XXXXXX")).string();
    if (!::mkdtemp(pattern.data()))
        return writingFailure(errno);
    fresh->directory_ = pattern;
    return fresh;
}

NewDatabase::~NewDatabase()
{
    std::error_code ignored;
    if (!directory_.empty())
        std::filesystem::remove_all(directory_, ignored);
    ::close(parentLock_);
}

Status NewDatabase::moveIntoPlace()
{
    if (holdsDatabaseFiles(path_))
        return {};
    if (readableByAll_
        && (::chmod(directory_.c_str(), 0755) != 0 || ::chmod(fileIn(directory_, "cert9.db").c_str(), 0644) != 0))
        return writingFailure(errno);
    if (::rename(directory_.c_str(), path_.c_str()) == 0)
        return {};
    if (errno != ENOTEMPTY && errno != EEXIST)
        return writingFailure(errno);
    // A directory with other things in it: the files move one by one.
    for (const char* name : {"key4.db", "cert9.db"})
        if (::rename(fileIn(directory_, name).c_str(), fileIn(path_, name).c_str()) != 0)
            return writingFailure(errno);
    return {};
}

} // namespace kf::keychain
