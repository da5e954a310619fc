#include "Security/SecBase.h"

#include "Security/Authorization/ErrorText.h"
#include "Security/CSSM/ErrorText.h"

namespace {

/// The text of one of the platform's own codes; nil where it has none. People
/// read it under a line such as "Failed to install your personal certificate:".
Ref<NSString> securityErrorText(OSStatus status)
{
    switch (status) {
    case errSecSuccess:
        return "No error."_ns;
    case errSecUnimplemented:
        return "This function is not available on this system."_ns;
    case errSecIO:
        return "A file could not be read or written."_ns;
    case errSecParam:
        return "A parameter that was passed to a security function is not valid."_ns;
    case errSecWrPerm:
        return "The keychain belongs to somebody else, or you have no permission to change it."_ns;
    case errSecAllocate:
        return "There is not enough memory."_ns;
    case errSecUserCanceled:
        return "The operation was canceled."_ns;
    case errSecInternalComponent:
        return "An internal error occurred in the security services."_ns;
    case errSecUnknownFormat:
        return "The format of the data is not known. It is not a certificate or a PKCS#12 file."_ns;
    case errSecKeyIsSensitive:
        return "The private key may not leave the keychain unprotected."_ns;
    case errSecMultiplePrivKeys:
        return "The file holds more than one private key."_ns;
    case errSecPassphraseRequired:
        return "A pass phrase is needed to open this file."_ns;
    case errSecInvalidPasswordRef:
        return "The reference to a pass phrase is not valid."_ns;
    case errSecInvalidTrustSettings:
        return "The trust settings of the certificate are damaged or not valid."_ns;
    case errSecNoTrustSettings:
        return "The certificate has no trust settings."_ns;
    case errSecPkcs12VerifyFailure:
        return "The pass phrase is wrong for this file."_ns;
    case errSecNotAvailable:
        return "The keychain service could not be started."_ns;
    case errSecReadOnly:
        return "The keychain is read-only."_ns;
    case errSecAuthFailed:
        return "The pass phrase of the keychain is wrong."_ns;
    case errSecNoSuchKeychain:
        return "The keychain does not exist."_ns;
    case errSecInvalidKeychain:
        return "The keychain is damaged or incomplete. It was left as it is."_ns;
    case errSecDuplicateItem:
        return "The item is already in the keychain."_ns;
    case errSecItemNotFound:
        return "The item was not found in the keychain."_ns;
    case errSecBufferTooSmall:
        return "The room for the result is too small."_ns;
    case errSecDataTooLarge:
        return "The file is too large, holds too many certificates or keys, or asks for too much time or memory."_ns;
    case errSecNoSuchAttr:
        return "Items of this kind have no such attribute."_ns;
    case errSecInvalidItemRef:
        return "The item is no longer in the keychain."_ns;
    case errSecInvalidSearchRef:
        return "The reference to a keychain search is not valid."_ns;
    case errSecNoSuchClass:
        return "There are no keychain items of this kind."_ns;
    case errSecNoDefaultKeychain:
        return "There is no default keychain, because no home folder is known."_ns;
    case errSecInteractionNotAllowed:
        return "The keychain is locked, and asking for its pass phrase is not possible here."_ns;
    case errSecReadOnlyAttr:
        return "This attribute of the item cannot be changed."_ns;
    case errSecKeySizeNotAllowed:
        return "Keys of this size are not allowed."_ns;
    case errSecNoPolicyModule:
        return "The trust policy is not known."_ns;
    case errSecDataNotAvailable:
        return "There is nothing to install: the data holds no private key with a certificate."_ns;
    case errSecDataNotModifiable:
        return "The data of the item cannot be changed."_ns;
    case errSecDecode:
        return "The file is damaged. Ask for it again."_ns;
    case errSecKeychainWrongType:
        return "Something else stands where the keychain should be. It was left as it is."_ns;
    case errSecKeychainUnreadable:
        return "You have no permission to read the keychain."_ns;
    case errSecKeychainEmpty:
        return "A file of the keychain is empty. It was left as it is."_ns;
    case errSecKeychainIncomplete:
        return "A file of the keychain is missing. It was left as it is."_ns;
    case errSecKeychainBusy:
        return "Another program is changing the keychain and does not come to an end."_ns;
    case errSecPreferenceDamaged:
        return "The record of which identity to use is damaged. It was kept."_ns;
    case errSecKeychainPathTooLong:
        return "The path of the keychain is too long for a database."_ns;
    case errSecIssuerAndSerialTaken:
        return "A different certificate with the same issuer and serial number is in the keychain, which cannot hold "
               "both. Delete that one first if the new one is to take its place."_ns;
    case errSecUnsupportedKeyFormat:
        return "The file uses an algorithm or a kind of key that this system does not support."_ns;
    case errSecUnsupportedKeySize:
        return "The size of the key is not supported."_ns;
    case errSecNoCertificate:
        return "The file holds a private key, but no certificate that belongs to it."_ns;
    default:
        return nullptr;
    }
}

} // namespace

Ref<NSString> SecCopyErrorMessageString(OSStatus status, void* reserved)
{
    if (reserved)
        return nullptr;
    if (Ref<NSString> text = securityErrorText(status))
        return text;
    if (Ref<NSString> text = kf::authorizationErrorText(status))
        return text;
    return kf::cssmErrorText(static_cast<CSSM_RETURN>(status));
}
