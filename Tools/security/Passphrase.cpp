#include "security/Passphrase.h"

#include "Security/ScopedDescriptor.h"
#include "Security/ScopedOpenSSL.h"
#include "security/FileTools.h"
#include "security/Text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <openssl/ui.h>
#include <termios.h>
#include <unistd.h>

namespace kf::security {

namespace {

constexpr std::size_t longestPassphrase = 4096;
/// What OpenSSL's terminal functions take in one line.
constexpr int longestTyped = 1024;

using ScopedUI = std::unique_ptr<UI, OpenSSLDeleter<UI_free>>;

Passphrase failed(std::string error) { return {nullptr, std::move(error)}; }

/// The text of a line without its end; a stranger's editor may begin it with a byte order mark.
Passphrase passphraseFrom(std::string_view line, const std::string& source)
{
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    if (constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF"; line.starts_with(byteOrderMark))
        line.remove_prefix(byteOrderMark.size());
    if (line.find('\0') != line.npos)
        return failed(source + " holds a zero byte");
    auto text = NSString::sensitiveStringWithUTF8String(line);
    if (!text)
        return failed(source + " holds no UTF-8 text");
    return {std::move(text), {}};
}

/// One block that is never moved, and no stdio, whose buffers would keep a copy.
Passphrase readLine(int descriptor, const std::string& source)
{
    SecretBytes bytes(longestPassphrase + 1);
    std::size_t length = 0;
    const auto end = [&] {
        return std::find(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length), '\n');
    };
    while (length < bytes.size() && end() == bytes.begin() + static_cast<std::ptrdiff_t>(length)) {
        const ssize_t count = ::read(descriptor, bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(source + " cannot be read: " + errorText(errno));
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    const auto lineLength = static_cast<std::size_t>(end() - bytes.begin());
    if (lineLength > longestPassphrase)
        return failed(source + " is longer than " + std::to_string(longestPassphrase) + " bytes");
    return passphraseFrom({reinterpret_cast<const char*>(bytes.data()), lineLength}, source);
}

Passphrase readFirstLine(const std::string& path)
{
    const std::string source = printable(path);
    const ScopedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0)
        return failed(source + " cannot be read: " + errorText(errno));
    return readLine(file.get(), source);
}

std::optional<int> descriptorFrom(const std::string& number)
{
    int descriptor = -1;
    const char* const end = number.data() + number.size();
    const auto read = std::from_chars(number.data(), end, descriptor);
    return read.ec == std::errc() && read.ptr == end && descriptor >= 0 ? std::optional(descriptor) : std::nullopt;
}

/// The terminal without echo while it lives. OpenSSL asks first and turns the
/// echo off then: what is typed or pasted at once would be seen.
class Echoless {
public:
    explicit Echoless(int terminal) : terminal_(terminal), isTerminal_(::tcgetattr(terminal, &before_) == 0)
    {
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (isTerminal_)
            ::tcsetattr(terminal_, TCSAFLUSH, &quiet);
    }
    Echoless(const Echoless&) = delete;
    Echoless& operator=(const Echoless&) = delete;
    ~Echoless()
    {
        if (isTerminal_)
            ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    }

private:
    int terminal_;
    termios before_{};
    bool isTerminal_;
};

ScopedDescriptor openTerminal() { return ScopedDescriptor(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)); }

/// Nothing where the person interrupts, or types two that differ.
std::optional<SecretBytes> ask(const std::string& question, bool isNew)
{
    const ScopedDescriptor terminal = openTerminal();
    const Echoless echoless(terminal.get());
    const OpenSSLErrorMark mark;
    SecretBytes typed(longestTyped + 1);
    SecretBytes again(longestTyped + 1);
    char* const text = reinterpret_cast<char*>(typed.data());
    const ScopedUI interface(UI_new());
    if (!interface || UI_add_input_string(interface.get(), question.c_str(), 0, text, 0, longestTyped) <= 0)
        return std::nullopt;
    if (isNew
        && UI_add_verify_string(
               interface.get(), question.c_str(), 0, reinterpret_cast<char*>(again.data()), 0, longestTyped, text)
            <= 0)
        return std::nullopt;
    if (UI_process(interface.get()) != 0)
        return std::nullopt;
    typed.resize(std::strlen(text));
    return typed;
}

} // namespace

std::string whyNotPassphraseOptions(const Arguments& arguments)
{
    if (arguments.has('P'))
        return "a pass phrase on the command line can be read by every user; "
               "use --passphrase-file or --passphrase-fd, or type it at the terminal";
    const auto descriptor = arguments.value("passphrase-fd");
    if (descriptor && arguments.has("passphrase-file"))
        return "--passphrase-file and --passphrase-fd exclude each other";
    if (descriptor && !descriptorFrom(*descriptor))
        return "--passphrase-fd needs the number of an open descriptor";
    return {};
}

Passphrase readPassphrase(const Arguments& arguments, const std::string& question, bool isNew)
{
    if (const auto file = arguments.value("passphrase-file"))
        return readFirstLine(*file);
    if (const auto descriptor = arguments.value("passphrase-fd"))
        return readLine(descriptorFrom(*descriptor).value_or(-1), "descriptor " + *descriptor);
    if (!TerminalPresenter::isPossible())
        return failed("there is no terminal to ask for the pass phrase: use --passphrase-file or --passphrase-fd");
    const auto typed = ask(question, isNew);
    if (!typed)
        return failed(isNew ? "no pass phrase was given, or two that differ" : "no pass phrase was given");
    return passphraseFrom({reinterpret_cast<const char*>(typed->data()), typed->size()}, "the terminal's line");
}

bool TerminalPresenter::isPossible() { return openTerminal().get() >= 0; }

std::optional<SecretBytes> TerminalPresenter::keychainPassphrase(const PassphraseQuestion& question)
{
    const std::string path = printable(toUTF8(question.keychainPath));
    return ask((question.attempt > 1 ? "That is wrong. " : "") + ("Pass phrase of the keychain " + path + ": "), false);
}

} // namespace kf::security
