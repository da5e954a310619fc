// Looking into a bundle before it is imported.
#include "KeychainFixture.h"
#include "Security/BundleInspection.h"

#include <gmock/gmock.h>

namespace {

using kf::inspectBundle;
using kf::test::ada;
using kf::test::authority;
using kf::test::secret;

TEST(BundleInspection, TellsNameIssuerAddressesAndDates)
{
    const auto inspection = inspectBundle(ada().pkcs12, secret(ada().passphrase), authority().root());
    ASSERT_TRUE(inspection) << inspection.status();
    EXPECT_EQ(inspection->name, "Ada Example");
    EXPECT_EQ(inspection->issuer, "Orvane Certification Authority 2");
    EXPECT_THAT(inspection->emailAddresses, testing::ElementsAre("ada@orvane.example"));
    EXPECT_EQ(inspection->notBefore, 1577836800);
    EXPECT_EQ(inspection->notAfter, 2493072000);
    EXPECT_FALSE(inspection->holdsImpostor);
}

TEST(BundleInspection, GivesTheImportsErrors)
{
    EXPECT_EQ(inspectBundle(ada().pkcs12, secret("wrong"), authority().root()).status(), errSecPkcs12VerifyFailure);
    EXPECT_EQ(inspectBundle({}, secret("x"), authority().root()).status(), errSecDataNotAvailable);
}

TEST(BundleInspection, TheInstitutionsOwnAuthorityIsNoImpostorAndAnotherOfItsNameIs)
{
    const auto chained = authority().issue({.withChain = true});
    const kf::test::Authority other;
    EXPECT_FALSE(inspectBundle(chained.pkcs12, secret(chained.passphrase), authority().root())->holdsImpostor);
    EXPECT_TRUE(inspectBundle(chained.pkcs12, secret(chained.passphrase), other.root())->holdsImpostor);
}

TEST(BundleInspection, AMembersCertificateOfTheAuthoritysNameIsAnImpostor)
{
    const auto disguised = authority().issue({.commonName = "Orvane Certification Authority"});
    EXPECT_TRUE(inspectBundle(disguised.pkcs12, secret(disguised.passphrase), authority().root())->holdsImpostor);
    const auto byAddress = authority().issue({.email = "Orvane Certification Authority"});
    EXPECT_TRUE(inspectBundle(byAddress.pkcs12, secret(byAddress.passphrase), authority().root())->holdsImpostor);
}

TEST(ShortName, IsTheMostTellingPartOfAName)
{
    const auto issuer = authority().issuer(); // the fields point into it
    const auto fields = kf::readCertificateFields(issuer);
    ASSERT_TRUE(fields);
    EXPECT_EQ(kf::shortName(fields->issuer), "Orvane Certification Authority");
    EXPECT_EQ(kf::shortName({}), "");
    EXPECT_EQ(kf::shortName(issuer), "");
}

} // namespace
