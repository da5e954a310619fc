#include "security/FileTools.h"

#include "Security/ScopedDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace kf::security {

namespace {

bool writeAll(int descriptor, const std::string& content)
{
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = ::write(descriptor, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

std::string directoryOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

std::string syncDirectory(const std::string& path)
{
    const ScopedDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0 && ::fsync(directory.get()) == 0)
        return {};
    return "cannot write " + path + ": " + errorText(errno);
}

/// Always the same name: what one run leaves behind the next one finds.
std::string temporaryOf(const std::string& path)
{
    const std::filesystem::path file(path);
    return (file.parent_path() / ("." + file.filename().string() + ".keyfold-new")).string();
}

/// Owner and mode of the file that is replaced, or `mode` where there is none.
bool dress(int descriptor, const std::string& path, mode_t mode)
{
    struct stat old = {};
    if (::lstat(path.c_str(), &old) != 0 || !S_ISREG(old.st_mode))
        return ::fchmod(descriptor, mode) == 0;
    return ::fchown(descriptor, old.st_uid, old.st_gid) == 0 && ::fchmod(descriptor, old.st_mode & 07777U) == 0;
}

/// The temporary file with the content, on the disk; false with errno set.
bool writeTemporary(const std::string& path, const std::string& content, mode_t mode)
{
    const std::string temporary = temporaryOf(path);
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT)
        return false;
    const ScopedDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (file.get() < 0)
        return false;
    if (writeAll(file.get(), content) && dress(file.get(), path, mode) && ::fsync(file.get()) == 0)
        return true;
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return false;
}

std::string removeEntry(const std::string& path)
{
    // Deleting would fail where nothing can be written, though there is nothing to delete.
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR))
        return {};
    if (::unlink(path.c_str()) == 0 || errno == ENOENT)
        return syncDirectory(directoryOf(path));
    return "cannot delete " + path + ": " + errorText(errno);
}

FileContent notRead(int error) { return {std::nullopt, errorText(error), error == ENOENT}; }

} // namespace

std::string errorText(int error) { return std::generic_category().message(error); }

std::string shownText(const std::string& text)
{
    std::string shown;
    for (const char character : text) {
        constexpr char digits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7F)
            shown += character;
        else
            shown += {'\\', 'x', digits[byte >> 4U], digits[byte & 0x0FU]};
    }
    return shown;
}

FileContent readFile(const std::string& path, std::size_t sizeLimit, bool followsLink)
{
    // Without O_NONBLOCK a named pipe would keep us waiting before we see what it is.
    const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (followsLink ? 0 : O_NOFOLLOW);
    const ScopedDescriptor file(::open(path.c_str(), flags));
    if (file.get() < 0)
        return errno == ELOOP ? FileContent{std::nullopt, "is a symbolic link"} : notRead(errno);
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return notRead(errno);
    if (!S_ISREG(status.st_mode))
        return {std::nullopt, "is not a regular file"};
    constexpr std::size_t step = 64UL * 1024;
    std::string text;
    for (std::size_t length = 0; length <= sizeLimit;) {
        text.resize(std::min(length + step, sizeLimit + 1));
        const ssize_t count = ::read(file.get(), text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return notRead(errno);
        length += static_cast<std::size_t>(count);
        if (count == 0) {
            text.resize(length);
            return {std::move(text), {}};
        }
    }
    return {std::nullopt, "is larger than " + std::to_string(sizeLimit / 1024) + " KiB"};
}

std::string writeFileAtomically(const std::string& path, const std::string& content, mode_t mode)
{
    const std::string directory = directoryOf(path);
    if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
        return "cannot make " + directory + ": " + errorText(errno);
    if (!writeTemporary(path, content, mode))
        return "cannot write in " + directory + ": " + errorText(errno);
    if (::rename(temporaryOf(path).c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporaryOf(path).c_str());
        return "cannot write " + path + ": " + errorText(error);
    }
    if (std::string error = syncDirectory(directory); !error.empty())
        return error;
    if (readFile(path, content.size()).text != content)
        return path + " does not hold what was written";
    return {};
}

std::string removeLeftover(const std::string& path) { return removeEntry(temporaryOf(path)); }

std::string removeFile(const std::string& path)
{
    std::string error = removeLeftover(path);
    return error.empty() ? removeEntry(path) : error;
}

std::vector<std::string> missingDirectories(const std::string& directory)
{
    std::vector<std::string> missing;
    std::error_code ignored;
    for (std::filesystem::path path = directory; path.has_relative_path() && !std::filesystem::exists(path, ignored);
         path = path.parent_path())
        missing.insert(missing.begin(), path.string());
    return missing;
}

FileLock::FileLock(const std::string& path, std::chrono::milliseconds patience)
{
    using namespace std::chrono;
    constexpr auto pause = milliseconds(50);
    ScopedDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const auto deadline = steady_clock::now() + patience;
    while (file.get() >= 0) {
        if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            descriptor_ = file.leak();
            return;
        }
        if ((errno != EWOULDBLOCK && errno != EINTR) || steady_clock::now() > deadline)
            return;
        std::this_thread::sleep_for(pause);
    }
}

FileLock::~FileLock()
{
    if (descriptor_ >= 0)
        ::close(descriptor_);
}

} // namespace kf::security
