#include "keyfold/InputFiles.h"

#include "Foundation/SecretBytes.h"

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

namespace kf {

namespace {

constexpr std::size_t maximumBundle = std::size_t{8} << 20;
constexpr std::size_t maximumPassphrase = 4096;

class FileDescriptor {
public:
    explicit FileDescriptor(const std::string& path)
        : number_(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY))
    {
    }
    ~FileDescriptor()
    {
        if (number_ >= 0)
            close(number_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int number() const noexcept { return number_; }

private:
    int number_;
};

InputError systemError(const std::string& path) { return {path + " cannot be read: " + std::strerror(errno)}; }

/// Reads all of a file into one block that is never moved; without stdio,
/// whose buffers would keep a copy. One byte above `limit` tells a longer file.
std::variant<SecretBytes, InputError> readFile(const std::string& path, std::size_t limit)
{
    const FileDescriptor file(path);
    if (file.number() < 0)
        return systemError(path);
    SecretBytes bytes(limit + 1);
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = read(file.number(), bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return systemError(path);
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    if (length > limit)
        return InputError{path + " is longer than " + std::to_string(limit) + " bytes"};
    bytes.resize(length);
    return bytes;
}

bool isBase64Text(const SecretBytes& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) {
        return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9')
            || std::strchr("+/= \t\r\n", byte);
    }) && std::find(bytes.begin(), bytes.end(), 0) == bytes.end();
}

} // namespace

std::variant<Ref<NSString>, InputError> readPKCS12AsBase64(const std::string& path)
{
    auto content = readFile(path, maximumBundle);
    if (const auto* error = std::get_if<InputError>(&content))
        return *error;
    const auto& bytes = std::get<SecretBytes>(content);
    if (bytes.empty())
        return InputError{path + " is empty"};
    if (isBase64Text(bytes))
        return NSString::stringWithLatin1(bytes);
    const QByteArray encoded =
        QByteArray::fromRawData(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()))
            .toBase64();
    return NSString::stringWithUTF8String({encoded.constData(), static_cast<std::size_t>(encoded.size())});
}

std::variant<Ref<NSString>, InputError> readPassphrase(const std::string& path)
{
    auto content = readFile(path, maximumPassphrase);
    if (const auto* error = std::get_if<InputError>(&content))
        return *error;
    const auto& bytes = std::get<SecretBytes>(content);
    auto end = std::find(bytes.begin(), bytes.end(), '\n');
    if (end != bytes.begin() && *(end - 1) == '\r')
        --end;
    const std::string_view line(
        reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(end - bytes.begin()));
    Ref<NSString> passphrase = NSString::sensitiveStringWithUTF8String(line);
    if (!passphrase)
        return InputError{path + " holds no UTF-8 text"};
    return passphrase;
}

} // namespace kf
