#include "security/OutputFile.h"

#include "Security/ScopedDescriptor.h"
#include "security/FileTools.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace kf::security {

namespace {

/// Removes a name at the end of the scope, unless it was let go.
class TemporaryName {
public:
    explicit TemporaryName(std::string name) : name_(std::move(name)) { }
    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    ~TemporaryName()
    {
        if (!name_.empty())
            ::unlink(name_.c_str());
    }
    const char* get() const noexcept { return name_.c_str(); }
    void release() noexcept { name_.clear(); }

private:
    std::string name_;
};

bool writeAll(int file, std::span<const std::uint8_t> content)
{
    while (!content.empty()) {
        const ssize_t count = ::write(file, content.data(), content.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        content = content.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

bool sync(const std::string& directory)
{
    const ScopedDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened.get() >= 0 && ::fsync(opened.get()) == 0;
}

/// Over nothing, or over what is there. Some file systems know no renaming over nothing.
bool moveTo(const char* from, const char* to, bool replaces)
{
    if (replaces)
        return ::rename(from, to) == 0;
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return true;
    return errno == EINVAL && ::link(from, to) == 0 && ::unlink(from) == 0;
}

} // namespace

std::string writeOutputFile(const std::string& path, std::span<const std::uint8_t> content, bool replaces)
{
    const auto parent = std::filesystem::path(path).parent_path().string();
    const std::string directory = parent.empty() ? "." : parent;
    std::string name = directory + "/.security.XXXXXX";
    const ScopedDescriptor file(::mkostemp(name.data(), O_CLOEXEC)); // mode 0600
    if (file.get() < 0)
        return "cannot write in " + directory + ": " + errorText(errno);
    TemporaryName temporary(name);
    if (!writeAll(file.get(), content) || ::fsync(file.get()) != 0)
        return "cannot be written: " + errorText(errno);
    if (!moveTo(temporary.get(), path.c_str(), replaces))
        return errno == EEXIST ? "is there already; --force replaces it" : "cannot be written: " + errorText(errno);
    temporary.release();
    return sync(directory) ? "" : "may not be safe from a crash yet: " + errorText(errno);
}

} // namespace kf::security
