// Trust: evaluating it, and settings that decide it.
#pragma once

#include "Foundation/NSDictionary.h"
#include "Security/SecCertificate.h"
#include "Security/SecPolicy.h"

#include <vector>

/// Certificates to be evaluated under policies. Immutable. Any thread.
class SecTrust final : public NSObject {
public:
    const std::vector<SecCertificateRef>& certificates() const noexcept { return certificates_; }
    const char* className() const noexcept override { return "SecTrust"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecTrust(std::vector<SecCertificateRef> certificates) noexcept;
    ~SecTrust() override;

    std::vector<SecCertificateRef> certificates_;
};
using SecTrustRef = Ref<SecTrust>;

using SecTrustResultType = std::uint32_t;
inline constexpr SecTrustResultType kSecTrustResultInvalid = 0;
inline constexpr SecTrustResultType kSecTrustResultProceed = 1;
inline constexpr SecTrustResultType kSecTrustResultConfirm = 2;
inline constexpr SecTrustResultType kSecTrustResultDeny = 3;
inline constexpr SecTrustResultType kSecTrustResultUnspecified = 4;
inline constexpr SecTrustResultType kSecTrustResultRecoverableTrustFailure = 5;
inline constexpr SecTrustResultType kSecTrustResultFatalTrustFailure = 6;
inline constexpr SecTrustResultType kSecTrustResultOtherError = 7;

/// What is to be evaluated: element 0 of `certificates` (an array of
/// SecCertificate; one SecCertificate alone will do), the others only help to
/// build its chain. `policies` is a SecPolicy or an array of them. errSecParam
/// where either is nil, empty or holds something else. The caller owns `*trust`.
OSStatus SecTrustCreateWithCertificates(
    const Ref<NSObject>& certificates, const Ref<NSObject>& policies, SecTrustRef* trust);

/// Evaluates element 0 now: kSecTrustResultDeny where a setting denies it or a
/// certificate of its chain, kSecTrustResultProceed where its chain ends in a
/// certificate that a user or admin setting trusts,
/// kSecTrustResultUnspecified where it is valid by the distribution's store
/// alone, kSecTrustResultRecoverableTrustFailure (no anchor, expired, ...) or
/// kSecTrustResultFatalTrustFailure (a signature is wrong) else. Where the
/// evaluation itself fails, the status says why and `*result` stays as it was.
/// Revocation is not checked. A keychain that cannot be read has no say.
OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result);

using SecTrustSettingsDomain = std::uint32_t;
inline constexpr SecTrustSettingsDomain kSecTrustSettingsDomainUser = 0;
inline constexpr SecTrustSettingsDomain kSecTrustSettingsDomainAdmin = 1;
inline constexpr SecTrustSettingsDomain kSecTrustSettingsDomainSystem = 2;

enum SecTrustSettingsResult : std::uint32_t {
    kSecTrustSettingsResultInvalid = 0,
    kSecTrustSettingsResultTrustRoot = 1,
    kSecTrustSettingsResultTrustAsRoot = 2,
    kSecTrustSettingsResultDeny = 3,
    kSecTrustSettingsResultUnspecified = 4,
};

/// Keys of a trust-settings dictionary; each constant's value is its own name.
extern const Ref<NSString> kSecTrustSettingsPolicy;
extern const Ref<NSString> kSecTrustSettingsResult;

/// Writes the trust settings of a certificate in a domain, replacing what
/// stood there. `settings` is a dictionary, an array of them, or nil (trust as
/// root for every policy). A dictionary without a result entry means trust as
/// root. The user domain lies in the default keychain, to which the certificate
/// is added where it is missing: programs heed a setting only beside its
/// certificate. The admin domain lies in the System keychain; a process that
/// is no administrator writes it through the privileged tool, under a right that
/// it was granted and that is remembered (AdminDomain.h), and without one is
/// refused at once: errAuthorizationDenied.
/// The system domain is the distribution's and cannot be written (errSecReadOnly).
/// A setting makes a self-signed certificate an anchor of chains; any other
/// certificate is then trusted itself, and nothing that it issued. Of several
/// dictionaries a denying one wins. errSecInvalidTrustSettings for entries of
/// another kind, which might have narrowed the setting down.
OSStatus SecTrustSettingsSetTrustSettings(
    const SecCertificateRef& certificate, SecTrustSettingsDomain domain, const Ref<NSObject>& settings);
/// The settings of a certificate in a domain, an array of dictionaries owned by
/// the caller. errSecItemNotFound where there are none.
OSStatus SecTrustSettingsCopyTrustSettings(
    const SecCertificateRef& certificate, SecTrustSettingsDomain domain, Ref<NSArray>* settings);
/// The certificates that have settings in a domain, an array of SecCertificate
/// owned by the caller. errSecNoTrustSettings where there are none; the
/// keychain's own errors.
OSStatus SecTrustSettingsCopyCertificates(SecTrustSettingsDomain domain, Ref<NSArray>* certificates);
/// Takes the settings of a certificate out of a domain, with rights as for
/// writing them. errSecItemNotFound where there are none.
OSStatus SecTrustSettingsRemoveTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain);
