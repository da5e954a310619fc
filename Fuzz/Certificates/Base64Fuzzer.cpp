// Bytes come back from their base64 text, and any text decodes to what OpenSSL's
// filter is known to give: groups of four in windows of 1,024 characters, up to
// the first window with a foreign character.

#include "Certificates/NSData+KeyfoldAdditions.h"

#include <cstdlib>
#include <string>
#include <string_view>

using namespace KeyfoldAdditions;

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Appends what one window gives; false where it ends the text.
bool decodeWindow(std::string_view window, std::vector<std::uint8_t>& bytes)
{
    window = window.substr(0, window.size() / 4 * 4);
    if (window.find_first_not_of(std::string(alphabet) + "=") != std::string_view::npos)
        return false;
    for (std::size_t i = 0; i < window.size(); i += 4) {
        std::uint32_t group = 0;
        for (const char c : window.substr(i, 4))
            group = group << 6 | static_cast<std::uint32_t>(c == '=' ? 0 : alphabet.find(c));
        for (const int shift : {16, 8, 0})
            bytes.push_back(static_cast<std::uint8_t>(group >> shift));
    }
    for (int i = 0; i < 2 && window.ends_with('='); ++i, window.remove_suffix(1))
        bytes.pop_back();
    return true;
}

/// The text as UTF-8 without white space, cut to as many bytes as it has characters.
std::string strippedUTF8(std::string_view latin1)
{
    std::string utf8;
    std::size_t characters = 0;
    for (const char c : latin1) {
        if (std::string_view("\t\n\v\f\r \x85\xA0").find(c) != std::string_view::npos)
            continue;
        ++characters;
        if (const auto unit = static_cast<unsigned char>(c); unit >= 0x80) {
            utf8 += static_cast<char>(0xC0 | unit >> 6);
            utf8 += static_cast<char>(0x80 | (unit & 0x3F));
        } else {
            utf8 += c;
        }
    }
    return utf8.substr(0, characters);
}

std::vector<std::uint8_t> expected(std::string_view text)
{
    const std::string stripped = strippedUTF8(text);
    std::vector<std::uint8_t> bytes;
    for (std::string_view rest = stripped; !rest.empty(); rest.remove_prefix(std::min<std::size_t>(1024, rest.size())))
        if (!decodeWindow(rest.substr(0, 1024), bytes))
            break;
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length)
{
    const auto data = NSData::dataWithBytes(bytes, length);
    if (!CFEqual(dataWithBase64EncodedString(base64Encoding(data)), data))
        std::abort();
    const std::string_view text(reinterpret_cast<const char*>(bytes), length);
    const auto decoded = dataWithBase64EncodedString(NSString::stringWithLatin1(data->span()));
    if (!CFEqual(decoded, NSData::dataWithVector(expected(text))))
        std::abort();
    return 0;
}
