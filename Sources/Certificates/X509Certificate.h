// A certificate as a dictionary of its parts.
#pragma once

#include "Foundation/NSDictionary.h"
#include "Security/SecIdentity.h"

/// Takes certificates apart with the platform's certificate library.
///
/// The dictionary has the keys "SerialNumber" (NSData), "Issuer" and "Subject"
/// (NSDictionary), "NotValidBefore" and "NotValidAfter" (NSDate) and "PublicKey"
/// (NSData); a part that is missing or malformed has no key. A name's dictionary
/// has the keys "Country", "Organization", "Locality", "OrganizationalUnit",
/// "CommonName", "Surname", "Title", "StateProvince", "CollectiveStateProvince",
/// "EmailAddress", "StreetAddress" and "PostalCode" (NSString, the last value
/// where there are several), and "Others" (NSArray of NSString) for values of
/// other attribute types. Text of type IA5String, as e-mail addresses usually
/// have, is left out.
///
/// The caller owns the results. One thread at a time starts CSSM.
class X509Certificate {
public:
    /// Nil where the certificate is nil or cannot be read.
    static Ref<NSMutableDictionary> extractCertDictFromCert(const SecCertificateRef& certificate);
    /// The dictionary of the identity's certificate; nil for nil.
    static Ref<NSMutableDictionary> extractCertDictFromIdentity(const SecIdentityRef& identity);
};
