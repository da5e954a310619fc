// A strict reader of DER (X.690), element by element, without copies.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace kf {

enum class DERClass : std::uint8_t { universal, application, contextSpecific, privateUse };

/// Universal tags that certificates use.
namespace der {
inline constexpr int boolean = 1;
inline constexpr int integer = 2;
inline constexpr int bitString = 3;
inline constexpr int octetString = 4;
inline constexpr int objectIdentifier = 6;
inline constexpr int sequence = 16;
inline constexpr int set = 17;
} // namespace der

struct DERElement {
    int tag = 0;
    DERClass tagClass = DERClass::universal;
    bool constructed = false;
    std::span<const std::uint8_t> whole;   ///< tag, length and content
    std::span<const std::uint8_t> content; ///< points into the bytes read

    bool is(int universalTag) const noexcept { return tagClass == DERClass::universal && tag == universalTag; }
    bool isContext(int contextTag) const noexcept { return tagClass == DERClass::contextSpecific && tag == contextTag; }
};

/// Walks the elements of a piece of DER. Indefinite and needlessly long lengths
/// are refused: two encodings of one certificate would have two digests.
class DERReader {
public:
    explicit DERReader(std::span<const std::uint8_t> bytes) noexcept : rest_(bytes) { }

    bool atEnd() const noexcept { return rest_.empty(); }
    /// The next element; nothing at the end and where the bytes are no DER.
    std::optional<DERElement> next();
    /// The next element where it has this universal tag, and is made of elements where it is a list; else nothing, and
    /// the reader stays.
    std::optional<DERElement> next(int universalTag);
    /// The next element where it has this context-specific tag; else nothing, and the reader stays.
    std::optional<DERElement> nextContext(int contextTag);

private:
    std::optional<DERElement> peek() const;
    void skip(const DERElement& element) noexcept { rest_ = rest_.subspan(element.whole.size()); }

    std::span<const std::uint8_t> rest_;
};

} // namespace kf
