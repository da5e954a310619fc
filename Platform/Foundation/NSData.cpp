#include "Foundation/NSData.h"

#include "Foundation/NSFormat.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) { }
    ~FileDescriptor()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const noexcept { return descriptor_; }

private:
    int descriptor_;
};

/// Reads to the end, which may lie elsewhere than the size said. False on an error.
bool readWhole(int file, std::vector<std::uint8_t>& bytes)
{
    std::size_t used = 0;
    for (;;) {
        if (used == bytes.size())
            bytes.resize(bytes.size() + std::max<std::size_t>(bytes.size() / 2, 4096));
        const ssize_t count = read(file, bytes.data() + used, bytes.size() - used);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        if (count == 0)
            break;
        used += static_cast<std::size_t>(count);
    }
    bytes.resize(used);
    return true;
}

} // namespace

NSData::~NSData() = default;

Ref<NSData> NSData::data() { return makeRef<NSData>(); }

Ref<NSData> NSData::dataWithBytes(std::span<const std::uint8_t> bytes)
{
    return dataWithVector(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

Ref<NSData> NSData::dataWithBytes(const void* bytes, NSUInteger length)
{
    return dataWithBytes(std::span(static_cast<const std::uint8_t*>(bytes), length));
}

Ref<NSData> NSData::dataWithVector(std::vector<std::uint8_t> bytes) { return makeRef<NSData>(std::move(bytes)); }

Ref<NSData> NSData::dataWithContentsOfFile(const Ref<NSString>& path)
{
    const auto name = path ? path->UTF8String() : std::nullopt;
    if (!name || name->find('\0') != std::string::npos)
        return nullptr;
    // Not blocking: a pipe of that name must not hold up its reader before it is refused.
    const FileDescriptor file(open(name->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status { };
    if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    try {
        // One more than the size, so that the end is seen without growing.
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(status.st_size) + 1);
        if (!readWhole(file.get(), bytes))
            return nullptr;
        return dataWithVector(std::move(bytes));
    } catch (const std::bad_alloc&) {
        return nullptr;
    } catch (const std::length_error&) {
        return nullptr;
    }
}

bool NSData::isEqual(const NSObject* other) const noexcept
{
    if (this == other)
        return true;
    const auto* const data = dynamic_cast<const NSData*>(other);
    return data && data->bytes_ == bytes_;
}

CFHashCode NSData::hash() const noexcept
{
    return std::hash<std::string_view>{}({reinterpret_cast<const char*>(bytes_.data()), bytes_.size()});
}

Ref<NSString> NSData::description() const
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text = "<";
    for (std::size_t index = 0; index < bytes_.size(); ++index) {
        if (index > 0 && index % 4 == 0)
            text += ' ';
        text += digits[bytes_[index] >> 4];
        text += digits[bytes_[index] & 0xF];
    }
    return NSString::stringWithUTF8String(text + '>');
}

NSMutableData::~NSMutableData() = default;

Ref<NSMutableData> NSMutableData::data() { return makeRef<NSMutableData>(); }

void NSMutableData::appendBytes(const void* bytes, NSUInteger length)
{
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    bytes_.insert(bytes_.end(), first, first + length);
}
