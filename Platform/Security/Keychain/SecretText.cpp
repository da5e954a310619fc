#include "Security/Keychain/SecretText.h"

namespace kf::keychain {

std::optional<SecretBytes> secretUTF8(const NSString& text)
{
    SecretBytes bytes;
    const auto push = [&bytes](std::uint32_t value) { bytes.push_back(static_cast<std::uint8_t>(value)); };
    for (CFIndex index = 0; index < text.length(); ++index) {
        std::uint32_t character = text.characterAtIndex(index);
        if (character >= 0xd800 && character < 0xe000) {
            const std::uint32_t low = index + 1 < text.length() ? text.characterAtIndex(index + 1) : 0;
            if (character >= 0xdc00 || low < 0xdc00 || low >= 0xe000)
                return std::nullopt;
            character = 0x10000 + ((character - 0xd800) << 10U) + (low - 0xdc00);
            ++index;
        }
        if (character < 0x80) {
            push(character);
            continue;
        }
        const unsigned following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
        push(((0xff00U >> (following + 1U)) & 0xffU) | character >> (6U * following));
        for (unsigned rest = following; rest > 0; --rest)
            push(0x80U | (character >> (6U * (rest - 1)) & 0x3fU));
    }
    return bytes;
}

} // namespace kf::keychain
