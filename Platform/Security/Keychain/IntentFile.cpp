#include "Security/Keychain/IntentFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace kf::keychain {

namespace {

constexpr std::string_view head = "keyfold-intent 1\n";
/// A record without it was not yet on the disk when its writer died: nothing had been written then.
constexpr std::string_view tail = "end\n";
constexpr std::array<std::string_view, 3> classNames = {"certificate", "privateKey", "trust"};
constexpr std::string_view digits = "0123456789abcdef";

std::string recordOf(const std::vector<ObjectName>& objects)
{
    std::string text(head);
    for (const auto& object : objects) {
        text += classNames[static_cast<std::size_t>(object.objectClass)];
        text += ' ';
        for (const auto byte : object.digest) {
            text += digits[byte >> 4U];
            text += digits[byte & 15U];
        }
        text += '\n';
    }
    text += tail;
    return text;
}

std::optional<ObjectName> parseLine(std::string_view line)
{
    const auto space = line.find(' ');
    if (space == std::string_view::npos)
        return std::nullopt;
    const auto name = std::ranges::find(classNames, line.substr(0, space));
    const std::string_view hexadecimal = line.substr(space + 1);
    ObjectName object{};
    if (name == classNames.end() || hexadecimal.size() != 2 * object.digest.size())
        return std::nullopt;
    object.objectClass = static_cast<ObjectClass>(name - classNames.begin());
    for (std::size_t index = 0; index < object.digest.size(); ++index) {
        const auto high = digits.find(hexadecimal[2 * index]);
        const auto low = digits.find(hexadecimal[2 * index + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos)
            return std::nullopt;
        object.digest[index] = static_cast<std::uint8_t>(high << 4U | low);
    }
    return object;
}

/// What a whole, well-formed record lists; nothing for any other text.
std::vector<ObjectName> parseRecord(std::string_view text)
{
    if (!text.starts_with(head) || !text.ends_with(tail))
        return {};
    text = text.substr(head.size(), text.size() - head.size() - tail.size());
    std::vector<ObjectName> objects;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto object = parseLine(text.substr(0, end));
        if (end == std::string_view::npos || !object)
            return {};
        objects.push_back(*object);
        text.remove_prefix(end + 1);
    }
    return objects;
}

std::string contentOf(int descriptor)
{
    constexpr std::size_t limit = 1U << 20U;
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; text.size() < limit
         && (count = ::pread(descriptor, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
        text.append(buffer, static_cast<std::size_t>(count));
    return text;
}

Failure failureOf(int error)
{
    return Failure{error == EACCES || error == EPERM || error == EROFS ? errSecReadOnly : errSecIO};
}

/// Whether the file that is locked is still the one that others would find.
bool isInPlace(int descriptor, const std::string& file)
{
    struct stat held { };
    struct stat found { };
    return ::fstat(descriptor, &held) == 0 && ::stat(file.c_str(), &found) == 0 && held.st_dev == found.st_dev
        && held.st_ino == found.st_ino;
}

} // namespace

IntentFile::IntentFile(std::string directory, int descriptor)
    : directory_(std::move(directory)), descriptor_(descriptor), abandoned_(parseRecord(contentOf(descriptor))),
      isEmpty_(abandoned_.empty())
{
}

Result<std::unique_ptr<WriteTurn>> IntentFile::acquire(const std::string& directory, std::chrono::milliseconds patience)
{
    const std::string file = directory + "/" + fileName;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (descriptor < 0)
            return failureOf(errno);
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0 && isInPlace(descriptor, file))
            return std::unique_ptr<WriteTurn>(new IntentFile(directory, descriptor));
        ::close(descriptor);
        if (std::chrono::steady_clock::now() >= deadline)
            return Failure{errSecKeychainBusy};
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

IntentFile::~IntentFile()
{
    // A record that was never taken back stays for the next turn.
    if (isEmpty_)
        ::unlink((directory_ + "/" + fileName).c_str());
    ::close(descriptor_);
}

Status IntentFile::writeText(const std::string& text)
{
    if (::ftruncate(descriptor_, 0) != 0)
        return failureOf(errno);
    if (::pwrite(descriptor_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        return Failure{errSecIO};
    if (::fdatasync(descriptor_) != 0)
        return Failure{errSecIO};
    return {};
}

Status IntentFile::declare(const std::vector<ObjectName>& objects)
{
    isEmpty_ = false;
    if (const auto written = writeText(recordOf(objects)); !written)
        return written;
    if (isDurable_)
        return {};
    const int directory = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0)
        return failureOf(errno);
    isDurable_ = ::fsync(directory) == 0;
    ::close(directory);
    if (!isDurable_)
        return Failure{errSecIO};
    return {};
}

Status IntentFile::finish()
{
    if (isEmpty_)
        return {};
    // Emptied before it is removed: whatever the removal does, nothing is left to undo.
    if (::ftruncate(descriptor_, 0) != 0)
        return failureOf(errno);
    isEmpty_ = true;
    return {};
}

} // namespace kf::keychain
