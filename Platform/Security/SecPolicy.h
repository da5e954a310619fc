// Trust policies.
#pragma once

#include "Security/SecBase.h"
#include "Security/cssmtype.h"

#include <cstddef>
#include <vector>

/// What a certificate is to be trusted for. Immutable; equal where the
/// identifiers are. The platform has one: basic X.509, which asks for a valid
/// chain to an anchor (RFC 5280, section 6) and for no particular use. Any thread.
class SecPolicy final : public NSObject {
public:
    const CSSM_OID& identifier() const noexcept { return identifier_; }
    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    const char* className() const noexcept override { return "SecPolicy"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecPolicy(const CSSM_OID& identifier) noexcept;
    ~SecPolicy() override;

    CSSM_OID identifier_; ///< points into constants
};
using SecPolicyRef = Ref<SecPolicy>;

/// A search under way. One thread at a time.
class SecPolicySearch final : public NSObject {
public:
    /// The next policy that matches; nil at the end.
    SecPolicyRef next();
    const char* className() const noexcept override { return "SecPolicySearch"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecPolicySearch(std::vector<SecPolicyRef> matches) noexcept;
    ~SecPolicySearch() override;

    std::vector<SecPolicyRef> matches_;
    std::size_t position_ = 0;
};
using SecPolicySearchRef = Ref<SecPolicySearch>;

/// A search over the policies with an identifier (null: all). `value` must be
/// null. errSecParam for another certificate type. The caller owns `*search`.
OSStatus SecPolicySearchCreate(CSSM_CERT_TYPE certificateType, const CSSM_OID* policyIdentifier, const CSSM_DATA* value,
    SecPolicySearchRef* search);
/// The next policy, owned by the caller; errSecItemNotFound at the end, then
/// for ever; errSecInvalidSearchRef for a nil search.
OSStatus SecPolicySearchCopyNext(const SecPolicySearchRef& search, SecPolicyRef* policy);
/// The policy's identifier; points into constants.
OSStatus SecPolicyGetOID(const SecPolicyRef& policy, CSSM_OID* identifier);
