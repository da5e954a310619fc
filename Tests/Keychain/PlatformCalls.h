// The platform's calls as the keychain tools make them: seen, and made to fail.
//
// The test program defines these calls itself, in front of the platform's
// library. Each goes through to the library unless a test has put something in
// its place. What no back end can bring about is tested this way.
#pragma once

#include "Security/Authorization.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainSearch.h"
#include "Security/SecPolicy.h"
#include "Security/cssmapi.h"

#include <functional>

namespace kf::test {

/// A replacement for each call; empty: the platform's own.
struct PlatformCalls {
    std::function<OSStatus(Ref<NSArray>*)> copySearchList;
    std::function<OSStatus(const Ref<NSObject>&, SecItemClass, const SecKeychainAttributeList*, SecKeychainSearchRef*)>
        createSearch;
    std::function<OSStatus(const SecKeychainSearchRef&, SecKeychainItemRef*)> searchNext;
    std::function<OSStatus(const Ref<NSObject>&, CSSM_KEYUSE, SecIdentitySearchRef*)> createIdentitySearch;
    std::function<OSStatus(const SecIdentitySearchRef&, SecIdentityRef*)> identitySearchNext;
    std::function<OSStatus(const SecIdentityRef&, SecCertificateRef*)> copyCertificate;
    std::function<OSStatus(const Ref<NSObject>&, const SecCertificateRef&, SecIdentityRef*)> createIdentity;
    std::function<OSStatus(const Ref<NSString>&, CSSM_KEYUSE, const Ref<NSArray>&, SecIdentityRef*)> copyPreference;
    std::function<OSStatus(const SecIdentityRef&, const Ref<NSString>&, CSSM_KEYUSE)> setPreference;
    std::function<OSStatus(const SecCertificateRef&, Ref<NSArray>*)> copyEmailAddresses;
    std::function<OSStatus(const CSSM_DATA*, CSSM_CERT_TYPE, CSSM_CERT_ENCODING, SecCertificateRef*)> createCertificate;
    std::function<OSStatus(const SecCertificateRef&, CSSM_DATA*)> certificateData;
    std::function<OSStatus(const SecKeychainItemRef&, const SecKeychainAttributeInfo*, SecItemClass*,
        SecKeychainAttributeList**, std::uint32_t*, void**)>
        copyAttributes;
    std::function<OSStatus(SecKeychainAttributeList*, void*)> freeAttributes;
    std::function<OSStatus(const SecKeychainItemRef&, const SecKeychainAttributeList*, std::uint32_t, const void*)>
        modifyAttributes;
    std::function<OSStatus(const SecKeychainItemRef&, SecKeychainRef*)> copyKeychain;
    std::function<OSStatus(const SecKeychainRef&, std::uint32_t*, char*)> keychainPath;
    std::function<OSStatus(CSSM_CERT_TYPE, const CSSM_OID*, const CSSM_DATA*, SecPolicySearchRef*)> createPolicySearch;
    std::function<OSStatus(const SecPolicySearchRef&, SecPolicyRef*)> policySearchNext;
    std::function<Ref<NSString>(OSStatus)> errorMessage;
    std::function<OSStatus(const AuthorizationRef&, const char*, AuthorizationFlags, char* const*, std::FILE**)>
        executeWithPrivileges;
    std::function<CSSM_RETURN(const CSSM_GUID*, CSSM_API_ModuleEventHandler, void*)> moduleLoad;
    /// Where this gives CSSM_OK, the platform makes the context.
    std::function<CSSM_RETURN(CSSM_ALGORITHMS)> createDigestContext;
    std::function<CSSM_RETURN(CSSM_CC_HANDLE)> digestData;
    /// The platform has detached already; what it gave is replaced.
    std::function<CSSM_RETURN(CSSM_MODULE_HANDLE)> moduleDetach;
    std::function<int(int*, int)> waitForAnyChild;
};

/// The calls in force; a test resets them when it ends.
PlatformCalls& platformCalls();

} // namespace kf::test
