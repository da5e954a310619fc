#include "Keychain/KeychainTools.h"
#include "Tests/Keychain/KeychainTest.h"

namespace {

using namespace kf::test;
using kf::keychain::Operation;
using testing::ElementsAre;
using testing::IsEmpty;

const Bundle& adasBundle()
{
    static const Bundle bundle = authority().issue();
    return bundle;
}

const Bundle& twiceAddressedBundle()
{
    static const Bundle bundle = [] {
        BundleOptions options;
        options.commonName = "Twice";
        options.email = "Twice@Orvane.Example";
        options.emailPlace = EmailPlace::both;
        return authority().issue(options);
    }();
    return bundle;
}

class Identities : public KeychainTest {
protected:
    /// A search that gives these identities and then `last`, on and on.
    static void replaceSearch(std::vector<SecIdentityRef> identities, OSStatus last)
    {
        platformCalls().identitySearchNext = [identities, last, index = std::size_t{0}](
                                                 const auto&, SecIdentityRef* identity) mutable {
            if (index == identities.size())
                return last;
            *identity = identities[index++];
            return OSStatus{errSecSuccess};
        };
    }
    static SecIdentityRef onlyIdentity()
    {
        SecIdentitySearchRef search;
        SecIdentityRef identity;
        EXPECT_EQ(SecIdentitySearchCreate(nullptr, CSSM_KEYUSE_ANY, &search), errSecSuccess);
        EXPECT_EQ(SecIdentitySearchCopyNext(search, &identity), errSecSuccess);
        return identity;
    }
};

TEST_F(Identities, AreFoundByAddressWithoutRegardToCase)
{
    importBundle(adasBundle());
    const auto found = KeychainTools::identitiesForEmailAddress("ADA@Orvane.EXAMPLE"_ns);
    ASSERT_EQ(countOf(found), 1U);
    const auto identity = found->objectAs<SecIdentity>(0);
    ASSERT_TRUE(identity);
    SecCertificateRef certificate;
    ASSERT_EQ(SecIdentityCopyCertificate(identity, &certificate), errSecSuccess);
    EXPECT_TRUE(KeychainTools::certificateIsEqualToCertificate(certificate, certificateOf(adasBundle().leaf)));
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.exampl"_ns)), 0U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Identities, ComeTwiceWhereTheAddressStandsTwice)
{
    importBundle(twiceAddressedBundle());
    const auto found = KeychainTools::identitiesForEmailAddress("twice@orvane.example"_ns);
    ASSERT_EQ(countOf(found), 2U);
    EXPECT_TRUE(CFEqual(found->objectAtIndex(0), found->objectAtIndex(1)));
}

TEST_F(Identities, OfAnEmptyKeychainAreAnEmptyArray)
{
    const auto found = KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->count(), 0U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Identities, AreNotFoundForNilOrNoAddress)
{
    importBundle(adasBundle());
    platformCalls().copyEmailAddresses = [](const auto&, Ref<NSArray>* addresses) {
        *addresses = NSArray::arrayWithObjects({""_ns, "ada@orvane.example"_ns});
        return errSecSuccess;
    };
    for (const Ref<NSString>& address : {Ref<NSString>(), ""_ns}) {
        const auto found = KeychainTools::identitiesForEmailAddress(address);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->count(), 0U);
    }
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)), 1U);
}

TEST_F(Identities, AreSearchedInTheWholeListForAnyUse)
{
    Ref<NSObject> keychain = "unset"_ns;
    CSSM_KEYUSE usage = 0;
    platformCalls().createIdentitySearch = [&](const Ref<NSObject>& where, CSSM_KEYUSE use, auto*) {
        keychain = where;
        usage = use;
        return errSecParam;
    };
    EXPECT_FALSE(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns));
    EXPECT_FALSE(keychain);
    EXPECT_EQ(usage, 0x80000000U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Identities, FoundBeforeASearchErrorAreKept)
{
    importBundle(adasBundle());
    replaceSearch({onlyIdentity()}, errSecIO);
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)), 1U);
    EXPECT_THAT(lines_, ElementsAre(lineOf("idea.scn: ", errSecIO)));
}

TEST_F(Identities, OfAnUnreadableKeychainAreLogged)
{
    importBundle(adasBundle());
    faults_->arm(Operation::open, 1, errSecInvalidKeychain, true);
    const auto found = KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns);
    EXPECT_TRUE(faults_->fired());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->count(), 0U);
    EXPECT_THAT(lines_, ElementsAre(lineOf("idea.scn: ", errSecInvalidKeychain)));
    faults_->disarm();
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)), 1U);
}

TEST_F(Identities, WithoutReadableCertificateAreLeftOut)
{
    importBundle(adasBundle());
    const auto identity = onlyIdentity();
    replaceSearch({identity, identity}, errSecItemNotFound);
    platformCalls().copyCertificate = [calls = 0](const SecIdentityRef& of, SecCertificateRef* certificate) mutable {
        *certificate = of->certificate();
        return ++calls == 1 ? OSStatus{errSecInvalidItemRef} : OSStatus{errSecSuccess};
    };
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)), 1U);
    EXPECT_THAT(lines_, ElementsAre(lineOf("idea.cc: ", errSecInvalidItemRef)));
}

TEST_F(Identities, WithoutReadableAddressesAreLeftOut)
{
    importBundle(adasBundle());
    const auto identity = onlyIdentity();
    replaceSearch({identity, identity}, errSecItemNotFound);
    platformCalls().copyEmailAddresses = [calls = 0](const auto&, Ref<NSArray>* addresses) mutable {
        *addresses = NSArray::arrayWithObjects({"ada@orvane.example"_ns});
        return ++calls == 1 ? OSStatus{errSecDecode} : OSStatus{errSecSuccess};
    };
    EXPECT_EQ(countOf(KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)), 1U);
    EXPECT_THAT(lines_, ElementsAre(lineOf("idea.ea: ", errSecDecode)));
}

class CertificatesForEmailAddress : public KeychainTest { };

TEST_F(CertificatesForEmailAddress, MatchByteForByteInTheWholeList)
{
    addCertificate(adasBundle().leaf, defaultPath());
    addCertificate(twiceAddressedBundle().leaf, defaultPath());
    addCertificate(adasBundle().leaf, systemPath());
    const auto found = KeychainTools::certificatesForEmailAddress("ada@orvane.example"_ns);
    ASSERT_TRUE(found);
    EXPECT_THAT(certificatesIn(found), ElementsAre(adasBundle().leaf, adasBundle().leaf));
    EXPECT_EQ(countOf(KeychainTools::certificatesForEmailAddress("ADA@orvane.example"_ns)), 0U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificatesForEmailAddress, AreAnEmptyArrayWhereThereIsNone)
{
    const auto found = KeychainTools::certificatesForEmailAddress("nobody@orvane.example"_ns);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->count(), 0U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificatesForEmailAddress, AreNilWithoutUTF8Form)
{
    for (const auto& address : {Ref<NSString>(), NSString::stringWithCharacters(u"a\xD800@orvane.example")}) {
        lines_.clear();
        EXPECT_FALSE(KeychainTools::certificatesForEmailAddress(address));
        EXPECT_THAT(lines_, ElementsAre("Couldn't convert certAlias to C String in FindCertificateByAttributes"));
    }
}

TEST_F(CertificatesForEmailAddress, AreNoneForNoAddress)
{
    platformCalls().createSearch = [](const auto&, auto, auto*, auto*) -> OSStatus {
        ADD_FAILURE() << "an empty address is not searched for";
        return errSecSuccess;
    };
    const auto found = KeychainTools::certificatesForEmailAddress(""_ns);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->count(), 0U);
}

TEST_F(CertificatesForEmailAddress, AreSearchedByTheAliasAlone)
{
    std::string alias;
    platformCalls().createSearch = [&](const Ref<NSObject>& keychain, SecItemClass itemClass,
                                       const SecKeychainAttributeList* attributes, auto*) -> OSStatus {
        EXPECT_FALSE(keychain);
        EXPECT_EQ(itemClass, 0x80001000U);
        EXPECT_EQ(attributes->count, 1U);
        EXPECT_EQ(attributes->attr[0].tag, fourCharacterCode("alis"));
        alias.assign(static_cast<const char*>(attributes->attr[0].data), attributes->attr[0].length);
        return errSecNoSuchKeychain;
    };
    EXPECT_FALSE(KeychainTools::certificatesForEmailAddress("zo\u00EB@orvane.example"_ns));
    EXPECT_EQ(alias, "zo\u00EB@orvane.example");
    EXPECT_THAT(lines_, ElementsAre(lineOf("SecKeychainSearchCreateFromAttributes failed: ", errSecNoSuchKeychain)));
}

TEST_F(CertificatesForEmailAddress, AreSearchedUpToAZeroByte)
{
    std::string alias;
    platformCalls().createSearch = [&](const auto&, auto, const SecKeychainAttributeList* attributes, auto*) {
        alias.assign(static_cast<const char*>(attributes->attr[0].data), attributes->attr[0].length);
        return errSecParam;
    };
    KeychainTools::certificatesForEmailAddress(NSString::stringWithCharacters(std::u16string(u"ada\0@x", 6)));
    EXPECT_EQ(alias, "ada");
    const auto none = KeychainTools::certificatesForEmailAddress(NSString::stringWithCharacters(std::u16string(1, 0)));
    EXPECT_EQ(countOf(none), 0U);
    EXPECT_TRUE(none) << "an empty address is not searched for";
}

TEST_F(CertificatesForEmailAddress, AreNilWhereASearchCameWithAnError)
{
    SecKeychainSearchRef search;
    ASSERT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, nullptr, &search), 0);
    platformCalls().createSearch = [&](const auto&, auto, auto*, SecKeychainSearchRef* made) {
        *made = search;
        return errSecIO;
    };
    EXPECT_FALSE(KeychainTools::certificatesForEmailAddress("ada@orvane.example"_ns));
    EXPECT_THAT(lines_, ElementsAre(lineOf("SecKeychainSearchCreateFromAttributes failed: ", errSecIO)));
}

TEST_F(CertificatesForEmailAddress, AreDiscardedAtAFailureInTheMiddle)
{
    addCertificate(adasBundle().leaf, defaultPath());
    addCertificate(adasBundle().leaf, systemPath());
    faults_->arm(Operation::open, 2, errSecIO, true);
    EXPECT_FALSE(KeychainTools::certificatesForEmailAddress("ada@orvane.example"_ns));
    EXPECT_TRUE(faults_->fired());
    EXPECT_THAT(lines_, ElementsAre(lineOf("SecKeychainSearchCopyNext failed: ", errSecIO)));
    faults_->disarm();
    EXPECT_EQ(countOf(KeychainTools::certificatesForEmailAddress("ada@orvane.example"_ns)), 2U);
}

class Preferences : public KeychainTest {
protected:
    Preferences()
    {
        importBundle(adasBundle());
        importBundle(twiceAddressedBundle());
    }
    static SecCertificateRef adas() { return certificateOf(adasBundle().leaf); }
    static SecCertificateRef others() { return certificateOf(twiceAddressedBundle().leaf); }
    /// The preferred certificate's bytes, asked of the platform; nothing for none.
    static Bytes preferred(const Ref<NSString>& name)
    {
        SecIdentityRef identity;
        CSSM_DATA data;
        if (SecIdentityCopyPreference(name, 0, nullptr, &identity) != errSecSuccess
            || SecCertificateGetData(identity->certificate(), &data) != errSecSuccess)
            return {};
        return {data.Data, data.Data + data.Length};
    }
};

TEST_F(Preferences, AreSetAndFound)
{
    EXPECT_EQ(KeychainTools::createIdentityPreference(adas(), "mail.orvane.example"_ns, true), 0);
    EXPECT_THAT(lines_, ElementsAre("Setting identity for mail.orvane.example"));
    EXPECT_EQ(preferred("mail.orvane.example"_ns), adasBundle().leaf);
    lines_.clear();
    const auto identity = KeychainTools::findIdentityByDomain("mail.orvane.example"_ns);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->certificate()->digest(), adas()->digest());
    EXPECT_THAT(lines_, ElementsAre("Checking domain 'mail.orvane.example'"));
}

TEST_F(Preferences, ThatAreMissingAreNullAndLogged)
{
    EXPECT_FALSE(KeychainTools::findIdentityByDomain("nobody.orvane.example"_ns));
    EXPECT_THAT(lines_,
        ElementsAre(
            "Checking domain 'nobody.orvane.example'", lineOf("Error in findIdentityByDomain: ", errSecItemNotFound)));
    lines_.clear();
    EXPECT_FALSE(KeychainTools::findIdentityByDomain(nullptr));
    EXPECT_THAT(
        lines_, ElementsAre("Checking domain '(null)'", lineOf("Error in findIdentityByDomain: ", errSecParam)));
}

TEST_F(Preferences, AreAskedForWithoutUseAndIssuers)
{
    const auto identity = KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)->objectAs<SecIdentity>(0);
    platformCalls().copyPreference = [&](const Ref<NSString>& name, CSSM_KEYUSE use, const Ref<NSArray>& issuers,
                                         SecIdentityRef* found) {
        EXPECT_EQ(toUTF8(name), "web.orvane.example");
        EXPECT_EQ(use, 0U);
        EXPECT_FALSE(issuers);
        *found = identity;
        return errSecIO;
    };
    EXPECT_FALSE(KeychainTools::findIdentityByDomain("web.orvane.example"_ns)) << "also where one came with the error";
    EXPECT_THAT(lines_,
        ElementsAre("Checking domain 'web.orvane.example'", lineOf("Error in findIdentityByDomain: ", errSecIO)));
}

TEST_F(Preferences, ThatAreSetStayWithoutOverwriting)
{
    ASSERT_EQ(KeychainTools::createIdentityPreference(adas(), "mail.orvane.example"_ns, true), 0);
    lines_.clear();
    platformCalls().setPreference = [](const auto&, const auto&, auto) -> OSStatus {
        ADD_FAILURE() << "nothing is set";
        return errSecParam;
    };
    EXPECT_EQ(KeychainTools::createIdentityPreference(others(), "mail.orvane.example"_ns, false), 0);
    EXPECT_THAT(
        lines_, ElementsAre("Checking domain 'mail.orvane.example'", "Identity already set for mail.orvane.example"));
    EXPECT_EQ(preferred("mail.orvane.example"_ns), adasBundle().leaf);
}

TEST_F(Preferences, ThatAreMissingAreSetWithoutOverwriting)
{
    EXPECT_EQ(KeychainTools::createIdentityPreference(others(), "mail.orvane.example"_ns, false), 0);
    EXPECT_THAT(lines_,
        ElementsAre("Checking domain 'mail.orvane.example'",
            lineOf("Error in findIdentityByDomain: ", errSecItemNotFound), "Setting identity for mail.orvane.example"));
    EXPECT_EQ(preferred("mail.orvane.example"_ns), twiceAddressedBundle().leaf);
}

TEST_F(Preferences, AreOverwrittenWithoutALook)
{
    ASSERT_EQ(KeychainTools::createIdentityPreference(adas(), "mail.orvane.example"_ns, true), 0);
    lines_.clear();
    platformCalls().copyPreference = [](const auto&, auto, const auto&, auto*) -> OSStatus {
        ADD_FAILURE() << "nothing is looked up";
        return errSecParam;
    };
    EXPECT_EQ(KeychainTools::createIdentityPreference(others(), "mail.orvane.example"_ns, true), 0);
    EXPECT_THAT(lines_, ElementsAre("Setting identity for mail.orvane.example"));
    platformCalls() = {};
    EXPECT_EQ(preferred("mail.orvane.example"_ns), twiceAddressedBundle().leaf);
}

TEST_F(Preferences, OfCertificatesWithoutKeyAreNotSet)
{
    EXPECT_EQ(
        KeychainTools::createIdentityPreference(certificateOf(authority().root()), "mail.orvane.example"_ns, true),
        errSecItemNotFound);
    EXPECT_THAT(lines_,
        ElementsAre("Setting identity for mail.orvane.example",
            lineOf("SecKeychainSearchCopyNext failed: ", errSecItemNotFound)));
    EXPECT_EQ(preferred("mail.orvane.example"_ns), Bytes());
}

TEST_F(Preferences, AreOfTheIdentityInTheWholeListAndForNoUse)
{
    const auto certificate = adas();
    const auto identity = KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)->objectAs<SecIdentity>(0);
    platformCalls().createIdentity = [&](const Ref<NSObject>& keychain, const SecCertificateRef& of, auto* made) {
        EXPECT_FALSE(keychain);
        EXPECT_EQ(of, certificate);
        *made = identity;
        return errSecSuccess;
    };
    int calls = 0;
    platformCalls().setPreference = [&](const SecIdentityRef& set, const Ref<NSString>& name, CSSM_KEYUSE use) {
        ++calls;
        EXPECT_EQ(set, identity);
        EXPECT_EQ(toUTF8(name), "mail.orvane.example");
        EXPECT_EQ(use, 0U);
        return errSecSuccess;
    };
    EXPECT_EQ(KeychainTools::createIdentityPreference(certificate, "mail.orvane.example"_ns, true), 0);
    EXPECT_EQ(calls, 1);
}

TEST_F(Preferences, ThatCannotBeWrittenCountAsSet)
{
    platformCalls().setPreference = [](const auto&, const auto&, auto) { return errSecIO; };
    EXPECT_EQ(KeychainTools::createIdentityPreference(adas(), "mail.orvane.example"_ns, true), 0);
    EXPECT_THAT(lines_, ElementsAre("Setting identity for mail.orvane.example"));
}

TEST_F(Preferences, GiveTheStatusOfAnyFailureToFindTheKey)
{
    platformCalls().createIdentity = [](const auto&, const auto&, auto*) { return errSecInvalidKeychain; };
    platformCalls().setPreference = [](const auto&, const auto&, auto) -> OSStatus {
        ADD_FAILURE() << "nothing is set";
        return errSecSuccess;
    };
    EXPECT_EQ(KeychainTools::createIdentityPreference(adas(), "mail.orvane.example"_ns, true), errSecInvalidKeychain);
    EXPECT_THAT(lines_,
        ElementsAre("Setting identity for mail.orvane.example",
            lineOf("SecKeychainSearchCopyNext failed: ", errSecInvalidKeychain)));
}

} // namespace
