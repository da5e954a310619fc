// Certificates, identities and items of the keychains.
//
// Nothing here raises, but for an array that changes while it is walked, or
// keeps state; everything runs on the thread of its caller. A failure is a nil, null or false result and, where said, a
// line in the system log that ends in the status's text.
#pragma once

#include "Foundation/NSArray.h"
#include "Foundation/NSData.h"
#include "Security/SecCertificate.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainItem.h"

class KeychainTools {
public:
    KeychainTools() = delete;

    /// A certificate from the bytes of one DER X.509 certificate, in no
    /// keychain; the caller owns it. Null where the bytes are none. Logs nothing.
    static SecCertificateRef createCertificateWithData(const Ref<NSData>& data);

    /// Whether two certificates have the same SHA-1 digest. One whose bytes
    /// cannot be read equals nothing, itself included.
    static bool certificateIsEqualToCertificate(const SecCertificateRef& certificate, const SecCertificateRef& other);

    /// The bytes of an item's attribute; nil where the item lacks it or cannot
    /// be read. Logs the status's text, also of success.
    static Ref<NSData> readAttribute(SecKeychainAttrType tag, const SecKeychainItemRef& item);

    /// Writes an item's attribute and leaves its data; false, and nothing
    /// changed, where the platform refuses. Logs the status's text, also of success.
    static bool modifyAttribute(SecKeychainAttrType tag, const Ref<NSData>& data, const SecKeychainItemRef& item);

    /// The platform's text for a status, its decimal code where it has none. Never nil.
    static Ref<NSString> stringForErrorCode(OSStatus status);

    /// The identities of the search list whose certificate carries an e-mail
    /// address, compared without regard to case; a certificate that carries it
    /// twice comes twice. Identities whose certificate or addresses cannot be
    /// read are logged and left out; another failure of the search is logged and
    /// ends it with what was found. Nil where the search cannot be made. A nil
    /// or empty address finds nothing.
    static Ref<NSArray> identitiesForEmailAddress(const Ref<NSString>& emailAddress);

    /// The certificates of the search list whose alias is, byte for byte, an
    /// e-mail address. All of them or, logged, nil: a failure in the middle
    /// discards what was found. An empty address finds nothing; nil, or one with
    /// no UTF-8 form, gives nil.
    static Ref<NSArray> certificatesForEmailAddress(const Ref<NSString>& emailAddress);

    /// The identity preferred for a name, such as a host's or an e-mail address;
    /// the caller owns it. Null, logged, where none is set or it cannot be found.
    static SecIdentityRef findIdentityByDomain(const Ref<NSString>& domain);

    /// Sets the identity of a certificate, whose private key is looked for in the
    /// search list, as the preferred one for a name. Without `overwriteExisting`
    /// a preference that is set stays. Gives the status of finding the key: 0
    /// also where a preference stayed, or where setting it failed.
    static OSStatus createIdentityPreference(
        const SecCertificateRef& certificate, const Ref<NSString>& domain, bool overwriteExisting);

    /// A certificate's label, its first 255 bytes up to a zero byte, read as Mac
    /// OS Roman whatever was written; nil, logged, where it cannot be read.
    static Ref<NSString> getReadableNameFromCertificate(const SecKeychainItemRef& certificate);

    /// Lets the person choose one of the certificates whose private key is in the
    /// search list and gives it; the caller owns it. Null, logged, for an empty
    /// array, which nobody is asked about, and where nothing is chosen. Blocks
    /// until the person answers; main thread. Raises where the array is changed
    /// while it is walked.
    static SecCertificateRef userSelectCertificateFromArray(const Ref<NSArray>& certificates);
};
