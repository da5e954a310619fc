#include "Security/Keychain/IntentFile.h"

#include "Foundation/NSLog.h"

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

constexpr std::string_view head = "keyfold-intent 2";
constexpr std::string_view endOfList = "end";
constexpr std::string_view withdrawn = "withdrawn";
constexpr std::array<std::string_view, 2> purposeNames = {"make", "remove"};
constexpr std::array<std::string_view, 3> classNames = {"certificate", "privateKey", "trust"};
constexpr std::array<std::string_view, 3> progressNames = {"", "made", "found"};
constexpr std::string_view digits = "0123456789abcdef";
/// Several times what the largest record takes.
constexpr std::size_t mostBytes = 1U << 20U;

template <class Enumeration, std::size_t count>
std::string_view nameOf(const std::array<std::string_view, count>& names, Enumeration value)
{
    return names[static_cast<std::size_t>(value)];
}

template <class Enumeration, std::size_t count>
std::optional<Enumeration> valueOf(const std::array<std::string_view, count>& names, std::string_view name)
{
    const auto found = std::ranges::find(names, name);
    if (name.empty() || found == names.end())
        return std::nullopt;
    return static_cast<Enumeration>(found - names.begin());
}

std::string line(std::string_view text) { return std::string(text) + '\n'; }

std::string lineOf(const ObjectName& object)
{
    std::string text(nameOf(classNames, object.objectClass));
    text += ' ';
    for (const auto byte : object.digest) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return line(text);
}

/// What stands before the first `separator`, which is taken off `text` with it; nothing without one.
std::optional<std::string_view> takeUntil(char separator, std::string_view& text)
{
    const auto end = text.find(separator);
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + 1);
    return taken;
}

std::optional<ObjectName> parseObject(std::string_view text)
{
    const auto className = takeUntil(' ', text);
    const auto objectClass = valueOf<ObjectClass>(classNames, className.value_or(""));
    ObjectName object{};
    if (!objectClass || text.size() != 2 * object.digest.size())
        return std::nullopt;
    object.objectClass = *objectClass;
    for (std::size_t index = 0; index < object.digest.size(); ++index) {
        const auto high = digits.find(text[2 * index]);
        const auto low = digits.find(text[2 * index + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos)
            return std::nullopt;
        object.digest[index] = static_cast<std::uint8_t>(high << 4U | low);
    }
    return object;
}

/// Takes in a line that stands after the list; false where it makes no sense.
bool applyProgress(std::string_view text, Intent& intent)
{
    if (text == withdrawn) {
        intent.isWithdrawn = true;
        return true;
    }
    const auto progressName = takeUntil(' ', text);
    const auto progress = valueOf<Intent::Progress>(progressNames, progressName.value_or(""));
    const auto object = parseObject(text);
    if (!progress || !object)
        return false;
    const auto listed = std::ranges::find(intent.objects, *object, &Intent::Object::name);
    if (listed == intent.objects.end())
        return false;
    listed->progress = *progress;
    return true;
}

/// What a record says; empty for one whose list is cut. Nothing where the text is no record.
std::optional<Intent> parseRecord(std::string_view text)
{
    if (line(head).starts_with(text))
        return Intent();
    if (text.size() > mostBytes || takeUntil('\n', text) != head)
        return std::nullopt;
    const auto purposeName = takeUntil('\n', text);
    if (!purposeName)
        return Intent();
    const auto purpose = valueOf<Intent::Purpose>(purposeNames, *purposeName);
    if (!purpose)
        return std::nullopt;
    Intent intent{*purpose, {}, false};
    bool inList = true;
    while (const auto next = takeUntil('\n', text)) {
        const auto object = inList ? parseObject(*next) : std::nullopt;
        if (object)
            intent.objects.push_back({*object});
        else if (inList && *next == endOfList)
            inList = false;
        else if (inList || !applyProgress(*next, intent))
            return std::nullopt;
    }
    return inList ? Intent() : intent;
}

Result<std::string> contentOf(int descriptor)
{
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while (text.size() <= mostBytes
        && (count = ::pread(descriptor, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0)
        text.append(buffer, static_cast<std::size_t>(count));
    if (count < 0)
        return Failure{errSecIO};
    return text;
}

Failure failureOf(int error)
{
    return Failure{error == EACCES || error == EPERM || error == EROFS ? errSecReadOnly : errSecIO};
}

/// Whether the file that is locked is still the one that others would find.
bool isInPlace(int descriptor, int directory)
{
    struct stat held { };
    struct stat found { };
    return ::fstat(descriptor, &held) == 0 && ::fstatat(directory, IntentFile::fileName, &found, 0) == 0
        && held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}

} // namespace

IntentFile::IntentFile(ScopedDescriptor directory, ScopedDescriptor descriptor) noexcept
    : directory_(std::move(directory)), descriptor_(std::move(descriptor))
{
}

Result<std::unique_ptr<WriteTurn>> IntentFile::acquire(const std::string& path, std::chrono::milliseconds patience)
{
    ScopedDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0)
        return failureOf(errno);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        ScopedDescriptor descriptor(
            ::openat(directory.get(), fileName, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (descriptor.get() < 0)
            return failureOf(errno);
        const bool isLocked = ::flock(descriptor.get(), LOCK_EX | LOCK_NB) == 0;
        if (!isLocked && errno != EWOULDBLOCK && errno != EINTR)
            return failureOf(errno);
        if (isLocked && isInPlace(descriptor.get(), directory.get()))
            return begin(path, std::move(directory), std::move(descriptor));
        if (std::chrono::steady_clock::now() >= deadline)
            return Failure{errSecKeychainBusy};
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

Result<std::unique_ptr<WriteTurn>> IntentFile::begin(
    const std::string& path, ScopedDescriptor directory, ScopedDescriptor descriptor)
{
    const auto content = contentOf(descriptor.get());
    if (!content)
        return content.failure();
    std::unique_ptr<IntentFile> turn(new IntentFile(std::move(directory), std::move(descriptor)));
    if (auto record = parseRecord(*content))
        turn->abandoned_ = std::move(*record);
    else
        NSLog("%@/%@ is no record of an interrupted change. Nothing was removed for it.",
            NSString::stringWithUTF8String(path), NSString::stringWithUTF8String(fileName));
    if (!turn->abandoned_.empty())
        turn->size_ = content->size();
    return std::unique_ptr<WriteTurn>(std::move(turn));
}

IntentFile::~IntentFile()
{
    // A record that was never taken back stays for the next turn.
    if (size_ == 0)
        ::unlinkat(directory_.get(), fileName, 0);
}

Status IntentFile::append(const std::string& text)
{
    const auto written = ::pwrite(descriptor_.get(), text.data(), text.size(), static_cast<off_t>(size_));
    if (written != static_cast<ssize_t>(text.size()))
        return written < 0 ? failureOf(errno) : Failure{errSecIO};
    size_ += text.size();
    if (::fdatasync(descriptor_.get()) != 0)
        return Failure{errSecIO};
    return {};
}

/// Takes to the disk which files there are: the record, and no journal of the last change any more. SQLite takes the
/// journal away to end a change, and leaves it to chance when that gets to the disk; with the journal, a power cut
/// would bring back what was before.
Status IntentFile::syncDirectory()
{
    if (::fsync(directory_.get()) != 0)
        return Failure{errSecIO};
    return {};
}

Status IntentFile::declare(Intent::Purpose purpose, const std::vector<ObjectName>& objects)
{
    if (objects.size() > mostIntendedObjects)
        return Failure{errSecDataTooLarge};
    std::string text = line(head) + line(nameOf(purposeNames, purpose));
    for (const auto& object : objects)
        text += lineOf(object);
    text += line(endOfList);
    // What may stand there is no record.
    if (::ftruncate(descriptor_.get(), 0) != 0)
        return failureOf(errno);
    if (const auto appended = append(text); !appended)
        return appended;
    return syncDirectory();
}

Status IntentFile::note(const ObjectName& object, Intent::Progress progress)
{
    return append(std::string(nameOf(progressNames, progress)) + ' ' + lineOf(object));
}

Status IntentFile::withdraw() { return append(line(withdrawn)); }

Status IntentFile::finish()
{
    if (size_ == 0)
        return {};
    if (const auto synced = syncDirectory(); !synced)
        return synced;
    // Emptied, to the disk, before it is removed: a record that came back after a power cut would speak of objects that
    // somebody may have made since.
    if (::ftruncate(descriptor_.get(), 0) != 0)
        return failureOf(errno);
    size_ = 0;
    if (::fdatasync(descriptor_.get()) != 0)
        return Failure{errSecIO};
    return {};
}

} // namespace kf::keychain
