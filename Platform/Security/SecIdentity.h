// Identities: a certificate together with its private key.
#pragma once

#include "Security/SecCertificate.h"

/// A private key in a keychain. Its bytes leave the keychain only
/// encrypted (SecKeychainItemExport).
class SecKey final : public SecKeychainItem {
public:
    /// What ties it to its certificates (CKA_ID).
    const std::vector<std::uint8_t>& identifier() const noexcept { return identifier_; }
    const char* className() const noexcept override { return "SecKey"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    SecKey(std::vector<std::uint8_t> identifier, SecKeychainRef keychain);
    ~SecKey() override;

    std::vector<std::uint8_t> identifier_;
};

/// Immutable; equal where certificate and key are.
class SecIdentity final : public NSObject {
public:
    const SecCertificateRef& certificate() const noexcept { return certificate_; }
    const Ref<SecKey>& privateKey() const noexcept { return privateKey_; }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    const char* className() const noexcept override { return "SecIdentity"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    SecIdentity(SecCertificateRef certificate, Ref<SecKey> privateKey) noexcept;
    ~SecIdentity() override;

    SecCertificateRef certificate_;
    Ref<SecKey> privateKey_;
};

/// A search under way. One thread at a time.
class SecIdentitySearch final : public NSObject {
public:
    const char* className() const noexcept override { return "SecIdentitySearch"; }
    class State;
    State& state() const noexcept { return *state_; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecIdentitySearch(std::unique_ptr<State> state) noexcept;
    ~SecIdentitySearch() override;

    std::unique_ptr<State> state_;
};

using SecKeyRef = Ref<SecKey>;
using SecIdentityRef = Ref<SecIdentity>;
using SecIdentitySearchRef = Ref<SecIdentitySearch>;

/// A search over the identities of a keychain, an array of them, or (nil) the
/// search list. `keyUsage` other than CSSM_KEYUSE_ANY and 0 is errSecParam.
OSStatus SecIdentitySearchCreate(
    const Ref<NSObject>& keychainOrArray, CSSM_KEYUSE keyUsage, SecIdentitySearchRef* search);
/// As SecKeychainSearchCopyNext.
OSStatus SecIdentitySearchCopyNext(const SecIdentitySearchRef& search, SecIdentityRef* identity);

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate);
OSStatus SecIdentityCopyPrivateKey(const SecIdentityRef& identity, SecKeyRef* key);

/// The identity of a certificate whose private key is in one of the keychains
/// (nil: the search list). errSecItemNotFound where no key is found.
OSStatus SecIdentityCreateWithCertificate(
    const Ref<NSObject>& keychainOrArray, const SecCertificateRef& certificate, SecIdentityRef* identity);

/// The identity that the user prefers for a name, such as a host's or an e-mail
/// address: the one whose certificate was recorded, found in the search list
/// with its key. Names are told apart byte for byte. `keyUsage` other than 0
/// and CSSM_KEYUSE_ANY, and any `validIssuers`, are errSecParam, as is a name
/// that is nil, empty or without UTF-8 form. Errors: errSecItemNotFound without
/// a record, or where its certificate or key is in no keychain;
/// errSecPreferenceDamaged; errSecIO; the keychains' own. The caller owns
/// `*identity`. Any thread.
OSStatus SecIdentityCopyPreference(
    const Ref<NSString>& name, CSSM_KEYUSE keyUsage, const Ref<NSArray>& validIssuers, SecIdentityRef* identity);

/// Records the identity for a name, for every later process of this user, in
/// place of what was recorded before. Errors as above; errSecItemNotFound
/// where the search list does not hold the identity, errSecWrPerm where the
/// user's data directory is somebody else's. What is written is safe from a crash.
OSStatus SecIdentitySetPreference(const SecIdentityRef& identity, const Ref<NSString>& name, CSSM_KEYUSE keyUsage);
