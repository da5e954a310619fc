// Trust policies.
#pragma once

#include "Security/SecBase.h"
#include "Security/cssmtype.h"

class SecPolicy;
class SecPolicySearch;
using SecPolicyRef = Ref<SecPolicy>;
using SecPolicySearchRef = Ref<SecPolicySearch>;

/// A search over the policies with an identifier (null: all). `value` must be
/// null. errSecParam for another certificate type.
OSStatus SecPolicySearchCreate(CSSM_CERT_TYPE certificateType, const CSSM_OID* policyIdentifier,
                               const CSSM_DATA* value, SecPolicySearchRef* search);
/// The next policy, owned by the caller; errSecItemNotFound at the end.
OSStatus SecPolicySearchCopyNext(const SecPolicySearchRef& search, SecPolicyRef* policy);
/// The policy's identifier; points into constants.
OSStatus SecPolicyGetOID(const SecPolicyRef& policy, CSSM_OID* identifier);
