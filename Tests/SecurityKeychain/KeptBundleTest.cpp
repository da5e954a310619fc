// A bundle that was looked at is not read again for its import.
#include "Security/Keychain/KeptBundle.h"
#include "KeychainFixture.h"
#include "Security/BundleInspection.h"
#include "Security/Keychain/MemoryBackend.h"

#include <gmock/gmock.h>

namespace {

using namespace kf::keychain;
using kf::test::ada;
using kf::test::authority;
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::import;
using kf::test::parsed;
using kf::test::secret;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* passphrase = "a pass phrase";

class KeptBundle : public testing::Test {
protected:
    void TearDown() override { forgetKeptBundle(); }

    /// Keeps Grace's bundle as that of Ada's bytes.
    static void keep() { keepBundle(ada().pkcs12, secret(passphrase), parsed(grace())); }
    static std::optional<kf::Result<Bundle>> take(const kf::test::Bundle& bundle, const std::string& with = passphrase)
    {
        return takeKeptBundle(bundle.pkcs12, secret(with));
    }

    kf::test::ScratchHome home_;
    ScopedBackend memory_{std::make_shared<MemoryBackend>()};
};

TEST_F(KeptBundle, IsTakenOnce)
{
    EXPECT_FALSE(take(ada()));
    keep();
    const auto kept = take(ada());
    ASSERT_TRUE(kept && *kept);
    EXPECT_EQ((*kept)->leaf.der, parsed(grace()).leaf.der);
    EXPECT_FALSE(take(ada()));
}

TEST_F(KeptBundle, IsNoOtherBytesAndNoOtherPassphrases)
{
    keep();
    EXPECT_FALSE(take(grace()));
    EXPECT_FALSE(take(ada())) << "whoever imports another bundle wants this one no more";
    for (const char* other : {"", "a pass phras", "a pass phrase ", "A pass phrase"}) {
        keep();
        EXPECT_FALSE(take(ada(), other)) << other;
        EXPECT_FALSE(take(ada())) << other;
    }
}

TEST_F(KeptBundle, IsReplacedAndForgotten)
{
    keep();
    keepBundle(grace().pkcs12, secret(passphrase), kf::Failure{errSecDecode});
    EXPECT_FALSE(take(ada()));
    keep();
    forgetKeptBundle();
    EXPECT_FALSE(take(ada()));
}

TEST_F(KeptBundle, OfAnInspectionIsWhatTheImportWrites)
{
    ASSERT_TRUE(kf::inspectBundle(ada().pkcs12, secret(ada().passphrase), authority().root()));
    auto kept = take(ada(), ada().passphrase);
    ASSERT_TRUE(kept && *kept);
    EXPECT_EQ((*kept)->leaf.der, ada().leaf);
    EXPECT_THAT((*kept)->chain, SizeIs(2));

    keepBundle(ada().pkcs12, secret(ada().passphrase), parsed(grace()));
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(find(defaultKeychain(), kSecCertificateItemClass).items, SizeIs(1)) << "Grace's, who has no chain";
    EXPECT_FALSE(take(ada(), ada().passphrase)) << "the key stays no longer than it is wanted";
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(find(defaultKeychain(), kSecCertificateItemClass).items, SizeIs(4)) << "read from the bytes again";
}

TEST_F(KeptBundle, OfAnInspectionServesAnotherInspectionToo)
{
    keepBundle(ada().pkcs12, secret(ada().passphrase), parsed(grace()));
    for (int again = 0; again < 2; ++again) {
        const auto inspection = kf::inspectBundle(ada().pkcs12, secret(ada().passphrase), authority().root());
        ASSERT_TRUE(inspection);
        EXPECT_EQ(inspection->name, "Grace Example");
    }
    kf::forgetInspectedBundle();
    EXPECT_EQ(kf::inspectBundle(ada().pkcs12, secret(ada().passphrase), authority().root())->name, "Ada Example");
}

TEST_F(KeptBundle, MayBeAFailure)
{
    EXPECT_EQ(kf::inspectBundle(ada().pkcs12, secret("wrong"), {}).status(), errSecPkcs12VerifyFailure);
    const auto kept = take(ada(), "wrong");
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->status(), errSecPkcs12VerifyFailure);
    keepBundle(ada().pkcs12, secret(ada().passphrase), kf::Failure{errSecDecode});
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecDecode);
    EXPECT_THAT(find(defaultKeychain(), kSecCertificateItemClass).items, IsEmpty());
}

} // namespace
