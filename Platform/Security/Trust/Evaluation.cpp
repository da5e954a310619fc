#include "Security/Trust/Evaluation.h"

#include "Security/Certificate/LibraryContext.h"
#include "Security/Keychain/Index.h"
#include "Security/Trust/DistributionStore.h"

#include <algorithm>
#include <deque>

namespace kf::trust {

using keychain::ParsedCertificate;
using keychain::SharedCertificate;
using keychain::Trust;
using keychain::TrustLevel;

namespace {

/// A certificate that may stand in the chain, and who vouches for it.
struct Candidate {
    SharedCertificate certificate;
    ScopedX509 x509;
    TrustLevel level = TrustLevel::unspecified; ///< by settings, of all keychains together
    bool inDistributionStore = false;
};

std::vector<SecKeychainRef> keychains()
{
    std::vector<SecKeychainRef> found;
    Ref<NSArray> searchList;
    if (SecKeychainCopySearchList(&searchList) != errSecSuccess || !searchList)
        return found;
    for (const auto& keychain : *searchList)
        found.push_back(refCast<SecKeychain>(keychain));
    return found;
}

/// Of two words about one purpose the denying one counts, then the trusting one.
TrustLevel stronger(TrustLevel a, TrustLevel b)
{
    for (const TrustLevel level : {TrustLevel::denied, TrustLevel::trusted, TrustLevel::trustedPeer}) {
        if (a == level || b == level)
            return level;
    }
    return TrustLevel::unspecified;
}

/// Everything from which the chain of one certificate can be built.
class ChainMaterial {
public:
    explicit ChainMaterial(const std::vector<SecCertificateRef>& certificates) : keychains_(keychains())
    {
        for (const auto& certificate : certificates)
            given_.push_back(certificate->sharedParsed());
    }

    /// False where the first certificate cannot be read.
    bool collect()
    {
        if (!add(given_.front(), false))
            return false;
        // More than any honest chain has; crossing signatures could make it long.
        constexpr std::size_t limit = 64;
        for (std::size_t index = 0; index < candidates_.size() && candidates_.size() < limit; ++index)
            addIssuers(index);
        return true;
    }

    const std::deque<Candidate>& candidates() const noexcept { return candidates_; }
    const Candidate& leaf() const noexcept { return candidates_.front(); }

private:
    /// Null where it is none yet.
    Candidate* candidateOf(const ParsedCertificate& certificate)
    {
        const auto known = std::ranges::find_if(candidates_,
            [&](const Candidate& candidate) { return candidate.certificate->digest == certificate.digest; });
        return known == candidates_.end() ? nullptr : &*known;
    }

    bool add(const SharedCertificate& certificate, bool inDistributionStore)
    {
        if (Candidate* const known = candidateOf(*certificate)) {
            known->inDistributionStore |= inDistributionStore;
            return true;
        }
        ScopedX509 x509 = decodeCertificate(certificate->der);
        if (!certificate->fields || !x509)
            return false;
        candidates_.push_back({certificate, std::move(x509), settingOf(*certificate), inDistributionStore});
        return true;
    }

    TrustLevel settingOf(const ParsedCertificate& certificate) const
    {
        Trust combined;
        for (const auto& keychain : keychains_) {
            const auto trust = keychain::readTrust(keychain, certificate.der);
            if (!trust)
                continue;
            combined.server = stronger(combined.server, trust->server);
            combined.email = stronger(combined.email, trust->email);
        }
        return basicLevel(combined);
    }

    struct Issuer {
        SharedCertificate certificate;
        bool inDistributionStore;
    };

    std::vector<Issuer> certificatesNamed(std::span<const std::uint8_t> name) const
    {
        std::vector<Issuer> found;
        for (const auto& certificate : given_) {
            if (certificate->fields && std::ranges::equal(certificate->fields->subject, name))
                found.push_back({certificate, false});
        }
        for (const auto& keychain : keychains_) {
            const auto certificates = keychain::certificatesWithSubject(keychain, name);
            if (!certificates)
                continue;
            for (const auto& certificate : *certificates)
                found.push_back({certificate->sharedParsed(), false});
        }
        for (Bytes& der : distributionStore()->certificatesWithSubject(name))
            found.push_back({std::make_shared<const ParsedCertificate>(std::move(der)), true});
        return found;
    }

    /// Adds those of the issuer's name whose key made the signature. Where there
    /// is none, adds all of that name: the chain then shows the wrong signature.
    void addIssuers(std::size_t index)
    {
        const auto named = certificatesNamed(candidates_[index].certificate->fields->issuer);
        const auto signedBy = [&](const Issuer& issuer) {
            const Candidate* const known = candidateOf(*issuer.certificate);
            const ScopedX509 decoded = known ? nullptr : decodeCertificate(issuer.certificate->der);
            const X509* const x509 = known ? known->x509.get() : decoded.get();
            EVP_PKEY* key = x509 ? X509_get0_pubkey(x509) : nullptr;
            return key && X509_verify(candidates_[index].x509.get(), key) == 1;
        };
        bool found = false;
        for (const Issuer& issuer : named) {
            if (signedBy(issuer))
                found |= add(issuer.certificate, issuer.inDistributionStore);
        }
        for (const Issuer& issuer : named) {
            if (!found)
                static_cast<void>(add(issuer.certificate, issuer.inDistributionStore));
        }
    }

    std::vector<SecKeychainRef> keychains_;
    std::vector<SharedCertificate> given_;
    std::deque<Candidate> candidates_;
};

/// What came of building and checking one chain.
struct Verdict {
    std::vector<int> errors; ///< each once
    bool isDenied = false;

    bool isValid() const noexcept { return errors.empty(); }
};

bool isSignatureError(int error)
{
    return error == X509_V_ERR_CERT_SIGNATURE_FAILURE || error == X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE
        || error == X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY;
}

/// Takes note of every error and goes on, so that one does not hide another.
int noteError(int valid, X509_STORE_CTX* context)
{
    if (valid == 1)
        return 1;
    auto* verdict = static_cast<Verdict*>(X509_STORE_CTX_get_app_data(context));
    const int error = X509_STORE_CTX_get_error(context);
    if (std::ranges::find(verdict->errors, error) == verdict->errors.end())
        verdict->errors.push_back(error);
    return 1;
}

bool isDenied(const ChainMaterial& material, const X509* x509)
{
    return std::ranges::any_of(material.candidates(), [&](const Candidate& candidate) {
        return candidate.level == TrustLevel::denied && X509_cmp(candidate.x509.get(), x509) == 0;
    });
}

/// Builds a chain that ends in one of `anchors` and checks it (RFC 5280,
/// section 6). An anchor need not be a root.
Result<Verdict> verify(const ChainMaterial& material, const std::vector<const Candidate*>& anchors)
{
    constexpr Failure failure{errSecInternalComponent};
    const ScopedX509_STORE store(X509_STORE_new());
    const ScopedX509Stack others(sk_X509_new_null());
    const ScopedX509_STORE_CTX context(X509_STORE_CTX_new_ex(libraryContext(), nullptr));
    if (!store || !others || !context)
        return failure;
    for (const Candidate* anchor : anchors) {
        if (X509_STORE_add_cert(store.get(), anchor->x509.get()) != 1)
            return failure;
    }
    for (const Candidate& candidate : material.candidates()) {
        if (sk_X509_push(others.get(), candidate.x509.get()) <= 0)
            return failure;
        X509_up_ref(candidate.x509.get());
    }
    Verdict verdict;
    X509* leaf = material.leaf().x509.get();
    if (X509_STORE_CTX_init(context.get(), store.get(), leaf, others.get()) != 1)
        return failure;
    X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_CHECK_SS_SIGNATURE);
    // 112 bits, as the distribution asks of servers: no RSA below 2048, no SHA-1.
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()), 2);
    X509_STORE_CTX_set_app_data(context.get(), &verdict);
    X509_STORE_CTX_set_verify_cb(context.get(), noteError);
    if (X509_verify_cert(context.get()) < 0)
        return failure;
    const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
    for (int index = 0; chain && index < sk_X509_num(chain); ++index)
        verdict.isDenied |= isDenied(material, sk_X509_value(chain, index));
    return verdict;
}

std::vector<const Candidate*> anchorsBySetting(const ChainMaterial& material)
{
    std::vector<const Candidate*> anchors;
    for (const Candidate& candidate : material.candidates()) {
        const bool trustedItself = &candidate == &material.leaf() && candidate.level == TrustLevel::trustedPeer;
        if (candidate.level == TrustLevel::trusted || trustedItself)
            anchors.push_back(&candidate);
    }
    return anchors;
}

std::vector<const Candidate*> anchorsOfDistribution(const ChainMaterial& material)
{
    std::vector<const Candidate*> anchors;
    for (const Candidate& candidate : material.candidates()) {
        if (candidate.inDistributionStore)
            anchors.push_back(&candidate);
    }
    return anchors;
}

/// What is wrong whatever the anchors; where that is nothing, what is wrong with those that settings name.
std::vector<std::string> reasonsOf(const Verdict& bySetting, const Verdict& byDistribution)
{
    std::vector<int> errors;
    for (const int error : bySetting.errors)
        if (std::ranges::find(byDistribution.errors, error) != byDistribution.errors.end())
            errors.push_back(error);
    std::vector<std::string> reasons;
    for (const int error : errors.empty() ? bySetting.errors : errors)
        reasons.emplace_back(X509_verify_cert_error_string(error));
    return reasons;
}

} // namespace

TrustLevel basicLevel(const Trust& trust) noexcept
{
    if (trust.server == TrustLevel::denied || trust.email == TrustLevel::denied)
        return TrustLevel::denied;
    return trust.server == trust.email ? trust.server : TrustLevel::unspecified;
}

Result<SecTrustResultType> evaluate(const std::vector<SecCertificateRef>& certificates)
{
    const auto evaluation = evaluateWithReasons(certificates);
    return evaluation ? Result(evaluation->result) : evaluation.failure();
}

Result<Evaluation> evaluateWithReasons(const std::vector<SecCertificateRef>& certificates)
{
    const OpenSSLErrorMark mark;
    ChainMaterial material(certificates);
    if (!material.collect())
        return Failure{errSecUnknownFormat};
    const auto bySetting = verify(material, anchorsBySetting(material));
    if (!bySetting)
        return bySetting.failure();
    if (bySetting->isDenied)
        return Evaluation{kSecTrustResultDeny, {}};
    if (bySetting->isValid())
        return Evaluation{kSecTrustResultProceed, {}};
    const auto byDistribution = verify(material, anchorsOfDistribution(material));
    if (!byDistribution)
        return byDistribution.failure();
    if (byDistribution->isDenied)
        return Evaluation{kSecTrustResultDeny, {}};
    if (byDistribution->isValid())
        return Evaluation{kSecTrustResultUnspecified, {}};
    const bool fatal = std::ranges::any_of(bySetting->errors, isSignatureError)
        || std::ranges::any_of(byDistribution->errors, isSignatureError);
    return Evaluation{fatal ? kSecTrustResultFatalTrustFailure : kSecTrustResultRecoverableTrustFailure,
        reasonsOf(*bySetting, *byDistribution)};
}

} // namespace kf::trust
