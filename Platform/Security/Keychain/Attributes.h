// The attributes of items: which there are, what they read, what they match.
#pragma once

#include "Security/Keychain/Index.h"
#include "Security/SecKeychainItem.h"

namespace kf::keychain {

struct AttributeValue {
    SecKeychainAttrType tag;
    Bytes value;
};

bool isItemClass(SecItemClass itemClass) noexcept;
bool classHasAttribute(SecItemClass itemClass, SecKeychainAttrType tag) noexcept;

/// The value, empty where the item has none; `tag` is one that the class has.
Bytes attributeOf(const CertificateIndex::Entry& entry, SecKeychainAttrType tag);
Bytes attributeOf(const KeyRecord& record, SecKeychainAttrType tag);

/// The positions of the entries that match every attribute, ascending.
std::vector<std::size_t> matching(const CertificateIndex& index, const std::vector<AttributeValue>& attributes);
std::vector<std::size_t> matching(const KeyIndex& index, const std::vector<AttributeValue>& attributes);

} // namespace kf::keychain
