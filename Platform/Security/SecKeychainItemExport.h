// Exporting items from keychains.
#pragma once

#include "Security/SecIdentity.h"

/// Exports an identity as a PKCS#12 bundle (RFC 7292): the private key, its
/// certificate and, where `identityOrArray` is an array of a SecIdentity and
/// SecCertificates, those too. Key and certificates are encrypted under the
/// parameters' pass phrase with AES-256 (PBES2, PBKDF2 with HMAC-SHA-256 and
/// 600,000 iterations); the MAC is HMAC-SHA-256 with as many. The bundle is
/// read back and compared before it is given. The caller owns `*exportedData`.
///
/// Errors: errSecParam (wrong record version, null parameters, other objects),
/// errSecUnknownFormat for another format than kSecFormatPKCS12,
/// errSecPassphraseRequired (nil or empty pass phrase), errSecKeyIsSensitive
/// where the key was imported never to leave, errSecInvalidItemRef where it is
/// gone, errSecUnsupportedKeyFormat, and the keychain's own. Any thread; takes
/// a second or two, so not the thread of an interface.
OSStatus SecKeychainItemExport(const Ref<NSObject>& identityOrArray, SecExternalFormat outputFormat,
    SecItemImportExportFlags flags, const SecKeyImportExportParameters* keyParameters, Ref<NSData>* exportedData);
