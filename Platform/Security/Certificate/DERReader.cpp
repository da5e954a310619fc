#include "Security/Certificate/DERReader.h"

#include "Security/ScopedOpenSSL.h"

#include <openssl/asn1.h>

namespace kf {

std::optional<DERElement> DERReader::peek() const
{
    constexpr int indefinite = 0x01;
    constexpr int malformed = 0x80;
    if (rest_.empty())
        return std::nullopt;
    const OpenSSLErrorMark mark;
    const unsigned char* content = rest_.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int flags = ASN1_get_object(&content, &length, &tag, &tagClass, static_cast<long>(rest_.size()));
    if ((flags & (malformed | indefinite)) != 0 || length < 0)
        return std::nullopt;
    const auto contentLength = static_cast<std::size_t>(length);
    const auto total = static_cast<std::size_t>(content - rest_.data()) + contentLength;
    const bool constructed = (flags & V_ASN1_CONSTRUCTED) != 0;
    const int minimal = ASN1_object_size(constructed ? 1 : 0, static_cast<int>(length), tag);
    if (minimal < 0 || static_cast<std::size_t>(minimal) != total)
        return std::nullopt;
    return DERElement{
        tag, static_cast<DERClass>(tagClass >> 6), constructed, rest_.first(total), {content, contentLength}};
}

std::optional<DERElement> DERReader::next()
{
    const auto element = peek();
    if (element)
        skip(*element);
    return element;
}

std::optional<DERElement> DERReader::next(int universalTag)
{
    const auto element = peek();
    const bool isList = universalTag == der::sequence || universalTag == der::set;
    if (!element || !element->is(universalTag) || (isList && !element->constructed))
        return std::nullopt;
    skip(*element);
    return element;
}

std::optional<DERElement> DERReader::nextContext(int contextTag)
{
    const auto element = peek();
    if (!element || !element->isContext(contextTag))
        return std::nullopt;
    skip(*element);
    return element;
}

} // namespace kf
