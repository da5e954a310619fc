#include "security/FileTools.h"

#include "Security/ScopedDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
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

bool syncDirectory(const std::string& path)
{
    const ScopedDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.get() >= 0 && ::fsync(directory.get()) == 0;
}

/// A file beside `path` with the content, on the disk; its name, or empty with errno set.
std::string writeTemporary(const std::string& path, const std::string& content, mode_t mode)
{
    std::string temporary = path + ".XXXXXX";
    const ScopedDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0)
        return {};
    if (writeAll(file.get(), content) && ::fchmod(file.get(), mode) == 0 && ::fsync(file.get()) == 0)
        return temporary;
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return {};
}

} // namespace

std::string errorText(int error) { return std::generic_category().message(error); }

std::optional<std::string> readTextFile(const std::string& path)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error)))
        return std::nullopt;
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string writeFileAtomically(const std::string& path, const std::string& content, mode_t mode)
{
    const std::string directory = std::filesystem::path(path).parent_path().string();
    if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
        return "cannot make " + directory + ": " + errorText(errno);
    const std::string temporary = writeTemporary(path, content, mode);
    if (temporary.empty())
        return "cannot write in " + directory + ": " + errorText(errno);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return "cannot write " + path + ": " + errorText(error);
    }
    if (!syncDirectory(directory))
        return "cannot write " + directory + ": " + errorText(errno);
    return {};
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
