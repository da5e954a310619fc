#include "launcher/Certificate.h"

#include "Security/ScopedDescriptor.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kf::launcher {

namespace {

constexpr std::size_t sizeLimit = 64UL * 1024;

std::string errorText(int error) { return std::generic_category().message(error); }

/// Lets this process act with a user's rights while it lives. It ends the
/// process where the rights cannot be put back.
class ActingAs {
public:
    explicit ActingAs(uid_t user)
    {
        if (user == ::geteuid())
            return;
        const passwd* entry = ::getpwuid(user);
        isRight_ = entry && ::initgroups(entry->pw_name, entry->pw_gid) == 0 && ::setegid(entry->pw_gid) == 0
            && ::seteuid(user) == 0;
        isChanged_ = true;
    }
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;
    ~ActingAs()
    {
        const gid_t own = ::getgid();
        if (isChanged_ && (::seteuid(::getuid()) != 0 || ::setegid(own) != 0 || ::setgroups(1, &own) != 0))
            ::_exit(EXIT_FAILURE);
    }
    explicit operator bool() const noexcept { return isRight_; }

private:
    bool isChanged_ = false;
    bool isRight_ = true;
};

/// Opens for reading; without O_NONBLOCK a named pipe would keep us waiting before we see what it is.
ScopedDescriptor openFile(const std::string& path)
{
    return ScopedDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW));
}

FileContent failed(std::string error) { return {std::nullopt, std::move(error)}; }

FileContent readAll(int file)
{
    struct stat status = {};
    if (::fstat(file, &status) != 0)
        return failed(errorText(errno));
    if (!S_ISREG(status.st_mode))
        return failed("is not a regular file");
    Bytes bytes(sizeLimit + 1);
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(file, bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(errorText(errno));
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    if (length > sizeLimit)
        return failed("is larger than 64 KiB");
    bytes.resize(length);
    return {std::move(bytes), {}};
}

std::string digestOf(const Bytes& bytes)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1)
        return {};
    std::string text;
    for (unsigned int index = 0; index < length; ++index) {
        constexpr const char* digits = "0123456789abcdef";
        text += digits[digest[index] >> 4];
        text += digits[digest[index] & 0x0F];
    }
    return text;
}

bool writeAll(int file, const Bytes& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::write(file, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

FileContent readAs(uid_t reader, const std::string& path)
{
    const ActingAs acting(reader);
    if (!acting)
        return failed("cannot be read with the caller's rights");
    const ScopedDescriptor file = openFile(path);
    if (file.get() < 0)
        return failed(errno == ELOOP ? std::string("is a symbolic link") : errorText(errno));
    return readAll(file.get());
}

bool matchesDigest(const Bytes& bytes, const std::string& digestFile, uid_t owner)
{
    const ScopedDescriptor file = openFile(digestFile);
    struct stat status = {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || status.st_uid != owner
        || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return false;
    const FileContent content = readAll(file.get());
    const std::string digest = digestOf(bytes);
    return content.bytes && !digest.empty()
        && std::string(content.bytes->begin(), content.bytes->end()).starts_with(digest);
}

bool passBytes(const Bytes& bytes, int descriptor)
{
    ScopedDescriptor memory(::memfd_create("certificate", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    constexpr int everySeal = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;
    if (memory.get() < 0 || !writeAll(memory.get(), bytes) || ::lseek(memory.get(), 0, SEEK_SET) != 0
        || ::fcntl(memory.get(), F_ADD_SEALS, everySeal) != 0)
        return false;
    if (memory.get() == descriptor)
        return ::fcntl(memory.leak(), F_SETFD, 0) == 0;
    return ::dup2(memory.get(), descriptor) == descriptor;
}

} // namespace kf::launcher
