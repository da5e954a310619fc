#include "Security/SecPolicy.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace {

std::span<const std::uint8_t> bytesOf(const CSSM_OID& identifier) { return {identifier.Data, identifier.Length}; }

bool same(const CSSM_OID& a, const CSSM_OID& b) { return std::ranges::equal(bytesOf(a), bytesOf(b)); }

} // namespace

SecPolicy::SecPolicy(const CSSM_OID& identifier) noexcept : identifier_(identifier) { }

SecPolicy::~SecPolicy() = default;

bool SecPolicy::isEqual(const NSObject* other) const noexcept
{
    const auto* policy = dynamic_cast<const SecPolicy*>(other);
    return policy && same(identifier_, policy->identifier_);
}

CFHashCode SecPolicy::hash() const noexcept
{
    const auto bytes = bytesOf(identifier_);
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

SecPolicySearch::SecPolicySearch(std::vector<SecPolicyRef> matches) noexcept : matches_(std::move(matches)) { }

SecPolicySearch::~SecPolicySearch() = default;

SecPolicyRef SecPolicySearch::next() { return position_ < matches_.size() ? matches_[position_++] : nullptr; }

OSStatus SecPolicySearchCreate(CSSM_CERT_TYPE certificateType, const CSSM_OID* policyIdentifier, const CSSM_DATA* value,
    SecPolicySearchRef* search)
{
    if (!search)
        return errSecParam;
    search->reset();
    if (certificateType != CSSM_CERT_X_509v3 || value)
        return errSecParam;
    std::vector<SecPolicyRef> matches;
    if (!policyIdentifier || same(*policyIdentifier, CSSMOID_APPLE_X509_BASIC))
        matches.push_back(makeRef<SecPolicy>(CSSMOID_APPLE_X509_BASIC));
    *search = makeRef<SecPolicySearch>(std::move(matches));
    return errSecSuccess;
}

OSStatus SecPolicySearchCopyNext(const SecPolicySearchRef& search, SecPolicyRef* policy)
{
    if (!policy)
        return errSecParam;
    policy->reset();
    if (!search)
        return errSecInvalidSearchRef;
    *policy = search->next();
    return *policy ? errSecSuccess : errSecItemNotFound;
}

OSStatus SecPolicyGetOID(const SecPolicyRef& policy, CSSM_OID* identifier)
{
    if (!policy || !identifier)
        return errSecParam;
    *identifier = policy->identifier();
    return errSecSuccess;
}
