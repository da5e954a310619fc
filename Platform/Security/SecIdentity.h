// Identities: a certificate together with its private key.
#pragma once

#include "Security/SecCertificate.h"

class SecKey;
class SecIdentity;
class SecIdentitySearch;
using SecKeyRef = Ref<SecKey>;
using SecIdentityRef = Ref<SecIdentity>;
using SecIdentitySearchRef = Ref<SecIdentitySearch>;

/// A search over the identities of a keychain, an array of them, or (nil) the
/// search list. `keyUsage` other than CSSM_KEYUSE_ANY and 0 is errSecParam.
OSStatus SecIdentitySearchCreate(const Ref<NSObject>& keychainOrArray, CSSM_KEYUSE keyUsage,
                                 SecIdentitySearchRef* search);
/// As SecKeychainSearchCopyNext.
OSStatus SecIdentitySearchCopyNext(const SecIdentitySearchRef& search, SecIdentityRef* identity);

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate);
OSStatus SecIdentityCopyPrivateKey(const SecIdentityRef& identity, SecKeyRef* key);

/// The identity of a certificate whose private key is in one of the keychains
/// (nil: the search list). errSecItemNotFound where no key is found.
OSStatus SecIdentityCreateWithCertificate(const Ref<NSObject>& keychainOrArray, const SecCertificateRef& certificate,
                                          SecIdentityRef* identity);
