#include "Keychain/KFUtilities.h"

#include "Certificates/CDSACsp.h"
#include "Foundation/NSLog.h"
#include "Keychain/NSArray+LastCommonElement.h"
#include "Security/SecKeychainSearch.h"

#include <algorithm>
#include <cstring>

namespace {

/// The attachment to the cryptographic service provider, for the length of a scope.
class CSPAttachment {
public:
    CSPAttachment() noexcept : error_(cdsaCspAttach(&handle_)) { }
    ~CSPAttachment()
    {
        if (handle_ != 0)
            cdsaCspDetach(handle_);
    }
    CSPAttachment(const CSPAttachment&) = delete;
    CSPAttachment& operator=(const CSPAttachment&) = delete;

    CSSM_RETURN error() const noexcept { return error_; }
    CSSM_CSP_HANDLE handle() const noexcept { return handle_; }

private:
    CSSM_CSP_HANDLE handle_ = 0;
    CSSM_RETURN error_;
};

CSSM_DATA cssmData(const Ref<NSData>& data)
{
    if (!data)
        return {};
    // CSSM_DATA knows no const; an input is only read.
    return {data->length(), const_cast<std::uint8_t*>(data->bytes())};
}

/// The bytes that are searched for. Aliases are plain ASCII in practice; the
/// UTF-8 form of others is cut at as many bytes as they have characters.
std::string aliasBytes(const Ref<NSString>& alias)
{
    if (!alias)
        return {};
    const auto text = alias->UTF8String();
    if (!text)
        return {};
    return text->substr(0, std::min(static_cast<std::size_t>(alias->length()), text->find('\0')));
}

void addCertificatesForAlias(
    const Ref<NSMutableArray>& list, const Ref<NSObject>& keychain, const SecKeychainAttributeList& attributes)
{
    SecKeychainSearchRef search;
    SecKeychainSearchCreateFromAttributes(keychain, kSecCertificateItemClass, &attributes, &search);
    // Any status but success ends it: a search that keeps on failing would never say errSecItemNotFound.
    SecKeychainItemRef item;
    while (SecKeychainSearchCopyNext(search, &item) == errSecSuccess)
        list->addObject(item);
}

Ref<NSString> platformText(OSStatus status) { return SecCopyErrorMessageString(status, nullptr); }

/// The domains in their order; every other one comes after them.
NSInteger domainPosition(const Ref<NSObject>& component)
{
    if (CFEqual(component, "System"_ns))
        return 0;
    if (CFEqual(component, "Library"_ns))
        return 1;
    return static_cast<NSInteger>(NSNotFound);
}

} // namespace

Ref<NSData> KFUtilities::digestForCertificate(const SecCertificateRef& certificate, CSSM_ALGORITHMS algorithm)
{
    if (!certificate)
        return nullptr;
    CSSM_DATA data;
    const OSStatus status = SecCertificateGetData(certificate, &data);
    if (status != errSecSuccess) {
        NSLog("DFC:SecCertificateGetData: %@", platformText(status));
        return nullptr;
    }
    return digestForCssmData(data, algorithm);
}

Ref<NSData> KFUtilities::sha1DigestForData(const Ref<NSData>& data)
{
    return digestForCssmData(cssmData(data), CSSM_ALGID_SHA1);
}

Ref<NSData> KFUtilities::digestForCssmData(CSSM_DATA data, CSSM_ALGORITHMS algorithm)
{
    if (algorithm != CSSM_ALGID_MD5 && algorithm != CSSM_ALGID_SHA1)
        return nullptr;
    const CSPAttachment attachment;
    if (attachment.error() != CSSM_OK) {
        cssmPerror("cdsaCspAttach", attachment.error());
        return nullptr;
    }
    CSSM_DATA digest;
    const CSSM_RETURN error = cdsaDigest(attachment.handle(), algorithm, &data, &digest);
    if (error != CSSM_OK) {
        cssmPerror("cdsaDigest", error);
        return nullptr;
    }
    auto result = NSData::dataWithBytes(digest.Data, digest.Length);
    appFree(digest.Data, nullptr);
    return result;
}

Ref<NSArray> KFUtilities::certificatesForAlias(const Ref<NSString>& alias)
{
    const auto list = NSMutableArray::arrayWithCapacity(1);
    std::string bytes = aliasBytes(alias);
    std::uint32_t certificateType = CSSM_CERT_X_509v3;
    SecKeychainAttribute attributes[] = {
        {kSecAliasItemAttr, static_cast<std::uint32_t>(bytes.size()), bytes.data()},
        {kSecCertificateType, sizeof certificateType, &certificateType},
    };
    // The alias alone: a count of 2 would change which items match.
    const SecKeychainAttributeList attributeList{1, attributes};
    Ref<NSArray> searchList;
    if (SecKeychainCopySearchList(&searchList) != errSecSuccess)
        return nullptr;
    if (!bytes.empty()) {
        for (const auto& keychain : *searchList)
            addCertificatesForAlias(list, keychain, attributeList);
    }
    return NSArray::arrayWithArray(list);
}

Ref<NSString> KFUtilities::pathForKeychainItem(const SecKeychainItemRef& item)
{
    if (!item)
        return nullptr;
    SecKeychainRef keychain;
    if (SecKeychainItemCopyKeychain(item, &keychain) != errSecSuccess)
        return nullptr;
    // One byte of room, to learn the length.
    char tooSmall[1] = {};
    std::uint32_t length = sizeof tooSmall;
    Ref<NSString> path;
    OSStatus status = SecKeychainGetPath(keychain, &length, tooSmall);
    if (status == errSecSuccess || status == errSecBufferTooSmall) {
        length += 2;
        std::vector<char> buffer(length, '\0');
        status = SecKeychainGetPath(keychain, &length, buffer.data());
        if (status == errSecSuccess)
            path = NSString::stringWithUTF8String({buffer.data(), length});
    }
    if (status != errSecSuccess)
        NSLog("Error getting path: %@", platformText(status));
    return path;
}

SecPolicyRef KFSecPolicyCreateBasicX509()
{
    SecPolicySearchRef search;
    if (SecPolicySearchCreate(CSSM_CERT_X_509v3, &CSSMOID_APPLE_X509_BASIC, nullptr, &search) != errSecSuccess)
        return nullptr;
    SecPolicyRef policy;
    if (SecPolicySearchCopyNext(search, &policy) != errSecSuccess)
        return nullptr;
    return policy;
}

NSInteger domainPathSort(const Ref<NSString>& path, const Ref<NSString>& otherPath, void*)
{
    if (!path)
        return NSOrderedAscending;
    const auto components = path->pathComponents();
    const auto otherComponents = otherPath ? otherPath->pathComponents() : nullptr;
    if (CFEqual(LastCommonElement::lastCommonElementWithArray(components, otherComponents), "/"_ns)) {
        const NSInteger position = domainPosition(components->objectAtIndex(1));
        const NSInteger otherPosition = domainPosition(otherComponents->objectAtIndex(1));
        return position > otherPosition ? NSOrderedDescending : NSOrderedAscending;
    }
    return path->caseInsensitiveCompare(otherPath);
}
