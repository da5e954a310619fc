#include "Security/Keychain/Attributes.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace kf::keychain {

namespace {

Bytes bytesOf(std::span<const std::uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

Bytes bytesOf(const std::string& text) { return bytesOf(asBytes(text)); }

Bytes wordBytes(std::uint32_t word)
{
    Bytes bytes(sizeof word);
    std::memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

std::vector<std::size_t> allPositions(std::size_t count)
{
    std::vector<std::size_t> positions(count);
    std::iota(positions.begin(), positions.end(), std::size_t{0});
    return positions;
}

std::vector<std::size_t> matchingOne(const CertificateIndex& index, const AttributeValue& attribute)
{
    const Bytes& value = attribute.value;
    switch (attribute.tag) {
    case kSecAliasItemAttr:
        return index.withAlias(asText(value));
    case kSecLabelItemAttr:
        return index.withLabel(asText(value));
    case kSecSubjectItemAttr:
        return index.withSubject(value);
    case kSecIssuerItemAttr:
        return index.withIssuer(value);
    case kSecSerialNumberItemAttr:
        return index.withSerial(value);
    case kSecSubjectKeyIdentifierItemAttr:
        return index.withSubjectKeyIdentifier(value);
    case kSecPublicKeyHashItemAttr:
        return index.withKeyId(value);
    case kSecCertificateType:
        return value == wordBytes(CSSM_CERT_X_509v3) ? allPositions(index.entries().size())
                                                     : std::vector<std::size_t>();
    case kSecCertificateEncoding:
        return value == wordBytes(CSSM_CERT_ENCODING_DER) ? allPositions(index.entries().size())
                                                          : std::vector<std::size_t>();
    default:
        return {};
    }
}

} // namespace

bool isItemClass(SecItemClass itemClass) noexcept
{
    return itemClass == kSecCertificateItemClass || itemClass == kSecPrivateKeyItemClass;
}

bool classHasAttribute(SecItemClass itemClass, SecKeychainAttrType tag) noexcept
{
    switch (tag) {
    case kSecLabelItemAttr:
    case kSecPublicKeyHashItemAttr:
        return isItemClass(itemClass);
    case kSecAliasItemAttr:
    case kSecCertificateType:
    case kSecCertificateEncoding:
    case kSecSubjectItemAttr:
    case kSecIssuerItemAttr:
    case kSecSerialNumberItemAttr:
    case kSecSubjectKeyIdentifierItemAttr:
        return itemClass == kSecCertificateItemClass;
    default:
        return false;
    }
}

Bytes attributeOf(const CertificateIndex::Entry& entry, SecKeychainAttrType tag)
{
    switch (tag) {
    case kSecLabelItemAttr:
        return bytesOf(shownLabel(entry));
    case kSecCertificateType:
        return wordBytes(CSSM_CERT_X_509v3);
    case kSecCertificateEncoding:
        return wordBytes(CSSM_CERT_ENCODING_DER);
    default:
        break;
    }
    if (!entry.certificate->fields)
        return {};
    const CertificateFields& fields = *entry.certificate->fields;
    switch (tag) {
    case kSecAliasItemAttr:
        return bytesOf(fields.alias());
    case kSecSubjectItemAttr:
        return bytesOf(fields.subject);
    case kSecIssuerItemAttr:
        return bytesOf(fields.issuer);
    case kSecSerialNumberItemAttr:
        return bytesOf(serialNumber(fields));
    case kSecSubjectKeyIdentifierItemAttr:
        return fields.subjectKeyIdentifier;
    case kSecPublicKeyHashItemAttr:
        return bytesOf(fields.keyId);
    default:
        return {};
    }
}

Bytes attributeOf(const KeyRecord& record, SecKeychainAttrType tag)
{
    return tag == kSecLabelItemAttr ? bytesOf(record.label) : record.id;
}

std::vector<std::size_t> matching(const CertificateIndex& index, const std::vector<AttributeValue>& attributes)
{
    if (attributes.empty())
        return allPositions(index.entries().size());
    auto positions = matchingOne(index, attributes.front());
    for (std::size_t next = 1; next < attributes.size() && !positions.empty(); ++next) {
        const auto others = matchingOne(index, attributes[next]);
        std::vector<std::size_t> both;
        std::ranges::set_intersection(positions, others, std::back_inserter(both));
        positions = std::move(both);
    }
    return positions;
}

std::vector<std::size_t> matching(const KeyIndex& index, const std::vector<AttributeValue>& attributes)
{
    auto positions = allPositions(index.entries().size());
    std::erase_if(positions, [&](std::size_t position) {
        return !std::ranges::all_of(attributes, [&](const AttributeValue& attribute) {
            return attributeOf(index.entries()[position], attribute.tag) == attribute.value;
        });
    });
    return positions;
}

} // namespace kf::keychain
