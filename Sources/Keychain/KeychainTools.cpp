#include "Keychain/KeychainTools.h"

#include "Foundation/NSLog.h"
#include "Keychain/KFUtilities.h"
#include "Security/SFChooseIdentityPanel.h"
#include "Security/SecKeychainSearch.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

struct AttributeListDeleter {
    void operator()(SecKeychainAttributeList* list) const noexcept
    {
        SecKeychainItemFreeAttributesAndData(list, nullptr);
    }
};
using ScopedAttributeList = std::unique_ptr<SecKeychainAttributeList, AttributeListDeleter>;

/// One attribute of an item, as text.
OSStatus copyAttribute(SecKeychainAttrType tag, const SecKeychainItemRef& item, ScopedAttributeList& list)
{
    std::uint32_t format = CSSM_DB_ATTRIBUTE_FORMAT_STRING;
    const SecKeychainAttributeInfo info{1, &tag, &format};
    SecKeychainAttributeList* attributes = nullptr;
    const OSStatus status = SecKeychainItemCopyAttributesAndData(item, &info, nullptr, &attributes, nullptr, nullptr);
    list.reset(attributes);
    return status;
}

/// The certificate's e-mail addresses; nil, logged, where a step fails.
Ref<NSArray> emailAddressesOfIdentity(const SecIdentityRef& identity)
{
    SecCertificateRef certificate;
    OSStatus status = SecIdentityCopyCertificate(identity, &certificate);
    if (status != errSecSuccess) {
        NSLog("idea.cc: %@", KeychainTools::stringForErrorCode(status));
        return nullptr;
    }
    Ref<NSArray> addresses;
    status = SecCertificateCopyEmailAddresses(certificate, &addresses);
    if (status != errSecSuccess) {
        NSLog("idea.ea: %@", KeychainTools::stringForErrorCode(status));
        return nullptr;
    }
    return addresses;
}

/// Adds the identity once for each of its addresses that is the wanted one.
void addIfAddressed(const Ref<NSMutableArray>& identities, const SecIdentityRef& identity, const Ref<NSString>& wanted)
{
    const auto addresses = emailAddressesOfIdentity(identity);
    if (!addresses || !wanted || wanted->length() == 0)
        return;
    for (const auto& object : *addresses) {
        const auto address = refCast<NSString>(object);
        if (address && address->caseInsensitiveCompare(wanted) == NSOrderedSame)
            identities->addObject(identity);
    }
}

SecKeychainSearchRef createAliasSearch(std::string& alias)
{
    // The C string, to its first zero byte.
    SecKeychainAttribute attribute{
        kSecAliasItemAttr, static_cast<std::uint32_t>(std::strlen(alias.c_str())), alias.data()};
    const SecKeychainAttributeList attributes{1, &attribute};
    SecKeychainSearchRef search;
    const OSStatus status =
        SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, &attributes, &search);
    if (status == errSecSuccess)
        return search;
    NSLog("SecKeychainSearchCreateFromAttributes failed: %@", KeychainTools::stringForErrorCode(status));
    return nullptr;
}

/// The identities of those certificates whose private key is found; others are left out in silence.
Ref<NSArray> identitiesOf(const Ref<NSArray>& certificates)
{
    const auto identities = NSMutableArray::array();
    for (const auto& certificate : *certificates) {
        SecIdentityRef identity;
        SecIdentityCreateWithCertificate(nullptr, refCast<SecCertificate>(certificate), &identity);
        if (identity)
            identities->addObject(identity);
    }
    return identities;
}

} // namespace

SecCertificateRef KeychainTools::createCertificateWithData(const Ref<NSData>& data)
{
    CSSM_DATA bytes;
    if (data)
        bytes = {data->length(), const_cast<std::uint8_t*>(data->bytes())};
    SecCertificateRef certificate;
    if (SecCertificateCreateFromData(&bytes, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate) != errSecSuccess)
        return nullptr;
    return certificate;
}

bool KeychainTools::certificateIsEqualToCertificate(
    const SecCertificateRef& certificate, const SecCertificateRef& other)
{
    const auto digest = KFUtilities::digestForCertificate(certificate, CSSM_ALGID_SHA1);
    const auto otherDigest = KFUtilities::digestForCertificate(other, CSSM_ALGID_SHA1);
    return digest && digest->isEqualToData(otherDigest);
}

Ref<NSData> KeychainTools::readAttribute(SecKeychainAttrType tag, const SecKeychainItemRef& item)
{
    ScopedAttributeList list;
    const OSStatus status = copyAttribute(tag, item, list);
    NSLog("Got error %@", stringForErrorCode(status));
    if (!list)
        return nullptr;
    NSLog("Got %d attribute(s)", list->count);
    if (list->count == 0)
        return nullptr;
    return NSData::dataWithBytes(list->attr[0].data, list->attr[0].length);
}

bool KeychainTools::modifyAttribute(SecKeychainAttrType tag, const Ref<NSData>& data, const SecKeychainItemRef& item)
{
    std::vector<std::uint8_t> buffer;
    if (data)
        buffer.assign(data->span().begin(), data->span().end());
    SecKeychainAttribute attribute{tag, static_cast<std::uint32_t>(buffer.size()), buffer.data()};
    const SecKeychainAttributeList list{1, &attribute};
    const OSStatus status = SecKeychainItemModifyAttributesAndData(item, &list, 0, nullptr);
    NSLog("%@", stringForErrorCode(status));
    return status == errSecSuccess;
}

Ref<NSString> KeychainTools::stringForErrorCode(OSStatus status)
{
    const auto text = SecCopyErrorMessageString(status, nullptr);
    return text ? NSString::stringWithString(text) : NSStringWithFormat("%d", status);
}

Ref<NSArray> KeychainTools::identitiesForEmailAddress(const Ref<NSString>& emailAddress)
{
    SecIdentitySearchRef search;
    if (SecIdentitySearchCreate(nullptr, CSSM_KEYUSE_ANY, &search) != errSecSuccess)
        return nullptr;
    const auto identities = NSMutableArray::array();
    for (;;) {
        SecIdentityRef identity;
        const OSStatus status = SecIdentitySearchCopyNext(search, &identity);
        if (status == errSecItemNotFound)
            return identities;
        if (status != errSecSuccess) {
            NSLog("idea.scn: %@", stringForErrorCode(status));
            return identities;
        }
        addIfAddressed(identities, identity, emailAddress);
    }
}

Ref<NSArray> KeychainTools::certificatesForEmailAddress(const Ref<NSString>& emailAddress)
{
    auto alias = emailAddress ? emailAddress->UTF8String() : std::nullopt;
    if (!alias) {
        NSLog("Couldn't convert certAlias to C String in FindCertificateByAttributes");
        return nullptr;
    }
    const auto certificates = NSMutableArray::array();
    if (std::strlen(alias->c_str()) == 0)
        return certificates;
    const auto search = createAliasSearch(*alias);
    if (!search)
        return nullptr;
    OSStatus status;
    SecKeychainItemRef item;
    while ((status = SecKeychainSearchCopyNext(search, &item)) == errSecSuccess)
        certificates->addObject(item);
    if (status == errSecItemNotFound)
        return certificates;
    NSLog("SecKeychainSearchCopyNext failed: %@", stringForErrorCode(status));
    return nullptr;
}

SecIdentityRef KeychainTools::findIdentityByDomain(const Ref<NSString>& domain)
{
    NSLog("Checking domain '%@'", domain);
    SecIdentityRef identity;
    const OSStatus status = SecIdentityCopyPreference(domain, 0, nullptr, &identity);
    if (status == errSecSuccess)
        return identity;
    NSLog("Error in findIdentityByDomain: %@", stringForErrorCode(status));
    return nullptr;
}

OSStatus KeychainTools::createIdentityPreference(
    const SecCertificateRef& certificate, const Ref<NSString>& domain, bool overwriteExisting)
{
    if (!overwriteExisting && findIdentityByDomain(domain)) {
        NSLog("Identity already set for %@", domain);
        return errSecSuccess;
    }
    NSLog("Setting identity for %@", domain);
    SecIdentityRef identity;
    const OSStatus status = SecIdentityCreateWithCertificate(nullptr, certificate, &identity);
    if (status == errSecSuccess)
        SecIdentitySetPreference(identity, domain, 0);
    else
        // The line names another call than the one that failed; whoever reads logs by it knows it so.
        NSLog("SecKeychainSearchCopyNext failed: %@", stringForErrorCode(status));
    return status;
}

Ref<NSString> KeychainTools::getReadableNameFromCertificate(const SecKeychainItemRef& certificate)
{
    constexpr std::uint32_t longest = 255;
    ScopedAttributeList list;
    const OSStatus status = copyAttribute(kSecLabelItemAttr, certificate, list);
    if (status != errSecSuccess) {
        NSLog("SecKeychainItemCopyAttributesAndData failed: %@", stringForErrorCode(status));
        return nullptr;
    }
    SecKeychainAttribute& label = list->attr[0];
    label.length = std::min(label.length, longest);
    const auto* const bytes = static_cast<const std::uint8_t*>(label.data);
    const auto* const end = std::find(bytes, bytes + label.length, std::uint8_t{0});
    auto name = NSString::stringWithBytes({bytes, end}, NSMacOSRomanStringEncoding);
    NSLog("Certificate name retrieved: %@", name);
    return name;
}

SecCertificateRef KeychainTools::userSelectCertificateFromArray(const Ref<NSArray>& certificates)
{
    if (countOf(certificates) == 0) {
        NSLog("displayIdentityPanel didn't receive any certificates to display");
        return nullptr;
    }
    const auto identities = identitiesOf(certificates);
    const auto panel = SFChooseIdentityPanel::sharedChooseIdentityPanel();
    panel->setAlternateButtonTitle("Cancel"_ns);
    if (panel->runModalForIdentities(identities, "Which personal certificate would you like to use?"_ns) == 0) {
        NSLog("User clicked Cancel in Choose Identity dialog");
        return nullptr;
    }
    SecCertificateRef certificate;
    if (const SecIdentityRef identity = panel->identity())
        SecIdentityCopyCertificate(identity, &certificate);
    return certificate;
}
