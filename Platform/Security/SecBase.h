// Status codes and references of the Security services.
#pragma once

#include "Foundation/NSString.h"

/// 0 is success; every other value has a text (SecCopyErrorMessageString).
using OSStatus = std::int32_t;

enum : OSStatus {
    errSecSuccess = 0,
    errSecUnimplemented = -4,
    errSecIO = -36,
    errSecParam = -50,
    errSecWrPerm = -61,
    errSecAllocate = -108,
    errSecUserCanceled = -128,
    errSecInternalComponent = -2070,
    errSecUnknownFormat = -25257,
    errSecKeyIsSensitive = -25258,
    errSecMultiplePrivKeys = -25259,
    errSecPassphraseRequired = -25260,
    errSecInvalidPasswordRef = -25261,
    errSecInvalidTrustSettings = -25262,
    errSecNoTrustSettings = -25263,
    errSecPkcs12VerifyFailure = -25264,
    errSecNotAvailable = -25291,
    errSecReadOnly = -25292,
    errSecAuthFailed = -25293,
    errSecNoSuchKeychain = -25294,
    errSecInvalidKeychain = -25295,
    errSecDuplicateItem = -25299,
    errSecItemNotFound = -25300,
    errSecBufferTooSmall = -25301,
    errSecDataTooLarge = -25302,
    errSecNoSuchAttr = -25303,
    errSecInvalidItemRef = -25304,
    errSecInvalidSearchRef = -25305,
    errSecNoSuchClass = -25306,
    errSecNoDefaultKeychain = -25307,
    errSecInteractionNotAllowed = -25308,
    errSecReadOnlyAttr = -25309,
    errSecKeySizeNotAllowed = -25311,
    errSecNoPolicyModule = -25314,
    errSecDataNotAvailable = -25316,
    errSecDataNotModifiable = -25317,
    errSecDecode = -26275,
    // This system's own: what is wrong with a keychain's files, and with those beside them.
    errSecKeychainWrongType = -27901,
    errSecKeychainUnreadable = -27902,
    errSecKeychainEmpty = -27903,
    errSecKeychainIncomplete = -27904,
    errSecKeychainBusy = -27905,
    errSecPreferenceDamaged = -27906,
    errSecKeychainPathTooLong = -27907,
    errSecIssuerAndSerialTaken = -27908,
    errSecUnsupportedKeyFormat = -67734,
    errSecUnsupportedKeySize = -67735,
    errSecNoCertificate = -67817,
};

/// The platform's text for a status, its own code, a CSSM code or an
/// authorization code alike; nil where it has none. `reserved` must be null.
/// The caller owns the result. Any thread.
Ref<NSString> SecCopyErrorMessageString(OSStatus status, void* reserved);
