#include "Certificates/NSData+KeyfoldAdditions.h"

#include "Foundation/NSException.h"
#include "Security/ScopedOpenSSL.h"
#include "Shared/KFRegex/KFRegex.h"

#include <array>

namespace KeyfoldAdditions {

namespace {

/// A base64 filter in front of `end`; null where either is missing.
kf::ScopedBIOChain base64Chain(kf::ScopedBIOChain end, int flags)
{
    kf::ScopedBIOChain filter(BIO_new(BIO_f_base64()));
    if (!filter || !end)
        return nullptr;
    BIO_set_flags(filter.get(), flags);
    BIO_push(filter.get(), end.release());
    return filter;
}

Ref<NSString> withoutWhiteSpace(const Ref<NSString>& string)
{
    using KFRegexAdditions::stringByReplacingOccurrencesOfRegex;
    try {
        return stringByReplacingOccurrencesOfRegex(string, "\\s+"_ns, ""_ns);
    } catch (const NSRaisedException&) {
        // A run of about a million characters exhausts the backtracking stack.
        // One character at a time needs none, and is slow only here.
        return stringByReplacingOccurrencesOfRegex(string, "\\s"_ns, ""_ns);
    }
}

std::vector<std::uint8_t> decoded(BIO* chain, std::size_t sizeHint)
{
    std::vector<std::uint8_t> bytes;
    bytes.reserve(sizeHint);
    std::array<std::uint8_t, 512> buffer;
    for (int count; (count = BIO_read(chain, buffer.data(), static_cast<int>(buffer.size()))) > 0;)
        bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + count);
    return bytes;
}

/// Arithmetic instead of a table: the compiler does sixteen digits at once.
constexpr std::uint8_t hexDigit(std::uint8_t nibble)
{
    return static_cast<std::uint8_t>(nibble + (nibble < 10 ? '0' : 'a' - 10));
}

void writeHex(const std::uint8_t* bytes, std::size_t count, std::uint8_t* digits)
{
    for (std::size_t i = 0; i < count; ++i) {
        digits[2 * i] = hexDigit(bytes[i] >> 4);
        digits[2 * i + 1] = hexDigit(bytes[i] & 15);
    }
}

} // namespace

Ref<NSData> dataWithBase64EncodedString(const Ref<NSString>& string)
{
    return initWithBase64EncodedString(NSData::data(), string);
}

Ref<NSData> initWithBase64EncodedString(Ref<NSData> receiver, const Ref<NSString>& string)
{
    if (!string)
        return receiver;
    const kf::OpenSSLErrorMark errors;
    const auto stripped = withoutWhiteSpace(string);
    const auto text = stripped->UTF8String();
    if (!text)
        return NSData::data();
    // The number of characters counts as the number of bytes, which it is for
    // base64 text; other text is cut short.
    const auto length = static_cast<std::int32_t>(stripped->length());
    const auto chain = base64Chain(kf::ScopedBIOChain(BIO_new_mem_buf(text->c_str(), length)), BIO_FLAGS_BASE64_NO_NL);
    return NSData::dataWithVector(chain ? decoded(chain.get(), text->size() / 4 * 3 + 3) : std::vector<std::uint8_t>());
}

Ref<NSString> base64Encoding(const Ref<NSData>& receiver)
{
    if (!receiver)
        return nullptr;
    const kf::OpenSSLErrorMark errors;
    const auto chain = base64Chain(kf::ScopedBIOChain(BIO_new(BIO_s_mem())), 0);
    if (!chain)
        return nullptr;
    BIO_write(chain.get(), receiver->bytes(), static_cast<int>(receiver->length()));
    BIO_ctrl(chain.get(), BIO_CTRL_FLUSH, 0, nullptr);
    char* text = nullptr;
    const long length = BIO_ctrl(chain.get(), BIO_CTRL_INFO, 0, &text);
    return NSString::stringWithBytes(
        std::span(reinterpret_cast<const std::uint8_t*>(text), text ? static_cast<std::size_t>(length) : 0),
        NSASCIIStringEncoding);
}

Ref<NSString> hexString(const Ref<NSData>& receiver)
{
    if (!receiver)
        return nullptr;
    auto unwritten = NSString::unwrittenLatin1(static_cast<CFIndex>(2 * receiver->length()));
    writeHex(receiver->bytes(), receiver->length(), unwritten.text.data());
    return std::move(unwritten.string);
}

} // namespace KeyfoldAdditions
