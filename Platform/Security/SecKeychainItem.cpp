#include "Security/SecKeychainItem.h"

#include "Security/Keychain/Attributes.h"
#include "Security/Keychain/Store.h"
#include "Security/SecCertificate.h"
#include "Security/SecIdentity.h"

#include <cstdlib>
#include <cstring>

using namespace kf;
using namespace kf::keychain;

SecKeychainItem::~SecKeychainItem() = default;

bool SecKeychainItem::isEqual(const NSObject* other) const noexcept
{
    const auto* item = dynamic_cast<const SecKeychainItem*>(other);
    if (!item || item->itemClass_ != itemClass_ || item->digest_ != digest_)
        return false;
    return keychain_ ? CFEqual(keychain_, item->keychain_) : !item->keychain_;
}

CFHashCode SecKeychainItem::hash() const noexcept { return DigestHash()(digest_) ^ CFHash(keychain_); }

Ref<NSString> SecKeychainItem::description() const
{
    std::string text = std::string("<") + className() + " ";
    for (std::size_t index = 0; index < 8; ++index) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[digest_[index] >> 4U];
        text += digits[digest_[index] & 15U];
    }
    return NSString::stringWithUTF8String(text + ">");
}

namespace {

/// What an item reads now: its attributes' values in the order asked for.
Result<std::vector<Bytes>> readCertificateAttributes(
    const SecCertificate& certificate, std::span<const std::uint32_t> tags)
{
    std::vector<Bytes> values;
    const auto readFrom = [&](const CertificateIndex::Entry& entry) {
        for (const auto tag : tags)
            values.push_back(attributeOf(entry, tag));
    };
    if (!certificate.keychain()) {
        readFrom({certificate.sharedParsed(), {}});
        return values;
    }
    const auto index = certificateIndex(certificate.keychain()->path());
    if (!index)
        return index.status() == errSecNoSuchKeychain ? Failure{errSecInvalidItemRef} : index.failure();
    const auto* entry = (*index)->find(certificate.digest());
    if (!entry)
        return Failure{errSecInvalidItemRef};
    readFrom(*entry);
    return values;
}

Result<std::vector<Bytes>> readKeyAttributes(const SecKey& key, std::span<const std::uint32_t> tags)
{
    const auto index = keyIndex(key.keychain()->path());
    if (!index)
        return index.status() == errSecNoSuchKeychain ? Failure{errSecInvalidItemRef} : index.failure();
    const auto* record = (*index)->find(key.identifier());
    if (!record)
        return Failure{errSecInvalidItemRef};
    std::vector<Bytes> values;
    for (const auto tag : tags)
        values.push_back(attributeOf(*record, tag));
    return values;
}

Result<std::vector<Bytes>> readAttributes(const SecKeychainItem& item, std::span<const std::uint32_t> tags)
{
    if (const auto* certificate = dynamic_cast<const SecCertificate*>(&item))
        return readCertificateAttributes(*certificate, tags);
    if (const auto* key = dynamic_cast<const SecKey*>(&item))
        return readKeyAttributes(*key, tags);
    return Failure{errSecInvalidItemRef};
}

/// List, attributes and values in one block, so that one free() is enough.
SecKeychainAttributeList* makeAttributeList(std::span<const std::uint32_t> tags, const std::vector<Bytes>& values)
{
    constexpr std::size_t headSize = sizeof(SecKeychainAttributeList);
    static_assert(headSize % alignof(SecKeychainAttribute) == 0);
    std::size_t size = headSize + tags.size() * sizeof(SecKeychainAttribute);
    for (const auto& value : values)
        size += value.size();
    auto* const memory = static_cast<std::uint8_t*>(std::malloc(size));
    if (!memory)
        return nullptr;
    auto* const attributes = reinterpret_cast<SecKeychainAttribute*>(memory + headSize);
    std::uint8_t* place = memory + headSize + tags.size() * sizeof(SecKeychainAttribute);
    for (std::size_t index = 0; index < tags.size(); ++index) {
        const Bytes& value = values[index];
        new (attributes + index) SecKeychainAttribute{tags[index], static_cast<std::uint32_t>(value.size()), place};
        if (!value.empty())
            std::memcpy(place, value.data(), value.size());
        place += value.size();
    }
    return new (memory) SecKeychainAttributeList{static_cast<std::uint32_t>(tags.size()), attributes};
}

Result<std::string> labelFrom(const SecKeychainItem& item, const SecKeychainAttributeList& attributes)
{
    std::string label;
    for (std::uint32_t index = 0; index < attributes.count; ++index) {
        const SecKeychainAttribute& attribute = attributes.attr[index];
        if (!classHasAttribute(item.itemClass(), attribute.tag))
            return Failure{errSecNoSuchAttr};
        if (attribute.tag != kSecLabelItemAttr)
            return Failure{errSecReadOnlyAttr};
        if (!attribute.data && attribute.length > 0)
            return Failure{errSecParam};
        label.assign(static_cast<const char*>(attribute.data), attribute.length);
    }
    return label;
}

Status modifyLabel(const SecKeychainItem& item, const std::string& label)
{
    return writeDatabase(item.keychain()->path(), Access::write, [&](Database& database, WriteTurn& turn) -> Status {
        Status changed = Failure{errSecInvalidItemRef};
        if (const auto* certificate = dynamic_cast<const SecCertificate*>(&item))
            changed = database.setCertificateLabel(certificate->parsed().der, label);
        else if (const auto* key = dynamic_cast<const SecKey*>(&item))
            changed = database.setPrivateKeyLabel(key->identifier(), label);
        return changed ? turn.finish() : changed;
    });
}

Status deleteItem(const SecKeychainItem& item)
{
    return writeDatabase(item.keychain()->path(), Access::write, [&](Database& database, WriteTurn& turn) -> Status {
        if (const auto* certificate = dynamic_cast<const SecCertificate*>(&item))
            return removeWithTrust(database, turn, certificate->parsed().der);
        if (const auto* key = dynamic_cast<const SecKey*>(&item))
            return database.removePrivateKey(key->identifier());
        return Failure{errSecInvalidItemRef};
    });
}

/// A keychain that is gone took its items with it.
OSStatus itemStatus(const Status& status)
{
    return status.status() == errSecNoSuchKeychain ? errSecInvalidItemRef : status.status();
}

} // namespace

OSStatus SecKeychainItemCopyAttributesAndData(const SecKeychainItemRef& item, const SecKeychainAttributeInfo* info,
    SecItemClass* itemClass, SecKeychainAttributeList** attributes, std::uint32_t* length, void** data)
{
    if (attributes)
        *attributes = nullptr;
    if (data)
        *data = nullptr;
    if (length)
        *length = 0;
    if (!item)
        return errSecInvalidItemRef;
    if (info && info->count > 0 && !info->tag)
        return errSecParam;
    const std::span<const std::uint32_t> tags(info ? info->tag : nullptr, info ? info->count : 0);
    for (const auto tag : tags)
        if (!classHasAttribute(item->itemClass(), tag))
            return errSecNoSuchAttr;
    const auto values = readAttributes(*item, tags);
    if (!values)
        return values.status();

    SecKeychainAttributeList* list = nullptr;
    if (attributes && info && !(list = makeAttributeList(tags, *values)))
        return errSecAllocate;
    const auto* certificate = dynamic_cast<const SecCertificate*>(item.get());
    if (data && certificate) {
        const Bytes& der = certificate->parsed().der;
        *data = std::malloc(der.size());
        if (!*data) {
            std::free(list);
            return errSecAllocate;
        }
        std::memcpy(*data, der.data(), der.size());
    }
    if (length && certificate)
        *length = static_cast<std::uint32_t>(certificate->parsed().der.size());
    if (itemClass)
        *itemClass = item->itemClass();
    if (attributes)
        *attributes = list;
    return errSecSuccess;
}

OSStatus SecKeychainItemFreeAttributesAndData(SecKeychainAttributeList* attributes, void* data)
{
    std::free(attributes);
    std::free(data);
    return errSecSuccess;
}

OSStatus SecKeychainItemModifyAttributesAndData(
    const SecKeychainItemRef& item, const SecKeychainAttributeList* attributes, std::uint32_t, const void* data)
{
    if (!item)
        return errSecInvalidItemRef;
    if (data)
        return errSecDataNotModifiable;
    if (!attributes || attributes->count == 0)
        return errSecSuccess;
    if (!attributes->attr)
        return errSecParam;
    const auto label = labelFrom(*item, *attributes);
    if (!label)
        return label.status();
    if (!item->keychain())
        return errSecInvalidItemRef;
    return itemStatus(modifyLabel(*item, *label));
}

OSStatus SecKeychainItemDelete(const SecKeychainItemRef& item)
{
    if (!item || !item->keychain())
        return errSecInvalidItemRef;
    return itemStatus(deleteItem(*item));
}

OSStatus SecKeychainItemCopyKeychain(const SecKeychainItemRef& item, SecKeychainRef* keychain)
{
    if (!keychain)
        return errSecParam;
    keychain->reset();
    if (!item)
        return errSecInvalidItemRef;
    if (!item->keychain())
        return errSecNoSuchKeychain;
    *keychain = item->keychain();
    return errSecSuccess;
}
