#include "Tests/Keychain/PlatformCalls.h"

#include "Tests/Support/LibraryFunction.h"

#include <sys/wait.h>

namespace kf::test {

PlatformCalls& platformCalls()
{
    static PlatformCalls calls;
    return calls;
}

} // namespace kf::test

using kf::test::libraryFunction;
using kf::test::platformCalls;

OSStatus SecKeychainCopySearchList(Ref<NSArray>* searchList)
{
    static const auto real = libraryFunction(&SecKeychainCopySearchList);
    const auto& replaced = platformCalls().copySearchList;
    return replaced ? replaced(searchList) : real(searchList);
}

OSStatus SecKeychainSearchCreateFromAttributes(const Ref<NSObject>& keychainOrArray, SecItemClass itemClass,
    const SecKeychainAttributeList* attributes, SecKeychainSearchRef* search)
{
    static const auto real = libraryFunction(&SecKeychainSearchCreateFromAttributes);
    const auto& replaced = platformCalls().createSearch;
    return replaced ? replaced(keychainOrArray, itemClass, attributes, search)
                    : real(keychainOrArray, itemClass, attributes, search);
}

OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef& search, SecKeychainItemRef* item)
{
    static const auto real = libraryFunction(&SecKeychainSearchCopyNext);
    const auto& replaced = platformCalls().searchNext;
    return replaced ? replaced(search, item) : real(search, item);
}

OSStatus SecIdentitySearchCreate(
    const Ref<NSObject>& keychainOrArray, CSSM_KEYUSE keyUsage, SecIdentitySearchRef* search)
{
    static const auto real = libraryFunction(&SecIdentitySearchCreate);
    const auto& replaced = platformCalls().createIdentitySearch;
    return replaced ? replaced(keychainOrArray, keyUsage, search) : real(keychainOrArray, keyUsage, search);
}

OSStatus SecIdentitySearchCopyNext(const SecIdentitySearchRef& search, SecIdentityRef* identity)
{
    static const auto real = libraryFunction(&SecIdentitySearchCopyNext);
    const auto& replaced = platformCalls().identitySearchNext;
    return replaced ? replaced(search, identity) : real(search, identity);
}

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate)
{
    static const auto real = libraryFunction(&SecIdentityCopyCertificate);
    const auto& replaced = platformCalls().copyCertificate;
    return replaced ? replaced(identity, certificate) : real(identity, certificate);
}

OSStatus SecIdentityCreateWithCertificate(
    const Ref<NSObject>& keychainOrArray, const SecCertificateRef& certificate, SecIdentityRef* identity)
{
    static const auto real = libraryFunction(&SecIdentityCreateWithCertificate);
    const auto& replaced = platformCalls().createIdentity;
    return replaced ? replaced(keychainOrArray, certificate, identity) : real(keychainOrArray, certificate, identity);
}

OSStatus SecIdentityCopyPreference(
    const Ref<NSString>& name, CSSM_KEYUSE keyUsage, const Ref<NSArray>& validIssuers, SecIdentityRef* identity)
{
    static const auto real = libraryFunction(&SecIdentityCopyPreference);
    const auto& replaced = platformCalls().copyPreference;
    return replaced ? replaced(name, keyUsage, validIssuers, identity) : real(name, keyUsage, validIssuers, identity);
}

OSStatus SecIdentitySetPreference(const SecIdentityRef& identity, const Ref<NSString>& name, CSSM_KEYUSE keyUsage)
{
    static const auto real = libraryFunction(&SecIdentitySetPreference);
    const auto& replaced = platformCalls().setPreference;
    return replaced ? replaced(identity, name, keyUsage) : real(identity, name, keyUsage);
}

OSStatus SecCertificateCopyEmailAddresses(const SecCertificateRef& certificate, Ref<NSArray>* emailAddresses)
{
    static const auto real = libraryFunction(&SecCertificateCopyEmailAddresses);
    const auto& replaced = platformCalls().copyEmailAddresses;
    return replaced ? replaced(certificate, emailAddresses) : real(certificate, emailAddresses);
}

OSStatus SecCertificateCreateFromData(
    const CSSM_DATA* data, CSSM_CERT_TYPE type, CSSM_CERT_ENCODING encoding, SecCertificateRef* certificate)
{
    static const auto real = libraryFunction(&SecCertificateCreateFromData);
    const auto& replaced = platformCalls().createCertificate;
    return replaced ? replaced(data, type, encoding, certificate) : real(data, type, encoding, certificate);
}

OSStatus SecCertificateGetData(const SecCertificateRef& certificate, CSSM_DATA* data)
{
    static const auto real = libraryFunction(&SecCertificateGetData);
    const auto& replaced = platformCalls().certificateData;
    return replaced ? replaced(certificate, data) : real(certificate, data);
}

OSStatus SecKeychainItemCopyAttributesAndData(const SecKeychainItemRef& item, const SecKeychainAttributeInfo* info,
    SecItemClass* itemClass, SecKeychainAttributeList** attributes, std::uint32_t* length, void** data)
{
    static const auto real = libraryFunction(&SecKeychainItemCopyAttributesAndData);
    const auto& replaced = platformCalls().copyAttributes;
    return replaced ? replaced(item, info, itemClass, attributes, length, data)
                    : real(item, info, itemClass, attributes, length, data);
}

OSStatus SecKeychainItemFreeAttributesAndData(SecKeychainAttributeList* attributes, void* data)
{
    static const auto real = libraryFunction(&SecKeychainItemFreeAttributesAndData);
    const auto& replaced = platformCalls().freeAttributes;
    return replaced ? replaced(attributes, data) : real(attributes, data);
}

OSStatus SecKeychainItemModifyAttributesAndData(
    const SecKeychainItemRef& item, const SecKeychainAttributeList* attributes, std::uint32_t length, const void* data)
{
    static const auto real = libraryFunction(&SecKeychainItemModifyAttributesAndData);
    const auto& replaced = platformCalls().modifyAttributes;
    return replaced ? replaced(item, attributes, length, data) : real(item, attributes, length, data);
}

OSStatus SecKeychainItemCopyKeychain(const SecKeychainItemRef& item, SecKeychainRef* keychain)
{
    static const auto real = libraryFunction(&SecKeychainItemCopyKeychain);
    const auto& replaced = platformCalls().copyKeychain;
    return replaced ? replaced(item, keychain) : real(item, keychain);
}

OSStatus SecKeychainGetPath(const SecKeychainRef& keychain, std::uint32_t* pathLength, char* pathName)
{
    static const auto real = libraryFunction(&SecKeychainGetPath);
    const auto& replaced = platformCalls().keychainPath;
    return replaced ? replaced(keychain, pathLength, pathName) : real(keychain, pathLength, pathName);
}

OSStatus SecPolicySearchCreate(CSSM_CERT_TYPE certificateType, const CSSM_OID* policyIdentifier, const CSSM_DATA* value,
    SecPolicySearchRef* search)
{
    static const auto real = libraryFunction(&SecPolicySearchCreate);
    const auto& replaced = platformCalls().createPolicySearch;
    return replaced ? replaced(certificateType, policyIdentifier, value, search)
                    : real(certificateType, policyIdentifier, value, search);
}

OSStatus SecPolicySearchCopyNext(const SecPolicySearchRef& search, SecPolicyRef* policy)
{
    static const auto real = libraryFunction(&SecPolicySearchCopyNext);
    const auto& replaced = platformCalls().policySearchNext;
    return replaced ? replaced(search, policy) : real(search, policy);
}

Ref<NSString> SecCopyErrorMessageString(OSStatus status, void* reserved)
{
    static const auto real = libraryFunction(&SecCopyErrorMessageString);
    const auto& replaced = platformCalls().errorMessage;
    return replaced ? replaced(status) : real(status, reserved);
}

OSStatus AuthorizationExecuteWithPrivileges(const AuthorizationRef& authorization, const char* path,
    AuthorizationFlags flags, char* const* arguments, std::FILE** communicationsPipe)
{
    static const auto real = libraryFunction(&AuthorizationExecuteWithPrivileges);
    const auto& replaced = platformCalls().executeWithPrivileges;
    return replaced ? replaced(authorization, path, flags, arguments, communicationsPipe)
                    : real(authorization, path, flags, arguments, communicationsPipe);
}

CSSM_RETURN CSSM_ModuleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy,
    CSSM_API_ModuleEventHandler eventHandler, void* eventHandlerContext)
{
    static const auto real = libraryFunction(&CSSM_ModuleLoad);
    const auto& replaced = platformCalls().moduleLoad;
    return replaced ? replaced(moduleGuid, eventHandler, eventHandlerContext)
                    : real(moduleGuid, keyHierarchy, eventHandler, eventHandlerContext);
}

CSSM_RETURN CSSM_CSP_CreateDigestContext(
    CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle)
{
    static const auto real = libraryFunction(&CSSM_CSP_CreateDigestContext);
    const auto& replaced = platformCalls().createDigestContext;
    const CSSM_RETURN error = replaced ? replaced(algorithm) : CSSM_OK;
    return error == CSSM_OK ? real(cspHandle, algorithm, contextHandle) : error;
}

CSSM_RETURN CSSM_DigestData(
    CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest)
{
    static const auto real = libraryFunction(&CSSM_DigestData);
    const auto& replaced = platformCalls().digestData;
    return replaced ? replaced(contextHandle) : real(contextHandle, dataBufs, dataBufCount, digest);
}

CSSM_RETURN CSSM_ModuleDetach(CSSM_MODULE_HANDLE moduleHandle)
{
    static const auto real = libraryFunction(&CSSM_ModuleDetach);
    const CSSM_RETURN error = real(moduleHandle);
    const auto& replaced = platformCalls().moduleDetach;
    return replaced ? replaced(moduleHandle) : error;
}

pid_t waitpid(pid_t child, int* status, int options)
{
    static const auto real = reinterpret_cast<pid_t (*)(pid_t, int*, int)>(dlsym(RTLD_NEXT, "waitpid"));
    const auto& replaced = platformCalls().waitForAnyChild;
    return replaced && child == -1 ? replaced(status, options) : real(child, status, options);
}
