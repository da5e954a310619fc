// Digests of certificates, certificates by alias, and where keychains lie.
//
// Everything here runs on the thread of its caller and keeps no state. Digests
// start CSSM and are for one thread at a time.
#pragma once

#include "Foundation/NSArray.h"
#include "Foundation/NSData.h"
#include "Security/SecCertificate.h"
#include "Security/SecPolicy.h"

class KFUtilities {
public:
    KFUtilities() = delete;

    /// The digest of a certificate's DER bytes, as digestForCssmData. Nil also
    /// where the bytes cannot be read, which is logged.
    static Ref<NSData> digestForCertificate(const SecCertificateRef& certificate, CSSM_ALGORITHMS algorithm);
    /// SHA-1 of the bytes (20 bytes); nil where it cannot be computed.
    static Ref<NSData> sha1DigestForData(const Ref<NSData>& data);
    /// The raw digest: 16 bytes for CSSM_ALGID_MD5, 20 for CSSM_ALGID_SHA1; nil
    /// for every other algorithm. A failure of CSSM is printed with cssmPerror.
    static Ref<NSData> digestForCssmData(CSSM_DATA data, CSSM_ALGORITHMS algorithm);

    /// The certificates that carry an alias, in every keychain of the search
    /// list, in its order; a certificate that stands in two keychains comes
    /// twice. A keychain that cannot be searched contributes what it gave
    /// before its error. The alias is its UTF-8 form, cut to as many bytes as it
    /// has characters; a nil or empty one finds nothing. Nil where the search
    /// list cannot be read.
    static Ref<NSArray> certificatesForAlias(const Ref<NSString>& alias);

    /// The path of the keychain that holds an item; nil for an item in no
    /// keychain and for a path that is no UTF-8, and, logged, where the
    /// platform cannot tell it.
    static Ref<NSString> pathForKeychainItem(const SecKeychainItemRef& item);
};

/// The platform's basic X.509 policy, owned by the caller; null where there is none.
SecPolicyRef KFSecPolicyCreateBasicX509();

/// Orders paths of keychains, for sorts by function: below /System first, then
/// below /Library, then the others; paths that share more than the root (or
/// not even that) by their whole text, without regard to case. Two paths that
/// share the root alone and are in neither place give -1 either way round.
/// Gives -1, 0 or 1; nil comes before every path and equals nothing.
NSInteger domainPathSort(const Ref<NSString>& path, const Ref<NSString>& otherPath, void* context);
