// Searching for trust policies.

#include "Security/SecPolicy.h"

#include <gtest/gtest.h>

namespace {

SecPolicySearchRef searchFor(const CSSM_OID* identifier)
{
    SecPolicySearchRef search;
    EXPECT_EQ(SecPolicySearchCreate(CSSM_CERT_X_509v3, identifier, nullptr, &search), errSecSuccess);
    EXPECT_TRUE(search);
    return search;
}

TEST(PolicySearch, FindsTheBasicPolicyAndThenNothingForEver)
{
    const auto search = searchFor(&CSSMOID_APPLE_X509_BASIC);
    SecPolicyRef policy;
    ASSERT_EQ(SecPolicySearchCopyNext(search, &policy), errSecSuccess);
    CSSM_OID identifier;
    ASSERT_EQ(SecPolicyGetOID(policy, &identifier), errSecSuccess);
    EXPECT_EQ(identifier.Data, CSSMOID_APPLE_X509_BASIC.Data);
    EXPECT_EQ(policy->retainCount(), 2U) << "the search holds one reference, the caller the other";
    EXPECT_EQ(SecPolicySearchCopyNext(search, &policy), errSecItemNotFound);
    EXPECT_FALSE(policy);
    EXPECT_EQ(SecPolicySearchCopyNext(search, &policy), errSecItemNotFound);
}

TEST(PolicySearch, WithoutIdentifierFindsAll)
{
    const auto search = searchFor(nullptr);
    SecPolicyRef policy;
    EXPECT_EQ(SecPolicySearchCopyNext(search, &policy), errSecSuccess);
}

TEST(PolicySearch, AnUnknownIdentifierFindsNothing)
{
    std::uint8_t bytes[] = {0x2A, 0x03};
    const CSSM_OID identifier{sizeof bytes, bytes};
    const auto search = searchFor(&identifier);
    SecPolicyRef policy;
    EXPECT_EQ(SecPolicySearchCopyNext(search, &policy), errSecItemNotFound);
}

TEST(PolicySearch, RefusesOtherTypesAndValues)
{
    auto search = searchFor(nullptr);
    EXPECT_EQ(SecPolicySearchCreate(1, nullptr, nullptr, &search), errSecParam);
    EXPECT_FALSE(search);
    const CSSM_DATA value;
    EXPECT_EQ(SecPolicySearchCreate(CSSM_CERT_X_509v3, nullptr, &value, &search), errSecParam);
    EXPECT_EQ(SecPolicySearchCreate(CSSM_CERT_X_509v3, nullptr, nullptr, nullptr), errSecParam);
    SecPolicyRef policy;
    ASSERT_EQ(SecPolicySearchCopyNext(searchFor(nullptr), &policy), errSecSuccess);
    EXPECT_EQ(SecPolicySearchCopyNext(nullptr, &policy), errSecInvalidSearchRef);
    EXPECT_FALSE(policy);
    EXPECT_EQ(SecPolicySearchCopyNext(searchFor(nullptr), nullptr), errSecParam);
    CSSM_OID identifier;
    EXPECT_EQ(SecPolicyGetOID(nullptr, &identifier), errSecParam);
}

TEST(Policy, EqualsAnotherOfItsKind)
{
    SecPolicyRef a;
    SecPolicyRef b;
    ASSERT_EQ(SecPolicySearchCopyNext(searchFor(nullptr), &a), errSecSuccess);
    ASSERT_EQ(SecPolicySearchCopyNext(searchFor(nullptr), &b), errSecSuccess);
    EXPECT_NE(a, b);
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(CFEqual(a, SecPolicyRef()));
}

} // namespace
