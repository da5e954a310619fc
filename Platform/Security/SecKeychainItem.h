// Items in keychains: their attributes, deletion and import.
#pragma once

#include "Foundation/NSArray.h"
#include "Foundation/NSData.h"
#include "Security/SecKeychain.h"
#include "Security/cssmtype.h"

#include <array>

using SecItemClass = std::uint32_t;
inline constexpr SecItemClass kSecPrivateKeyItemClass = 0x00000010;
inline constexpr SecItemClass kSecCertificateItemClass = 0x80001000;

/// A certificate or a private key, in a keychain or in none.
///
/// An item is a name, not a place in a database: its class and the SHA-256 of
/// its bytes (of a key: of its identifier), looked up in its keychain at every
/// use. So an item that was deleted and another one that took its place are
/// never confused. Immutable; equal where class, digest and keychain are. Any
/// thread.
class SecKeychainItem : public NSObject {
public:
    using Digest = std::array<std::uint8_t, 32>;

    SecItemClass itemClass() const noexcept { return itemClass_; }
    const Digest& digest() const noexcept { return digest_; }
    /// Nil for an item in no keychain.
    const SecKeychainRef& keychain() const noexcept { return keychain_; }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;

protected:
    SecKeychainItem(SecItemClass itemClass, const Digest& digest, SecKeychainRef keychain) noexcept
        : itemClass_(itemClass), digest_(digest), keychain_(std::move(keychain))
    {
    }
    ~SecKeychainItem() override;

private:
    SecItemClass itemClass_;
    Digest digest_;
    SecKeychainRef keychain_;
};
using SecKeychainItemRef = Ref<SecKeychainItem>;

using SecKeychainAttrType = std::uint32_t;
constexpr SecKeychainAttrType fourCharacterCode(const char (&text)[5]) noexcept
{
    return static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24
        | static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16
        | static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8
        | static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]));
}
inline constexpr SecKeychainAttrType kSecLabelItemAttr = fourCharacterCode("labl");
inline constexpr SecKeychainAttrType kSecAliasItemAttr = fourCharacterCode("alis");
inline constexpr SecKeychainAttrType kSecCertificateType = fourCharacterCode("ctyp");
inline constexpr SecKeychainAttrType kSecCertificateEncoding = fourCharacterCode("cenc");
inline constexpr SecKeychainAttrType kSecSubjectItemAttr = fourCharacterCode("subj");
inline constexpr SecKeychainAttrType kSecIssuerItemAttr = fourCharacterCode("issu");
inline constexpr SecKeychainAttrType kSecSerialNumberItemAttr = fourCharacterCode("snbr");
inline constexpr SecKeychainAttrType kSecSubjectKeyIdentifierItemAttr = fourCharacterCode("skid");
inline constexpr SecKeychainAttrType kSecPublicKeyHashItemAttr = fourCharacterCode("hpky");

struct SecKeychainAttribute {
    SecKeychainAttrType tag = 0;
    std::uint32_t length = 0;
    void* data = nullptr;
};

struct SecKeychainAttributeList {
    std::uint32_t count = 0;
    SecKeychainAttribute* attr = nullptr;
};

struct SecKeychainAttributeInfo {
    std::uint32_t count = 0;
    std::uint32_t* tag = nullptr;
    std::uint32_t* format = nullptr;
};

/// Reads the attributes that `info` names and, where asked for, class and data
/// (a certificate's DER; a private key has none). Every out-parameter may be
/// null. The caller frees list and data with
/// SecKeychainItemFreeAttributesAndData. Errors: errSecNoSuchAttr where the
/// item's class lacks one of the attributes (nothing is returned then),
/// errSecInvalidItemRef where the item has been deleted.
OSStatus SecKeychainItemCopyAttributesAndData(const SecKeychainItemRef& item, const SecKeychainAttributeInfo* info,
    SecItemClass* itemClass, SecKeychainAttributeList** attributes, std::uint32_t* length, void** data);
OSStatus SecKeychainItemFreeAttributesAndData(SecKeychainAttributeList* attributes, void* data);

/// Writes attributes; all or none. Data cannot be replaced: a non-null `data`
/// gives errSecDataNotModifiable. Only the label can be written:
/// errSecReadOnlyAttr for attributes that derive from the certificate,
/// errSecNoSuchAttr for unknown ones.
OSStatus SecKeychainItemModifyAttributesAndData(
    const SecKeychainItemRef& item, const SecKeychainAttributeList* attributes, std::uint32_t length, const void* data);

/// Deletes the item from its keychain, and, for a certificate, its trust object
/// there. Other items, and the same certificate in other keychains, stay.
/// Errors: errSecInvalidItemRef where the item is in no keychain or is gone,
/// errSecReadOnly, errSecWrPerm.
OSStatus SecKeychainItemDelete(const SecKeychainItemRef& item);

/// The keychain that holds the item; the caller owns it. errSecNoSuchKeychain
/// for an item that is in none.
OSStatus SecKeychainItemCopyKeychain(const SecKeychainItemRef& item, SecKeychainRef* keychain);

using SecExternalFormat = std::uint32_t;
inline constexpr SecExternalFormat kSecFormatUnknown = 0;
inline constexpr SecExternalFormat kSecFormatPKCS12 = 12;
using SecExternalItemType = std::uint32_t;
inline constexpr SecExternalItemType kSecItemTypeUnknown = 0;
inline constexpr SecExternalItemType kSecItemTypeAggregate = 5;
using SecItemImportExportFlags = std::uint32_t;
inline constexpr std::uint32_t SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION = 0;

struct SecKeyImportExportParameters {
    std::uint32_t version = SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION;
    std::uint32_t flags = 0;
    Ref<NSString> passphrase;
    Ref<NSString> alertTitle;
    Ref<NSString> alertPrompt;
    /// Access of the new items; nil for the default, the only one there is.
    Ref<NSObject> accessRef;
    CSSM_KEYUSE keyUsage = 0;
    CSSM_KEYATTR_FLAGS keyAttributes = 0;
};

/// Imports a PKCS#12 bundle (RFC 7292) into a keychain: all of it, or nothing.
///
/// The bundle is parsed and checked whole before the first write. Items that
/// the keychain holds already are not written again and count as imported.
/// `*items` receives the leaf's SecIdentity first, then the chain's
/// SecCertificates; the caller owns the array. On failure `*items` is nil.
///
/// Errors: errSecParam (wrong record version, null parameters),
/// errSecNoDefaultKeychain (nil keychain),
/// errSecDataNotAvailable (no data, or no key or certificate in the bundle),
/// errSecPassphraseRequired (nil pass phrase), errSecPkcs12VerifyFailure (wrong
/// pass phrase), errSecDecode (damaged), errSecUnknownFormat (no PKCS#12),
/// errSecUnsupportedKeyFormat (algorithms that this system lacks, a signature in
/// place of the MAC), errSecDataTooLarge (above 16 MiB, 64 certificates, 8 copies
/// of the key, 10 million iterations of key derivation, or 32 MiB for scrypt),
/// errSecNoCertificate (no certificate belongs to the key),
/// errSecMultiplePrivKeys, and the keychain's own. Any thread; a bundle with
/// many iterations takes seconds, so not the thread of an interface.
OSStatus SecKeychainItemImport(const Ref<NSData>& importedData, const Ref<NSString>& fileNameOrExtension,
    SecExternalFormat* inputFormat, SecExternalItemType* itemType, SecItemImportExportFlags flags,
    const SecKeyImportExportParameters* keyParameters, const SecKeychainRef& importKeychain, Ref<NSArray>* items);
