// Items, searches and import through the public calls, over the in-memory back end and injected faults.
#include "KeychainFixture.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Presenter.h"

#include <cstring>
#include <gmock/gmock.h>

namespace {

using namespace kf::keychain;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::defaultKeychain;
using kf::test::EmailPlace;
using kf::test::find;
using kf::test::grace;
using kf::test::identities;
using kf::test::import;
using kf::test::keychainAt;
using kf::test::looseCertificate;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Items : public testing::Test {
protected:
    SecCertificateRef importAda(Ref<NSArray>* items = nullptr)
    {
        Ref<NSArray> made;
        EXPECT_EQ(import(defaultKeychain(), ada(), &made), errSecSuccess);
        if (items)
            *items = made;
        return made ? made->objectAs<SecIdentity>(0)->certificate() : nullptr;
    }

    std::size_t count(SecItemClass itemClass) const { return find(defaultKeychain(), itemClass).items.size(); }

    kf::test::ScratchHome home_;
    std::shared_ptr<MemoryBackend> memory_ = std::make_shared<MemoryBackend>();
    std::shared_ptr<FaultBackend> faults_ = std::make_shared<FaultBackend>(memory_);
    ScopedBackend scoped_{faults_};
};

/// With an RSA key: its key identifier (of the modulus) and its subject key identifier (of the whole key) differ.
const kf::test::Bundle& rsaMember()
{
    static const auto bundle = [] {
        BundleOptions options;
        options.key = kf::test::KeyKind::rsa2048;
        options.withChain = true;
        return authority().issue(options);
    }();
    return bundle;
}

std::string attributeText(const SecKeychainItemRef& item, SecKeychainAttrType tag, OSStatus* status = nullptr)
{
    std::uint32_t format = CSSM_DB_ATTRIBUTE_FORMAT_STRING;
    SecKeychainAttributeInfo info{1, &tag, &format};
    SecKeychainAttributeList* list = nullptr;
    const OSStatus read = SecKeychainItemCopyAttributesAndData(item, &info, nullptr, &list, nullptr, nullptr);
    if (status)
        *status = read;
    std::string text;
    if (list) {
        EXPECT_EQ(list->count, 1U);
        EXPECT_EQ(list->attr[0].tag, tag);
        text.assign(static_cast<const char*>(list->attr[0].data), list->attr[0].length);
    }
    SecKeychainItemFreeAttributesAndData(list, nullptr);
    return text;
}

OSStatus writeAttribute(const SecKeychainItemRef& item, SecKeychainAttrType tag, std::string value)
{
    SecKeychainAttribute attribute{tag, static_cast<std::uint32_t>(value.size()), value.data()};
    SecKeychainAttributeList list{1, &attribute};
    return SecKeychainItemModifyAttributesAndData(item, &list, 0, nullptr);
}

// --- Places ---

TEST_F(Items, TheDefaultKeychainIsTheOlderPlaceWhereThatIsThere)
{
    EXPECT_EQ(defaultKeychain()->path(), home_.defaultKeychain().string());
    std::filesystem::create_directories(home_.olderKeychain());
    EXPECT_EQ(defaultKeychain()->path(), home_.olderKeychain().string());
}

TEST_F(Items, WithoutAHomeThereIsNoDefaultKeychain)
{
    ::unsetenv("HOME");
    SecKeychainRef keychain = keychainAt("/somewhere");
    EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecNoDefaultKeychain);
    EXPECT_FALSE(keychain);
    ::setenv("HOME", "", 1);
    EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecNoDefaultKeychain);
}

TEST_F(Items, TheSearchListNamesWhatIsThereInOrder)
{
    const auto paths = [] {
        Ref<NSArray> list;
        EXPECT_EQ(SecKeychainCopySearchList(&list), errSecSuccess);
        std::vector<std::string> found;
        for (NSUInteger index = 0; index < list->count(); ++index)
            found.push_back(list->objectAs<SecKeychain>(index)->path());
        return found;
    };
    EXPECT_THAT(paths(), IsEmpty());
    memory_->create(systemKeychainPath);
    memory_->create(home_.defaultKeychain());
    EXPECT_THAT(paths(), ElementsAre(home_.defaultKeychain().string(), systemKeychainPath));
    memory_->create(home_.olderKeychain());
    EXPECT_THAT(
        paths(), ElementsAre(home_.olderKeychain().string(), home_.defaultKeychain().string(), systemKeychainPath));
    EXPECT_EQ(defaultKeychain()->path(), home_.olderKeychain().string());
}

TEST_F(Items, APathIsCopiedWhereItFits)
{
    const auto keychain = keychainAt("/a//b/../c/");
    EXPECT_EQ(keychain->path(), "/a/c");
    char room[8];
    std::memset(room, 'x', sizeof room);
    std::uint32_t length = 3;
    EXPECT_EQ(SecKeychainGetPath(keychain, &length, room), errSecBufferTooSmall);
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(room[0], 'x');
    EXPECT_EQ(SecKeychainGetPath(keychain, &length, room), errSecSuccess);
    EXPECT_EQ(std::string(room, 5), "/a/cx");
    length = sizeof room;
    EXPECT_EQ(SecKeychainGetPath(keychain, &length, room), errSecSuccess);
    EXPECT_STREQ(room, "/a/c");
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(SecKeychainGetPath(nullptr, &length, room), errSecParam);
    SecKeychainRef none;
    EXPECT_EQ(SecKeychainOpen("", &none), errSecParam);
    EXPECT_EQ(SecKeychainOpen(nullptr, &none), errSecParam);
}

// --- Import ---

TEST_F(Items, AnImportGivesTheLeafIdentityFirstThenTheChain)
{
    Ref<NSArray> items;
    importAda(&items);
    ASSERT_EQ(items->count(), 3U);
    const auto identity = items->objectAs<SecIdentity>(0);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->certificate()->parsed().der, ada().leaf);
    EXPECT_EQ(items->objectAs<SecCertificate>(1)->parsed().der, authority().issuer());
    EXPECT_EQ(items->objectAs<SecCertificate>(2)->parsed().der, authority().root());
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_TRUE(CFEqual(identities().front(), identity));
}

TEST_F(Items, TheSameBundleAgainSucceedsAndChangesNothing)
{
    Ref<NSArray> first;
    Ref<NSArray> second;
    importAda(&first);
    faults_->disarm();
    importAda(&second);
    EXPECT_TRUE(CFEqual(first, second));
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
    EXPECT_EQ(count(kSecPrivateKeyItemClass), 1U);
    EXPECT_EQ(faults_->calls(Operation::addCertificate), 0);
    EXPECT_EQ(faults_->calls(Operation::declare), 0);
}

TEST_F(Items, AnImportAddsOnlyWhatIsMissing)
{
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    Ref<NSArray> items;
    importAda(&items);
    EXPECT_EQ(items->count(), 3U);
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
}

TEST_F(Items, AnImportWithoutDataPassphraseOrPlaceIsRefusedAndMakesNoKeychain)
{
    const auto keychain = defaultKeychain();
    const auto phrase = "correct horse"_ns;
    Ref<NSArray> items = NSArray::array();
    EXPECT_EQ(import(keychain, Bytes(), phrase, &items), errSecDataNotAvailable);
    EXPECT_FALSE(items);
    EXPECT_EQ(import(keychain, ada().pkcs12, nullptr), errSecPassphraseRequired);
    EXPECT_EQ(import(keychain, ada().pkcs12, "wrong"_ns), errSecPkcs12VerifyFailure);
    EXPECT_EQ(import(nullptr, ada().pkcs12, phrase), errSecNoDefaultKeychain);
    SecKeyImportExportParameters parameters;
    parameters.passphrase = phrase;
    const auto data = NSData::dataWithBytes(ada().pkcs12);
    EXPECT_EQ(SecKeychainItemImport(data, nullptr, nullptr, nullptr, 0, nullptr, keychain, nullptr), errSecParam);
    EXPECT_EQ(SecKeychainItemImport(nullptr, nullptr, nullptr, nullptr, 0, &parameters, keychain, nullptr),
        errSecDataNotAvailable);
    SecExternalFormat format = 3;
    EXPECT_EQ(
        SecKeychainItemImport(data, nullptr, &format, nullptr, 0, &parameters, keychain, nullptr), errSecUnknownFormat);
    parameters.version = 1;
    EXPECT_EQ(SecKeychainItemImport(data, nullptr, nullptr, nullptr, 0, &parameters, keychain, nullptr), errSecParam);
    EXPECT_FALSE(memory_->exists(keychain->path()));
}

TEST_F(Items, AnImportTellsWhatItFound)
{
    SecKeyImportExportParameters parameters;
    parameters.passphrase = "correct horse"_ns;
    SecExternalFormat format = kSecFormatUnknown;
    SecExternalItemType type = kSecItemTypeUnknown;
    EXPECT_EQ(SecKeychainItemImport(NSData::dataWithBytes(ada().pkcs12), nullptr, &format, &type, 0, &parameters,
                  defaultKeychain(), nullptr),
        errSecSuccess);
    EXPECT_EQ(format, kSecFormatPKCS12);
    EXPECT_EQ(type, kSecItemTypeAggregate);
}

TEST_F(Items, PassphrasesBeyondASCIIOpenTheirBundle)
{
    BundleOptions options;
    options.passphrase = "pässwörd € 🔑";
    EXPECT_EQ(import(defaultKeychain(), authority().issue(options)), errSecSuccess);
    EXPECT_EQ(import(defaultKeychain(), ada().pkcs12, NSString::stringWithCharacters(u"a\xd800")), errSecParam);
}

struct Fault {
    const char* name;
    Operation operation;
    int nth;
};

class FailingImport : public Items, public testing::WithParamInterface<Fault> { };

TEST_P(FailingImport, LeavesWhatWasThereAndNothingElse)
{
    // Arrange: something stands there already, a part of the bundle among it.
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    faults_->arm(GetParam().operation, GetParam().nth, errSecIO);
    Ref<NSArray> items = NSArray::array();
    EXPECT_EQ(import(defaultKeychain(), ada(), &items), errSecIO);
    EXPECT_TRUE(faults_->fired());
    EXPECT_FALSE(items);
    faults_->disarm();
    EXPECT_EQ(count(kSecCertificateItemClass), 2U);
    EXPECT_EQ(count(kSecPrivateKeyItemClass), 1U);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(identities(), SizeIs(2));
    EXPECT_EQ(count(kSecCertificateItemClass), 4U);
}

INSTANTIATE_TEST_SUITE_P(AtEveryStep, FailingImport,
    testing::Values(Fault{"Open", Operation::open, 1}, Fault{"Turn", Operation::beginWriting, 1},
        Fault{"Lookup", Operation::containsPrivateKey, 1}, Fault{"Lookup2", Operation::containsCertificate, 2},
        Fault{"Declaration", Operation::declare, 1}, Fault{"Key", Operation::addPrivateKey, 1},
        Fault{"Leaf", Operation::addCertificate, 1}, Fault{"Chain", Operation::addCertificate, 2},
        Fault{"NoteOfLeaf", Operation::note, 1}, Fault{"NoteOfIssuer", Operation::note, 2},
        Fault{"Finish", Operation::finish, 1}),
    [](const testing::TestParamInfo<Fault>& parameter) { return std::string(parameter.param.name); });

TEST_F(Items, AnImportThatFindsAllThereNeedsNoPermissionToWrite)
{
    Ref<NSArray> first;
    Ref<NSArray> second;
    importAda(&first);
    memory_->setReadOnly(defaultKeychain()->path(), true);
    importAda(&second);
    EXPECT_TRUE(CFEqual(first, second));
    EXPECT_EQ(import(defaultKeychain(), grace()), errSecReadOnly);
    EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(grace().leaf), nullptr), errSecReadOnly);
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
    const Trust trust{.server = TrustLevel::trusted};
    EXPECT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecReadOnly);
    memory_->setReadOnly(defaultKeychain()->path(), false);
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
    memory_->setReadOnly(defaultKeychain()->path(), true);
    EXPECT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
}

// --- Searching ---

TEST_F(Items, AnAliasMatchesEveryAddressAndTheCommonNameByteForByte)
{
    BundleOptions options;
    options.email = "First@orvane.example";
    options.emailPlace = EmailPlace::both;
    ASSERT_EQ(import(defaultKeychain(), authority().issue(options)), errSecSuccess);
    const auto matches = [](const std::string& alias) {
        return find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, alias).items.size();
    };
    EXPECT_EQ(matches("First@orvane.example"), 1U);
    EXPECT_EQ(matches("first@orvane.example"), 0U);
    EXPECT_EQ(matches("Ada Example"), 1U);
    EXPECT_EQ(matches("Ada"), 0U);
    EXPECT_EQ(matches(""), 0U);
}

TEST_F(Items, EveryAttributeFindsItsCertificateAndTwoMustBothMatch)
{
    ASSERT_EQ(import(defaultKeychain(), rsaMember()), errSecSuccess);
    const auto fields = kf::readCertificateFields(rsaMember().leaf);
    const auto text = [](std::span<const std::uint8_t> bytes) { return std::string(asText(bytes)); };
    const auto count = [](SecKeychainAttrType tag, const std::string& value) {
        return find(nullptr, kSecCertificateItemClass, tag, value).items.size();
    };
    const auto item = find(nullptr, kSecCertificateItemClass, kSecLabelItemAttr, "Ada Example").items.at(0);
    const auto isAlone = [&](SecKeychainAttrType tag, const std::string& value) {
        const auto found = find(nullptr, kSecCertificateItemClass, tag, value).items;
        return found.size() == 1 && CFEqual(found[0], item);
    };
    EXPECT_TRUE(isAlone(kSecSubjectItemAttr, text(fields->subject)));
    EXPECT_TRUE(isAlone(kSecIssuerItemAttr, text(fields->issuer)));
    EXPECT_TRUE(isAlone(kSecPublicKeyHashItemAttr, text(fields->keyId)));
    EXPECT_TRUE(isAlone(kSecSubjectKeyIdentifierItemAttr, text(fields->subjectKeyIdentifier)));
    EXPECT_TRUE(isAlone(kSecSerialNumberItemAttr, attributeText(item, kSecSerialNumberItemAttr)));
    EXPECT_EQ(count(kSecCertificateType, std::string("\x03\0\0\0", 4)), 3U);
    EXPECT_EQ(count(kSecCertificateType, std::string("\x02\0\0\0", 4)), 0U);
    EXPECT_EQ(count(kSecCertificateEncoding, std::string("\x03\0\0\0", 4)), 3U);
    EXPECT_EQ(count(kSecCertificateEncoding, std::string("\x02\0\0\0", 4)), 0U);
    EXPECT_EQ(find(nullptr, kSecPrivateKeyItemClass, kSecPublicKeyHashItemAttr, text(fields->keyId)).items.size(), 1U);
    EXPECT_EQ(find(nullptr, kSecPrivateKeyItemClass, kSecPublicKeyHashItemAttr, "x").items.size(), 0U);

    std::string alias = "ada@orvane.example";
    std::string label = "Somebody";
    SecKeychainAttribute both[] = {{kSecAliasItemAttr, static_cast<std::uint32_t>(alias.size()), alias.data()},
        {kSecLabelItemAttr, static_cast<std::uint32_t>(label.size()), label.data()}};
    SecKeychainAttributeList list{2, both};
    SecKeychainSearchRef search;
    SecKeychainItemRef found;
    ASSERT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, &list, &search), errSecSuccess);
    EXPECT_EQ(SecKeychainSearchCopyNext(search, &found), errSecItemNotFound);
    EXPECT_EQ(SecKeychainSearchCopyNext(search, &found), errSecItemNotFound);
}

TEST_F(Items, ASearchThatMakesNoSenseIsNotMade)
{
    SecKeychainAttribute attribute{kSecAliasItemAttr, 0, nullptr};
    SecKeychainAttributeList list{1, &attribute};
    SecKeychainSearchRef search;
    EXPECT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, 7, nullptr, &search), errSecNoSuchClass);
    EXPECT_EQ(
        SecKeychainSearchCreateFromAttributes(nullptr, kSecPrivateKeyItemClass, &list, &search), errSecNoSuchAttr);
    EXPECT_EQ(
        SecKeychainSearchCreateFromAttributes("text"_ns, kSecCertificateItemClass, nullptr, &search), errSecParam);
    EXPECT_EQ(SecKeychainSearchCreateFromAttributes(
                  NSArray::arrayWithObjects({"text"_ns}), kSecCertificateItemClass, nullptr, &search),
        errSecParam);
    EXPECT_FALSE(search);
    SecKeychainItemRef item;
    EXPECT_EQ(SecKeychainSearchCopyNext(nullptr, &item), errSecInvalidSearchRef);
    SecIdentitySearchRef identitySearch;
    EXPECT_EQ(SecIdentitySearchCreate(nullptr, 1, &identitySearch), errSecParam);
    SecIdentityRef identity;
    EXPECT_EQ(SecIdentitySearchCopyNext(nullptr, &identity), errSecInvalidSearchRef);
}

TEST_F(Items, TheSameCertificateInTwoKeychainsIsFoundTwice)
{
    const auto system = systemKeychain();
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), system), errSecSuccess);
    const auto found = find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, "Orvane Certification Authority");
    ASSERT_THAT(found.items, SizeIs(2));
    EXPECT_TRUE(CFEqual(found.items[0]->keychain(), defaultKeychain()));
    EXPECT_TRUE(CFEqual(found.items[1]->keychain(), system));
    EXPECT_FALSE(CFEqual(found.items[0], found.items[1]));
    EXPECT_TRUE(CFEqual(found.items[0], find(defaultKeychain(), kSecCertificateItemClass).items.at(0)));
    EXPECT_EQ(CFHash(found.items[0]), CFHash(find(defaultKeychain(), kSecCertificateItemClass).items.at(0)));
}

TEST_F(Items, AKeychainThatCannotBeReadGivesItsErrorOnceAndTheNextIsSearched)
{
    memory_->create(defaultKeychain()->path());
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), systemKeychain()), errSecSuccess);
    SecKeychainSearchRef search;
    ASSERT_EQ(
        SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, nullptr, &search), errSecSuccess);
    faults_->arm(Operation::open, 1, errSecInvalidKeychain);
    SecKeychainItemRef item;
    EXPECT_EQ(SecKeychainSearchCopyNext(search, &item), errSecInvalidKeychain);
    EXPECT_TRUE(faults_->fired());
    EXPECT_EQ(SecKeychainSearchCopyNext(search, &item), errSecSuccess);
    EXPECT_TRUE(CFEqual(item->keychain(), systemKeychain()));
    EXPECT_EQ(SecKeychainSearchCopyNext(search, &item), errSecItemNotFound);
    EXPECT_FALSE(item);
}

TEST_F(Items, AKeychainNotMadeYetIsEmptyAndAWrongPathIsAnError)
{
    EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, errSecItemNotFound);
    EXPECT_EQ(find(systemKeychain(), kSecCertificateItemClass).end, errSecItemNotFound);
    EXPECT_EQ(find(keychainAt("/nowhere"), kSecCertificateItemClass).end, errSecNoSuchKeychain);
    EXPECT_THAT(identities(defaultKeychain()), IsEmpty());
    EXPECT_EQ(readTrust(systemKeychain(), authority().root()).status(), errSecItemNotFound);
}

TEST_F(Items, WhatOthersChangedIsFoundWithoutAnyCall)
{
    importAda();
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
    {
        const auto database = memory_->open(defaultKeychain()->path(), Access::write);
        const auto turn = (*database)->beginWriting();
        ASSERT_EQ((*database)->addCertificate(grace().leaf, "Grace").status(), errSecSuccess);
    }
    EXPECT_EQ(count(kSecCertificateItemClass), 4U);
    memory_->erase(defaultKeychain()->path());
    memory_->create(defaultKeychain()->path());
    EXPECT_EQ(count(kSecCertificateItemClass), 0U);
}

// --- Identities ---

TEST_F(Items, AnIdentityNeedsCertificateAndKeyInOneKeychain)
{
    importAda();
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(grace().leaf), nullptr), errSecSuccess);
    ASSERT_THAT(identities(), SizeIs(1));
    SecCertificateRef certificate;
    SecKeyRef key;
    ASSERT_EQ(SecIdentityCopyCertificate(identities()[0], &certificate), errSecSuccess);
    ASSERT_EQ(SecIdentityCopyPrivateKey(identities()[0], &key), errSecSuccess);
    EXPECT_EQ(certificate->parsed().der, ada().leaf);
    EXPECT_TRUE(CFEqual(key, find(nullptr, kSecPrivateKeyItemClass).items.at(0)));
    ASSERT_EQ(SecKeychainItemDelete(key), errSecSuccess);
    EXPECT_THAT(identities(), IsEmpty());
    EXPECT_EQ(count(kSecCertificateItemClass), 4U);
    EXPECT_EQ(SecIdentityCopyCertificate(nullptr, &certificate), errSecParam);
    EXPECT_EQ(SecIdentityCopyPrivateKey(nullptr, &key), errSecParam);
}

TEST_F(Items, ACertificateFindsItsKey)
{
    importAda();
    SecIdentityRef identity;
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, looseCertificate(ada().leaf), &identity), errSecSuccess);
    EXPECT_TRUE(CFEqual(identity->privateKey(), identities().at(0)->privateKey()));
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, looseCertificate(grace().leaf), &identity), errSecItemNotFound);
    EXPECT_FALSE(identity);
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, nullptr, &identity), errSecParam);
}

TEST_F(Items, AKeyIsLookedForInEveryKeychainAndTheFirstErrorTellsWhyThereIsNone)
{
    // Locked, with nobody to ask; then the System keychain, which cannot be opened.
    memory_->create(defaultKeychain()->path(), "open sesame");
    memory_->create(systemKeychainPath);
    const auto certificate = looseCertificate(ada().leaf);
    SecIdentityRef identity;
    faults_->arm(Operation::open, 2, errSecIO);
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, certificate, &identity), errSecInteractionNotAllowed);
    EXPECT_TRUE(faults_->fired());
    EXPECT_FALSE(identity);
    faults_->disarm();
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, certificate, &identity), errSecInteractionNotAllowed);
    ASSERT_EQ(import(keychainAt(systemKeychainPath), ada()), errSecSuccess);
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, certificate, &identity), errSecSuccess);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->privateKey()->keychain()->path(), systemKeychainPath);
}

TEST_F(Items, IdentitiesAreEqualWhereCertificateAndKeyAre)
{
    importAda();
    const auto identity = identities().at(0);
    const auto certificate = looseCertificate(ada().leaf);
    const auto otherKey = makeRef<SecKey>(Bytes{1, 2, 3}, defaultKeychain());
    EXPECT_TRUE(CFEqual(identity, identities().at(0)));
    EXPECT_EQ(CFHash(identity), CFHash(identities().at(0)));
    EXPECT_FALSE(CFEqual(identity, makeRef<SecIdentity>(identity->certificate(), otherKey)));
    EXPECT_FALSE(CFEqual(identity, makeRef<SecIdentity>(certificate, identity->privateKey())));
    EXPECT_FALSE(CFEqual(identity, identity->certificate()));
}

TEST_F(Items, NobodyIsAskedForThePassphraseOfAKeychainWithoutCertificates)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    SecIdentitySearchRef search;
    SecIdentityRef identity;
    ASSERT_EQ(SecIdentitySearchCreate(nullptr, CSSM_KEYUSE_ANY, &search), errSecSuccess);
    EXPECT_EQ(SecIdentitySearchCopyNext(search, &identity), errSecItemNotFound);
}

// --- Certificates ---

TEST_F(Items, ACertificateIsMadeFromExactlyItsBytes)
{
    Bytes der = ada().leaf;
    const auto certificate = looseCertificate(der);
    CSSM_DATA data;
    ASSERT_EQ(SecCertificateGetData(certificate, &data), errSecSuccess);
    EXPECT_EQ(Bytes(data.Data, data.Data + data.Length), der);
    SecCertificateRef none;
    der.push_back(0);
    CSSM_DATA longer{der.size(), der.data()};
    EXPECT_EQ(SecCertificateCreateFromData(&longer, 3, 3, &none), errSecUnknownFormat);
    CSSM_DATA empty;
    EXPECT_EQ(SecCertificateCreateFromData(&empty, 3, 3, &none), errSecUnknownFormat);
    EXPECT_EQ(SecCertificateCreateFromData(nullptr, 3, 3, &none), errSecParam);
    CSSM_DATA right{der.size() - 1, der.data()};
    EXPECT_EQ(SecCertificateCreateFromData(&right, 1, 3, &none), errSecParam);
    EXPECT_EQ(SecCertificateCreateFromData(&right, 3, 1, &none), errSecParam);
    EXPECT_FALSE(none);
    EXPECT_EQ(SecCertificateGetData(nullptr, &data), errSecParam);
    SecKeychainRef keychain;
    EXPECT_EQ(SecKeychainItemCopyKeychain(certificate, &keychain), errSecNoSuchKeychain);
    EXPECT_EQ(SecKeychainItemDelete(certificate), errSecInvalidItemRef);
    EXPECT_TRUE(CFEqual(certificate, looseCertificate(ada().leaf)));
}

TEST_F(Items, AddressesAreGivenWithRepeats)
{
    BundleOptions options;
    options.emailPlace = EmailPlace::both;
    Ref<NSArray> addresses;
    ASSERT_EQ(
        SecCertificateCopyEmailAddresses(looseCertificate(authority().issue(options).leaf), &addresses), errSecSuccess);
    ASSERT_EQ(addresses->count(), 2U);
    EXPECT_TRUE(CFEqual(addresses->objectAtIndex(0), "ada@orvane.example"_ns));
    EXPECT_TRUE(CFEqual(addresses->objectAtIndex(1), "ada@orvane.example"_ns));
    ASSERT_EQ(SecCertificateCopyEmailAddresses(looseCertificate(authority().root()), &addresses), errSecSuccess);
    EXPECT_EQ(addresses->count(), 0U);
    EXPECT_EQ(SecCertificateCopyEmailAddresses(nullptr, &addresses), errSecParam);
}

TEST_F(Items, ACertificateIsAddedOnce)
{
    const auto certificate = looseCertificate(authority().root());
    EXPECT_EQ(SecCertificateAddToKeychain(certificate, nullptr), errSecSuccess);
    EXPECT_EQ(SecCertificateAddToKeychain(certificate, defaultKeychain()), errSecDuplicateItem);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
    EXPECT_EQ(SecCertificateAddToKeychain(nullptr, nullptr), errSecParam);
}

// --- Attributes ---

TEST_F(Items, AttributesAndDataAreCopiedTogether)
{
    const auto certificate = importAda();
    std::uint32_t tags[] = {kSecLabelItemAttr, kSecAliasItemAttr, kSecSubjectItemAttr};
    SecKeychainAttributeInfo info{3, tags, nullptr};
    SecItemClass itemClass = 0;
    SecKeychainAttributeList* list = nullptr;
    std::uint32_t length = 0;
    void* data = nullptr;
    ASSERT_EQ(
        SecKeychainItemCopyAttributesAndData(certificate, &info, &itemClass, &list, &length, &data), errSecSuccess);
    EXPECT_EQ(itemClass, kSecCertificateItemClass);
    ASSERT_EQ(list->count, 3U);
    EXPECT_EQ(std::string(static_cast<char*>(list->attr[0].data), list->attr[0].length), "Ada Example");
    EXPECT_EQ(std::string(static_cast<char*>(list->attr[1].data), list->attr[1].length), "ada@orvane.example");
    EXPECT_EQ(Bytes(static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + length), ada().leaf);
    EXPECT_EQ(SecKeychainItemFreeAttributesAndData(list, data), errSecSuccess);
    EXPECT_EQ(SecKeychainItemFreeAttributesAndData(nullptr, nullptr), errSecSuccess);
}

TEST_F(Items, AttributesReadWhatTheCertificateSays)
{
    Ref<NSArray> items;
    ASSERT_EQ(import(defaultKeychain(), rsaMember(), &items), errSecSuccess);
    const auto stored = items->objectAs<SecIdentity>(0)->certificate();
    const auto fields = kf::readCertificateFields(rsaMember().leaf);
    const auto text = [](std::span<const std::uint8_t> bytes) { return std::string(asText(bytes)); };
    ASSERT_NE(text(fields->keyId), text(fields->subjectKeyIdentifier));
    for (const auto& item : {stored, looseCertificate(rsaMember().leaf)}) {
        EXPECT_EQ(attributeText(item, kSecLabelItemAttr), "Ada Example");
        EXPECT_EQ(attributeText(item, kSecAliasItemAttr), "ada@orvane.example");
        EXPECT_EQ(attributeText(item, kSecSubjectItemAttr), text(fields->subject));
        EXPECT_EQ(attributeText(item, kSecIssuerItemAttr), text(fields->issuer));
        EXPECT_EQ(attributeText(item, kSecSubjectKeyIdentifierItemAttr), text(fields->subjectKeyIdentifier));
        EXPECT_EQ(attributeText(item, kSecPublicKeyHashItemAttr), text(fields->keyId));
        EXPECT_EQ(attributeText(item, kSecCertificateType), std::string("\x03\0\0\0", 4));
        EXPECT_EQ(attributeText(item, kSecCertificateEncoding), std::string("\x03\0\0\0", 4));
        std::string serial = "serial=";
        for (const char byte : attributeText(item, kSecSerialNumberItemAttr)) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned char>(byte));
            serial += digits;
        }
        // A number's octets may begin with one that only tells its sign.
        if (constexpr std::size_t at = 7; serial.substr(at, 2) == "00")
            serial.erase(at, 2);
        EXPECT_EQ(
            kf::test::mustRun({"openssl", "x509", "-noout", "-serial", "-in", rsaMember().certFile}), serial + "\n");
    }
    EXPECT_EQ(attributeText(looseCertificate(authority().root()), kSecAliasItemAttr), "Orvane Certification Authority")
        << "without an address the common name";
    const auto key = find(nullptr, kSecPrivateKeyItemClass).items.at(0);
    EXPECT_EQ(attributeText(key, kSecPublicKeyHashItemAttr), text(fields->keyId));
    EXPECT_EQ(attributeText(key, kSecLabelItemAttr), kf::test::parsed(rsaMember()).key.label);
}

TEST_F(Items, AnItemWhoseKeychainIsGoneIsGoneToo)
{
    const auto elsewhere = keychainAt("/elsewhere");
    memory_->create("/elsewhere");
    ASSERT_EQ(import(elsewhere, ada()), errSecSuccess);
    const auto certificate = find(elsewhere, kSecCertificateItemClass).items.at(0);
    const auto key = find(elsewhere, kSecPrivateKeyItemClass).items.at(0);
    memory_->erase("/elsewhere");
    for (const auto& item : {certificate, key}) {
        OSStatus status = errSecSuccess;
        EXPECT_EQ(attributeText(item, kSecLabelItemAttr, &status), "");
        EXPECT_EQ(status, errSecInvalidItemRef);
        EXPECT_EQ(writeAttribute(item, kSecLabelItemAttr, "x"), errSecInvalidItemRef);
        EXPECT_EQ(SecKeychainItemDelete(item), errSecInvalidItemRef);
    }
    EXPECT_FALSE(memory_->exists("/elsewhere"));
}

TEST_F(Items, AnItemOfAnotherClassIsAnother)
{
    // Both have the digest of these bytes.
    const auto certificate = importAda();
    const SecKeychainItemRef key = makeRef<SecKey>(ada().leaf, defaultKeychain());
    EXPECT_EQ(certificate->digest(), key->digest());
    EXPECT_FALSE(CFEqual(certificate, key));
    EXPECT_FALSE(CFEqual(looseCertificate(ada().leaf), certificate));
}

TEST_F(Items, CallsThatFailLeaveNothingInTheirResults)
{
    const auto certificate = importAda();
    const auto identity = identities().at(0);
    SecKeychainItemRef item = certificate;
    EXPECT_EQ(SecKeychainSearchCopyNext(nullptr, &item), errSecInvalidSearchRef);
    EXPECT_FALSE(item);
    SecKeychainSearchRef search;
    ASSERT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, nullptr, &search), 0);
    EXPECT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, 7, nullptr, &search), errSecNoSuchClass);
    EXPECT_FALSE(search);
    SecIdentitySearchRef identitySearch;
    ASSERT_EQ(SecIdentitySearchCreate(nullptr, 0, &identitySearch), errSecSuccess);
    EXPECT_EQ(SecIdentitySearchCreate(nullptr, 1, &identitySearch), errSecParam);
    EXPECT_FALSE(identitySearch);
    SecIdentityRef found = identity;
    EXPECT_EQ(SecIdentitySearchCopyNext(nullptr, &found), errSecInvalidSearchRef);
    EXPECT_FALSE(found);
    found = identity;
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, nullptr, &found), errSecParam);
    EXPECT_FALSE(found);
    SecCertificateRef copied = certificate;
    EXPECT_EQ(SecIdentityCopyCertificate(nullptr, &copied), errSecParam);
    EXPECT_FALSE(copied);
    SecKeyRef key = identity->privateKey();
    EXPECT_EQ(SecIdentityCopyPrivateKey(nullptr, &key), errSecParam);
    EXPECT_FALSE(key);
    copied = certificate;
    EXPECT_EQ(SecCertificateCreateFromData(nullptr, 3, 3, &copied), errSecParam);
    EXPECT_FALSE(copied);
    auto addresses = NSArray::array();
    EXPECT_EQ(SecCertificateCopyEmailAddresses(nullptr, &addresses), errSecParam);
    EXPECT_FALSE(addresses);
    auto keychain = defaultKeychain();
    EXPECT_EQ(SecKeychainItemCopyKeychain(nullptr, &keychain), errSecInvalidItemRef);
    EXPECT_FALSE(keychain);
    std::uint32_t length = 1;
    void* data = &length;
    SecKeychainAttributeList none{0, nullptr};
    SecKeychainAttributeList* list = &none;
    EXPECT_EQ(
        SecKeychainItemCopyAttributesAndData(nullptr, nullptr, nullptr, &list, &length, &data), errSecInvalidItemRef);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(list, nullptr);
}

TEST_F(Items, ListsWithoutTheirContentAreRefused)
{
    const auto certificate = importAda();
    SecKeychainAttribute attribute{kSecLabelItemAttr, 3, nullptr};
    const SecKeychainAttributeList withoutValue{1, &attribute};
    const SecKeychainAttributeList withoutAttributes{1, nullptr};
    const SecKeychainAttributeList empty{0, nullptr};
    for (const auto* list : {&withoutValue, &withoutAttributes}) {
        SecKeychainSearchRef search;
        EXPECT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, list, &search), errSecParam);
        EXPECT_EQ(SecKeychainItemModifyAttributesAndData(certificate, list, 0, nullptr), errSecParam);
    }
    EXPECT_EQ(SecKeychainItemModifyAttributesAndData(certificate, &empty, 0, nullptr), errSecSuccess);
    const SecKeychainAttributeInfo withoutTags{1, nullptr, nullptr};
    SecKeychainAttributeList* read = nullptr;
    EXPECT_EQ(
        SecKeychainItemCopyAttributesAndData(certificate, &withoutTags, nullptr, &read, nullptr, nullptr), errSecParam);
    EXPECT_EQ(attributeText(certificate, kSecLabelItemAttr), "Ada Example");
}

TEST_F(Items, AnAttributeThatTheClassLacksGivesNothing)
{
    const auto certificate = importAda();
    OSStatus status = errSecSuccess;
    attributeText(certificate, fourCharacterCode("none"), &status);
    EXPECT_EQ(status, errSecNoSuchAttr);
    attributeText(find(nullptr, kSecPrivateKeyItemClass).items.at(0), kSecAliasItemAttr, &status);
    EXPECT_EQ(status, errSecNoSuchAttr);
    attributeText(nullptr, kSecLabelItemAttr, &status);
    EXPECT_EQ(status, errSecInvalidItemRef);
    EXPECT_EQ(attributeText(looseCertificate(ada().leaf), kSecLabelItemAttr), "Ada Example");
}

TEST_F(Items, OnlyTheLabelIsWritten)
{
    const auto certificate = importAda();
    const auto key = find(nullptr, kSecPrivateKeyItemClass).items.at(0);
    EXPECT_EQ(writeAttribute(certificate, kSecLabelItemAttr, "Countess"), errSecSuccess);
    EXPECT_EQ(attributeText(certificate, kSecLabelItemAttr), "Countess");
    EXPECT_EQ(writeAttribute(key, kSecLabelItemAttr, "Key"), errSecSuccess);
    EXPECT_EQ(attributeText(key, kSecLabelItemAttr), "Key");
    EXPECT_EQ(writeAttribute(certificate, kSecLabelItemAttr, ""), errSecSuccess);
    EXPECT_EQ(attributeText(certificate, kSecLabelItemAttr), "Ada Example") << "the certificate's own label";
    EXPECT_EQ(writeAttribute(certificate, kSecAliasItemAttr, "x"), errSecReadOnlyAttr);
    EXPECT_EQ(writeAttribute(certificate, fourCharacterCode("none"), "x"), errSecNoSuchAttr);
    EXPECT_EQ(writeAttribute(looseCertificate(ada().leaf), kSecLabelItemAttr, "x"), errSecInvalidItemRef);
    EXPECT_EQ(writeAttribute(nullptr, kSecLabelItemAttr, "x"), errSecInvalidItemRef);
    EXPECT_EQ(SecKeychainItemModifyAttributesAndData(certificate, nullptr, 1, "x"), errSecDataNotModifiable);
    EXPECT_EQ(SecKeychainItemModifyAttributesAndData(certificate, nullptr, 0, nullptr), errSecSuccess);
    std::string label = "Other";
    SecKeychainAttribute mixed[] = {{kSecLabelItemAttr, 5, label.data()}, {kSecAliasItemAttr, 5, label.data()}};
    SecKeychainAttributeList list{2, mixed};
    EXPECT_EQ(SecKeychainItemModifyAttributesAndData(certificate, &list, 0, nullptr), errSecReadOnlyAttr);
    EXPECT_EQ(attributeText(certificate, kSecLabelItemAttr), "Ada Example");
}

// --- Deletion ---

TEST_F(Items, DeletionTakesExactlyTheItemAndACertificatesTrust)
{
    const auto system = systemKeychain();
    const Trust trust{.server = TrustLevel::trusted};
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
    ASSERT_EQ(writeTrust(system, authority().root(), trust).status(), errSecSuccess);
    importAda();
    const auto root =
        find(defaultKeychain(), kSecCertificateItemClass, kSecAliasItemAttr, "Orvane Certification Authority")
            .items.at(0);
    EXPECT_EQ(SecKeychainItemDelete(root), errSecSuccess);
    EXPECT_EQ(readTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
    EXPECT_EQ(*readTrust(system, authority().root()), trust);
    EXPECT_EQ(find(system, kSecCertificateItemClass).items.size(), 1U);
    EXPECT_EQ(count(kSecCertificateItemClass), 2U);
    EXPECT_EQ(count(kSecPrivateKeyItemClass), 1U);
    EXPECT_EQ(SecKeychainItemDelete(root), errSecInvalidItemRef);
    OSStatus status = errSecSuccess;
    attributeText(root, kSecLabelItemAttr, &status);
    EXPECT_EQ(status, errSecInvalidItemRef);
    EXPECT_EQ(writeAttribute(root, kSecLabelItemAttr, "x"), errSecInvalidItemRef);
    memory_->erase(defaultKeychain()->path());
    EXPECT_EQ(SecKeychainItemDelete(root), errSecInvalidItemRef);
    EXPECT_EQ(SecKeychainItemDelete(nullptr), errSecInvalidItemRef);
}

TEST_F(Items, ADeletionThatFailsChangesNothing)
{
    const Trust trust{.server = TrustLevel::denied};
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
    const auto root = find(nullptr, kSecCertificateItemClass).items.at(0);
    for (const auto operation : {Operation::beginWriting, Operation::containsCertificate, Operation::readTrust,
             Operation::declare, Operation::removeTrust, Operation::removeCertificate}) {
        faults_->arm(operation, 1, errSecIO);
        EXPECT_EQ(SecKeychainItemDelete(root), errSecIO);
        EXPECT_TRUE(faults_->fired());
        faults_->disarm();
        EXPECT_EQ(count(kSecCertificateItemClass), 1U);
        EXPECT_EQ(*readTrust(defaultKeychain(), authority().root()), trust);
    }
    memory_->setReadOnly(defaultKeychain()->path(), true);
    EXPECT_EQ(SecKeychainItemDelete(root), errSecReadOnly);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
}

// --- Trust ---

TEST_F(Items, TrustBringsItsCertificateAndBothOrNeitherAreWritten)
{
    const Trust trust{.server = TrustLevel::trusted, .email = TrustLevel::trusted};
    for (const auto operation : {Operation::declare, Operation::addCertificate, Operation::setTrust}) {
        faults_->arm(operation, 1, errSecIO);
        EXPECT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecIO);
        EXPECT_TRUE(faults_->fired());
        faults_->disarm();
        EXPECT_EQ(count(kSecCertificateItemClass), 0U);
        EXPECT_EQ(readTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
    }
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
    EXPECT_EQ(*readTrust(defaultKeychain(), authority().root()), trust);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
    const Trust denied{.server = TrustLevel::denied};
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), denied).status(), errSecSuccess);
    EXPECT_EQ(*readTrust(defaultKeychain(), authority().root()), denied);
    EXPECT_EQ(removeTrust(defaultKeychain(), authority().root()).status(), errSecSuccess);
    EXPECT_EQ(removeTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
    EXPECT_EQ(writeTrust(defaultKeychain(), Bytes{1, 2}, trust).status(), errSecUnknownFormat);
    EXPECT_EQ(removeTrust(systemKeychain(), authority().root()).status(), errSecItemNotFound);
}

TEST_F(Items, CertificatesAreFoundBySubject)
{
    importAda();
    const Bytes issuer = authority().issuer();
    const auto fields = kf::readCertificateFields(issuer);
    const auto found = certificatesWithSubject(defaultKeychain(), fields->subject);
    ASSERT_TRUE(found) << found.status();
    ASSERT_THAT(*found, SizeIs(1));
    EXPECT_EQ(found->front()->parsed().der, issuer);
}

// --- Pass phrases ---

class Asker final : public kf::Presenter {
public:
    explicit Asker(std::vector<std::optional<std::string>> answers)
        : answers_(std::move(answers)), before_(setCurrent(this))
    {
    }
    ~Asker() override { setCurrent(before_); }

    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion& question) override
    {
        EXPECT_TRUE(CFEqual(question.keychainPath, NSString::stringWithUTF8String(defaultKeychain()->path())));
        EXPECT_EQ(question.attempt, ++asked);
        const auto answer = answers_.at(static_cast<std::size_t>(asked) - 1);
        if (!answer)
            return std::nullopt;
        return SecretBytes(answer->begin(), answer->end());
    }

    int asked = 0;

private:
    std::vector<std::optional<std::string>> answers_;
    kf::Presenter* before_;
};

TEST_F(Items, WithoutAPresenterALockedKeychainIsRefusedAtOnce)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecInteractionNotAllowed);
    EXPECT_EQ(find(nullptr, kSecPrivateKeyItemClass).end, errSecInteractionNotAllowed);
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass).end, errSecItemNotFound);
    EXPECT_EQ(faults_->calls(Operation::addPrivateKey), 0);
    EXPECT_EQ(faults_->calls(Operation::beginWriting), 0);
}

TEST_F(Items, ALockedKeychainIsUnlockedThroughThePresenterOnce)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    Asker asker({"wrong", "open sesame"});
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(asker.asked, 2);
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_EQ(asker.asked, 2);
}

TEST_F(Items, AKeychainThatCannotBeUnlockedIsToldAndNotAskedForAgain)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    faults_->arm(Operation::unlock, 1, errSecIO);
    {
        Asker asker({"open sesame"});
        EXPECT_EQ(import(defaultKeychain(), ada()), errSecIO);
        EXPECT_EQ(asker.asked, 1);
    }
    EXPECT_TRUE(faults_->fired());
    EXPECT_EQ(faults_->calls(Operation::beginWriting), 0);
    faults_->disarm();
    Asker asker({"open sesame"});
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
}

TEST_F(Items, AKeychainWhoseGenerationCannotBeReadIsTold)
{
    importAda();
    const auto all = find(nullptr, kSecCertificateItemClass).items.size();
    faults_->arm(Operation::generation, 1, errSecIO, true);
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass).end, errSecIO);
    EXPECT_EQ(find(nullptr, kSecPrivateKeyItemClass).end, errSecIO);
    EXPECT_TRUE(faults_->fired());
    faults_->disarm();
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass).items.size(), all);
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass).end, errSecItemNotFound);
}

TEST_F(Items, AfterThreeWrongAnswersNobodyIsAskedAgain)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    Asker asker({"a", "b", "c", "open sesame"});
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecAuthFailed);
    EXPECT_EQ(asker.asked, 3);
    EXPECT_EQ(faults_->calls(Operation::beginWriting), 0);
}

/// A person who takes so long that another keychain stands there when the answer comes.
class SlowAsker final : public kf::Presenter {
public:
    explicit SlowAsker(std::function<void()> meanwhile)
        : meanwhile_(std::move(meanwhile)), before_(setCurrent(this)) { }
    ~SlowAsker() override { setCurrent(before_); }

    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override
    {
        ++asked;
        meanwhile_();
        const std::string answer = "open sesame";
        return SecretBytes(answer.begin(), answer.end());
    }

    int asked = 0;

private:
    std::function<void()> meanwhile_;
    kf::Presenter* before_;
};

TEST_F(Items, WhatWasPutInPlaceWhileThePersonTypedIsWhatIsWritten)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    SlowAsker asker([this] { memory_->create(defaultKeychain()->path()); });
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(asker.asked, 1);
    EXPECT_THAT(identities(), SizeIs(1));
}

TEST_F(Items, WhatWasPutInPlaceWhileThePersonTypedIsWhatIsRead)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    {
        SlowAsker asker([] {});
        ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    }
    memory_->closeAll();
    SlowAsker asker([this] { memory_->create(defaultKeychain()->path()); });
    EXPECT_THAT(identities(), IsEmpty());
    EXPECT_EQ(asker.asked, 1);
    EXPECT_EQ(count(kSecPrivateKeyItemClass), 0U);
    EXPECT_EQ(readTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
}

TEST_F(Items, AnotherLockedKeychainPutInPlaceIsAskedForAnew)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    SlowAsker* asking = nullptr;
    SlowAsker asker([&] {
        if (asking->asked == 1)
            memory_->create(defaultKeychain()->path(), "open sesame");
    });
    asking = &asker;
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(asker.asked, 2);
    EXPECT_THAT(identities(), SizeIs(1));
}

TEST_F(Items, ACanceledQuestionEndsTheCall)
{
    memory_->create(defaultKeychain()->path(), "open sesame");
    Asker asker({std::nullopt});
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecUserCanceled);
    EXPECT_EQ(asker.asked, 1);
}

} // namespace
