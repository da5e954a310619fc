#include "Security/Identity/PreferenceFile.h"

#include "Security/ScopedDescriptor.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace kf {

namespace {

constexpr std::string_view head = "keyfold-identity-preference 1\ncertificate ";
constexpr std::string_view beforeName = "\nname ";
constexpr std::string_view tail = "\nend\n";
constexpr std::array ourFolders = {"keyfold", "identity-preferences"};
constexpr mode_t folderMode = 0700;
constexpr mode_t fileMode = 0600;

std::string hexadecimal(std::span<const std::uint8_t> bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::optional<Digest> digestOfHexadecimal(std::string_view text)
{
    Digest digest{};
    for (std::size_t index = 0; index < digest.size(); ++index) {
        const char* const first = text.data() + 2 * index;
        const auto [end, error] = std::from_chars(first, first + 2, digest[index], 16);
        if (error != std::errc() || end != first + 2)
            return std::nullopt;
    }
    return digest;
}

std::string recordOf(std::string_view name, const Digest& certificate)
{
    return std::string(head) + hexadecimal(certificate) + std::string(beforeName) + std::string(name)
        + std::string(tail);
}

/// The digest in a record about this name; nothing where the text is anything else.
std::optional<Digest> certificateIn(std::string_view text, std::string_view name)
{
    const auto digest =
        text.size() >= head.size() + 2 * Digest().size() ? digestOfHexadecimal(text.substr(head.size())) : std::nullopt;
    return digest && text == recordOf(name, *digest) ? digest : std::nullopt;
}

std::string fileNameOf(std::string_view name)
{
    return hexadecimal(sha256({reinterpret_cast<const std::uint8_t*>(name.data()), name.size()}));
}

/// The user's data directory; empty where it is not known.
std::filesystem::path dataDirectory()
{
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && data[0] == '/')
        return data;
    const char* home = std::getenv("HOME");
    return home && home[0] == '/' ? std::filesystem::path(home) / ".local/share" : std::filesystem::path();
}

Failure failureOf(int error)
{
    switch (error) {
    case ENOENT:
        return Failure{errSecItemNotFound};
    case ENOTDIR:
    case ELOOP:
        return Failure{errSecPreferenceDamaged};
    case EACCES:
    case EPERM:
    case EROFS:
        return Failure{errSecWrPerm};
    default:
        return Failure{errSecIO};
    }
}

enum class Purpose { read, write };

/// Makes a folder, unless its parent is another person's. Below the system's own folders ordinary permission decides.
Status makeFolder(int parent, const char* name)
{
    struct stat status { };
    if (::fstat(parent, &status) != 0)
        return failureOf(errno);
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return Failure{errSecWrPerm};
    return ::mkdirat(parent, name, folderMode) == 0 || errno == EEXIST ? Status() : failureOf(errno);
}

/// A folder below another one; made where it is missing and written to.
Result<ScopedDescriptor> openFolder(int parent, const char* name, Purpose purpose, int flags)
{
    // Not read: folders on the way need only be passed through.
    const auto open = [&] {
        return ScopedDescriptor(::openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
    };
    ScopedDescriptor folder = open();
    if (folder.get() < 0 && errno == ENOENT && purpose == Purpose::write) {
        if (const auto made = makeFolder(parent, name); !made)
            return made.failure();
        folder = open();
    }
    if (folder.get() < 0)
        return failureOf(errno);
    return folder;
}

/// The folder of the records. The data directory may be a link to elsewhere; what is below it is ours and is none.
Result<ScopedDescriptor> openRecords(Purpose purpose)
{
    const auto data = dataDirectory();
    if (data.empty())
        return Failure{errSecNoDefaultKeychain};
    ScopedDescriptor folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto enter = [&](const std::string& name, int flags) -> Status {
        auto next = openFolder(folder.get(), name.c_str(), purpose, flags);
        if (!next)
            return next.failure();
        folder = std::move(*next);
        return {};
    };
    for (const auto& part : data.lexically_normal().relative_path())
        if (const auto entered = enter(part.empty() ? "." : part.string(), 0); !entered)
            return entered.failure();
    for (const char* part : ourFolders)
        if (const auto entered = enter(part, O_NOFOLLOW); !entered)
            return entered.failure();
    return folder;
}

/// What the record of a name says; `folder` holds the records.
Result<Digest> readRecord(int folder, std::string_view name)
{
    // Something that is no file must not be waited for.
    const ScopedDescriptor file(
        ::openat(folder, fileNameOf(name).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0)
        return failureOf(errno);
    struct stat status { };
    if (::fstat(file.get(), &status) != 0)
        return failureOf(errno);
    std::string text(recordOf(name, {}).size(), '\0');
    if (!S_ISREG(status.st_mode) || status.st_size != static_cast<off_t>(text.size()))
        return Failure{errSecPreferenceDamaged};
    if (::pread(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        return Failure{errSecIO};
    const auto digest = certificateIn(text, name);
    if (!digest)
        return Failure{errSecPreferenceDamaged};
    return *digest;
}

/// Gives the file another name, beside those that were moved aside before.
Status moveAside(int folder, const std::string& file)
{
    constexpr int mostKept = 1000;
    for (int number = 1; number <= mostKept; ++number) {
        const std::string aside = file + ".damaged" + std::to_string(number);
        if (::renameat2(folder, file.c_str(), folder, aside.c_str(), RENAME_NOREPLACE) == 0)
            return {};
        if (errno != EEXIST)
            return failureOf(errno);
    }
    return Failure{errSecIO};
}

Status writeWhole(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(file, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return failureOf(errno);
        text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return ::fsync(file) == 0 ? Status() : failureOf(errno);
}

/// A name beside the file's own that nobody else uses.
std::string temporaryName(const std::string& file)
{
    return "." + file + "." + std::to_string(std::random_device()());
}

/// A file with the text, on the disk.
Status makeFile(int folder, const std::string& name, std::string_view text)
{
    const ScopedDescriptor file(::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, fileMode));
    if (file.get() < 0)
        return failureOf(errno);
    return writeWhole(file.get(), text);
}

Status replaceFile(int folder, const std::string& file, std::string_view text)
{
    const std::string temporary = temporaryName(file);
    Status status = makeFile(folder, temporary, text);
    if (status && ::renameat(folder, temporary.c_str(), folder, file.c_str()) != 0)
        status = failureOf(errno);
    if (!status)
        ::unlinkat(folder, temporary.c_str(), 0);
    else if (::fsync(folder) != 0)
        status = failureOf(errno);
    return status;
}

} // namespace

Result<Digest> readIdentityPreference(std::string_view name)
{
    const auto folder = openRecords(Purpose::read);
    const auto digest = folder ? readRecord(folder->get(), name) : folder.failure();
    return digest.status() == errSecWrPerm ? Failure{errSecIO} : digest;
}

Status writeIdentityPreference(std::string_view name, const Digest& certificate)
{
    const auto records = openRecords(Purpose::write);
    if (!records)
        return records.failure();
    const ScopedDescriptor folder(::openat(records->get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status { };
    if (folder.get() < 0 || ::fstat(folder.get(), &status) != 0)
        return failureOf(errno);
    if (status.st_uid != ::geteuid())
        return Failure{errSecWrPerm};
    const std::string file = fileNameOf(name);
    if (readRecord(folder.get(), name).status() == errSecPreferenceDamaged)
        if (const auto moved = moveAside(folder.get(), file); !moved)
            return moved;
    return replaceFile(folder.get(), file, recordOf(name, certificate));
}

} // namespace kf
