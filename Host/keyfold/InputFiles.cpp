#include "keyfold/InputFiles.h"

#include "Foundation/SecretBytes.h"

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace kf {

namespace {

constexpr std::size_t maximumBundle = std::size_t{8} << 20;
constexpr std::size_t maximumPassphrase = 4096;

class FileDescriptor {
public:
    explicit FileDescriptor(int number) : number_(number) { }
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

/// A terminal without echo while it lives; nothing for any other file.
class Echoless {
public:
    explicit Echoless(int descriptor) : descriptor_(descriptor), active_(tcgetattr(descriptor, &before_) == 0)
    {
        if (!active_)
            return;
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(descriptor_, TCSAFLUSH, &quiet);
        std::fputs("Pass phrase: ", stderr);
    }
    ~Echoless()
    {
        if (!active_)
            return;
        tcsetattr(descriptor_, TCSAFLUSH, &before_);
        std::fputc('\n', stderr);
    }
    Echoless(const Echoless&) = delete;
    Echoless& operator=(const Echoless&) = delete;

private:
    int descriptor_;
    termios before_{};
    bool active_;
};

InputError systemError(const std::string& path) { return {path + " cannot be read: " + std::strerror(errno)}; }

/// Reads a file, to its end or to the end of its first line; without stdio, whose buffers would keep a copy. One byte
/// above `limit` tells a longer file.
std::variant<SecretBytes, InputError> readFile(int file, const std::string& path, std::size_t limit, bool firstLine)
{
    constexpr std::size_t firstRoom = 16384;
    SecretBytes bytes(std::min(firstRoom, limit + 1));
    std::size_t length = 0;
    for (;;) {
        const ssize_t count = read(file, bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return systemError(path);
        if (count == 0)
            break;
        const auto* const start = bytes.data() + length;
        length += static_cast<std::size_t>(count);
        if (length > limit)
            return InputError{path + " is longer than " + std::to_string(limit) + " bytes"};
        if (firstLine && std::memchr(start, '\n', static_cast<std::size_t>(count)))
            break;
        if (length == bytes.size())
            bytes.resize(std::min(2 * length, limit + 1));
    }
    bytes.resize(length);
    return bytes;
}

std::string_view textOf(const SecretBytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// A SEQUENCE of 128 bytes or more, or of indefinite length.
bool isDER(std::string_view bytes) { return bytes.size() > 1 && bytes[0] == '0' && (bytes[1] & 0x80) != 0; }

bool isBase64(std::string_view text)
{
    constexpr std::string_view accepted = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\r\n";
    return text.find_first_not_of(accepted) == std::string_view::npos;
}

/// The base64 text between BEGIN and END, as certtool writes a bundle (RFC 7468).
std::variant<std::string_view, InputError> textBetweenLines(std::string_view text, const std::string& path)
{
    constexpr std::string_view begin = "-----BEGIN PKCS12-----";
    constexpr std::string_view end = "-----END PKCS12-----";
    const auto first = text.find(begin);
    if (first == std::string_view::npos)
        return InputError{path + " holds no PKCS#12 bundle: no line of it is " + std::string(begin)};
    text.remove_prefix(first + begin.size());
    const auto last = text.find(end);
    if (last == std::string_view::npos)
        return InputError{path + " is cut off: the line " + std::string(end) + " is missing"};
    text = text.substr(0, last);
    if (!isBase64(text) || text.find_first_not_of(" \t\r\n") == std::string_view::npos)
        return InputError{path + " is damaged: between its BEGIN and END lines is no base64 text"};
    return text;
}

} // namespace

std::variant<Ref<NSString>, InputError> readPKCS12AsBase64(const std::string& path)
{
    // A pipe or a device would be waited for, on the window's own thread.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status { };
    if (file.number() < 0 || fstat(file.number(), &status) != 0)
        return systemError(path);
    if (!S_ISREG(status.st_mode))
        return InputError{path + " cannot be read: it is no regular file"};
    auto content = readFile(file.number(), path, maximumBundle, false);
    if (const auto* error = std::get_if<InputError>(&content))
        return *error;
    const auto& bytes = std::get<SecretBytes>(content);
    if (bytes.empty())
        return InputError{path + " is empty"};
    std::string_view text = textOf(bytes);
    if (!isDER(text) && text.find("-----BEGIN ") != std::string_view::npos) {
        const auto inner = textBetweenLines(text, path);
        if (const auto* error = std::get_if<InputError>(&inner))
            return *error;
        text = std::get<std::string_view>(inner);
    }
    if (isBase64(text))
        return NSString::stringWithUTF8String(text);
    const QByteArray encoded =
        QByteArray::fromRawData(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()))
            .toBase64();
    return NSString::stringWithUTF8String({encoded.constData(), static_cast<std::size_t>(encoded.size())});
}

std::variant<Ref<NSString>, InputError> readPassphrase(const std::string& path)
{
    const FileDescriptor file(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.number() < 0)
        return systemError(path);
    const Echoless echoless(file.number());
    auto content = readFile(file.number(), path, maximumPassphrase, true);
    if (const auto* error = std::get_if<InputError>(&content))
        return *error;
    const auto& bytes = std::get<SecretBytes>(content);
    auto end = std::find(bytes.begin(), bytes.end(), '\n');
    if (end != bytes.begin() && *(end - 1) == '\r')
        --end;
    std::string_view line(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(end - bytes.begin()));
    if (line.find('\0') != std::string_view::npos)
        return InputError{path + " holds a zero byte"};
    if (constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF"; line.starts_with(byteOrderMark))
        line.remove_prefix(byteOrderMark.size());
    Ref<NSString> passphrase = NSString::sensitiveStringWithUTF8String(line);
    if (!passphrase)
        return InputError{path + " holds no UTF-8 text"};
    return passphrase;
}

} // namespace kf
