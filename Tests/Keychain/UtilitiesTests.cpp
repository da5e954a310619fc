#include "Keychain/KFUtilities.h"
#include "Keychain/NSArray+LastCommonElement.h"
#include "Tests/Keychain/KeychainTest.h"

#include <algorithm>

namespace {

using namespace kf::test;
using kf::keychain::Operation;
using LastCommonElement::lastCommonElementWithArray;
using testing::ElementsAre;
using testing::IsEmpty;

std::string hexadecimal(const Ref<NSData>& data)
{
    if (!data)
        return "(nil)";
    std::string text;
    for (const std::uint8_t byte : data->span()) {
        constexpr char digits[] = "0123456789abcdef";
        text += {digits[byte >> 4], digits[byte & 0xF]};
    }
    return text;
}

CSSM_DATA cssmData(std::string& text) { return {text.size(), reinterpret_cast<std::uint8_t*>(text.data())}; }

class Digests : public KeychainTest { };

TEST_F(Digests, AreMD5AndSHA1)
{
    std::string text = "abc";
    EXPECT_EQ(hexadecimal(KFUtilities::digestForCssmData(cssmData(text), CSSM_ALGID_SHA1)),
        "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hexadecimal(KFUtilities::digestForCssmData(cssmData(text), CSSM_ALGID_MD5)),
        "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hexadecimal(KFUtilities::sha1DigestForData(dataOf({'a', 'b', 'c'}))),
        "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(Digests, OfNothingAreThoseOfTheEmptyText)
{
    constexpr auto empty = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
    EXPECT_EQ(hexadecimal(KFUtilities::sha1DigestForData(NSData::data())), empty);
    EXPECT_EQ(hexadecimal(KFUtilities::sha1DigestForData(nullptr)), empty);
}

TEST_F(Digests, OfOtherAlgorithmsAreNilInSilence)
{
    std::string text = "abc";
    testing::internal::CaptureStderr();
    for (const CSSM_ALGORITHMS algorithm : {0U, 1U, 6U, 9U, 14U, 0x80000000U})
        EXPECT_FALSE(KFUtilities::digestForCssmData(cssmData(text), algorithm));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Digests, OfCertificatesAreOfTheirBytes)
{
    const auto certificate = certificateOf(authority().root());
    EXPECT_TRUE(KFUtilities::sha1DigestForData(dataOf(authority().root()))
                    ->isEqualToData(KFUtilities::digestForCertificate(certificate, CSSM_ALGID_SHA1)));
    EXPECT_EQ(KFUtilities::digestForCertificate(certificate, CSSM_ALGID_SHA1)->length(), 20U);
    EXPECT_EQ(KFUtilities::digestForCertificate(certificate, CSSM_ALGID_MD5)->length(), 16U);
    EXPECT_FALSE(KFUtilities::digestForCertificate(certificate, 9));
    EXPECT_FALSE(KFUtilities::digestForCertificate(nullptr, CSSM_ALGID_SHA1));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Digests, OfUnreadableCertificatesAreNilAndLogged)
{
    platformCalls().certificateData = [](const auto&, auto*) { return errSecDecode; };
    EXPECT_FALSE(KFUtilities::digestForCertificate(certificateOf(authority().root()), CSSM_ALGID_SHA1));
    EXPECT_THAT(lines_, ElementsAre(lineOf("DFC:SecCertificateGetData: ", errSecDecode)));
    lines_.clear();
    platformCalls().errorMessage = [](OSStatus) -> Ref<NSString> { return nullptr; };
    EXPECT_FALSE(KFUtilities::digestForCertificate(certificateOf(authority().root()), CSSM_ALGID_SHA1));
    EXPECT_THAT(lines_, ElementsAre("DFC:SecCertificateGetData: (null)"));
}

TEST_F(Digests, OfBytesThatAreNotThereAreNilAndPrinted)
{
    testing::internal::CaptureStderr();
    EXPECT_FALSE(KFUtilities::digestForCssmData({3, nullptr}, CSSM_ALGID_MD5));
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(), "cdsaDigest: The cryptographic service was given invalid input.\n");
}

TEST_F(Digests, DetachTheServiceOnce)
{
    std::vector<CSSM_MODULE_HANDLE> detached;
    platformCalls().moduleDetach = [&](CSSM_MODULE_HANDLE handle) {
        detached.push_back(handle);
        return CSSM_OK;
    };
    ASSERT_TRUE(KFUtilities::sha1DigestForData(dataOf({'a'})));
    EXPECT_EQ(detached.size(), 1U);
    EXPECT_FALSE(KFUtilities::digestForCssmData({}, 9));
    EXPECT_EQ(detached.size(), 1U);
}

TEST_F(Digests, AreNilWhereTheServiceCannotBeAttached)
{
    int detaches = 0;
    platformCalls().moduleDetach = [&](auto) {
        ++detaches;
        return CSSM_OK;
    };
    platformCalls().moduleLoad = [](const CSSM_GUID* guid, auto* handler, void* context) {
        EXPECT_EQ(*guid, gGuidAppleCSP);
        EXPECT_EQ(handler, nullptr);
        EXPECT_EQ(context, nullptr);
        return CSSMERR_CSSM_ADDIN_LOAD_FAILED;
    };
    testing::internal::CaptureStderr();
    EXPECT_FALSE(KFUtilities::sha1DigestForData(dataOf({'a'})));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "cdsaCspAttach: The security module could not be loaded.\n");
    EXPECT_EQ(detaches, 0);
    EXPECT_THAT(lines_, IsEmpty());
    platformCalls() = {};
    EXPECT_TRUE(KFUtilities::sha1DigestForData(dataOf({'a'})));
}

TEST_F(Digests, AreNilWhereTheServiceFailsAndDetachIt)
{
    int detaches = 0;
    platformCalls().moduleDetach = [&](auto) {
        ++detaches;
        return CSSM_OK;
    };
    platformCalls().digestData = [](CSSM_CC_HANDLE) { return CSSMERR_CSSM_MEMORY_ERROR; };
    testing::internal::CaptureStderr();
    EXPECT_FALSE(KFUtilities::sha1DigestForData(dataOf({'a'})));
    platformCalls().digestData = nullptr;
    platformCalls().createDigestContext = [](CSSM_ALGORITHMS) { return CSSMERR_CSP_INVALID_ALGORITHM; };
    EXPECT_FALSE(KFUtilities::sha1DigestForData(dataOf({'a'})));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "cdsaDigest: The security services manager has no memory left.\n"
        "cdsaDigest: The algorithm is unknown to the cryptographic service.\n");
    EXPECT_EQ(detaches, 2);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Digests, AreGivenInSilenceWhereTheServiceCannotBeDetached)
{
    platformCalls().moduleDetach = [](auto) { return CSSMERR_CSSM_INTERNAL_ERROR; };
    testing::internal::CaptureStderr();
    EXPECT_EQ(hexadecimal(KFUtilities::sha1DigestForData(dataOf({'a', 'b', 'c'}))),
        "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(lines_, IsEmpty());
}

class CertificatesForAlias : public KeychainTest {
protected:
    static constexpr const char* alias_ = "Orvane Certification Authority";

    static Ref<NSArray> find() { return KFUtilities::certificatesForAlias(NSString::stringWithUTF8String(alias_)); }
    /// The bytes that are searched for in the first keychain.
    static std::string searchedFor(const Ref<NSString>& alias)
    {
        std::string searched = "(nothing)";
        platformCalls().createSearch = [&](const auto&, auto, const SecKeychainAttributeList* attributes, auto*) {
            const auto& attribute = attributes->attr[0];
            searched.assign(static_cast<const char*>(attribute.data), attribute.length);
            return OSStatus{errSecParam};
        };
        const auto found = KFUtilities::certificatesForAlias(alias);
        EXPECT_EQ(countOf(found), 0U);
        EXPECT_TRUE(found);
        return searched;
    }
};

TEST_F(CertificatesForAlias, AreAnEmptyArrayWhereThereIsNone)
{
    const auto found = find();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->count(), 0U);
}

TEST_F(CertificatesForAlias, ComeFromEachKeychainInTheOrderOfTheList)
{
    addCertificate(authority().root(), systemPath());
    addCertificate(authority().root(), defaultPath());
    addCertificate(authority().issuer(), defaultPath());
    const auto found = find();
    ASSERT_TRUE(found);
    EXPECT_THAT(certificatesIn(found), ElementsAre(authority().root(), authority().root()));
    EXPECT_EQ(found->objectAs<SecKeychainItem>(0)->keychain()->path(), defaultPath());
    EXPECT_EQ(found->objectAs<SecKeychainItem>(1)->keychain()->path(), systemPath());
    EXPECT_STREQ(found->className(), "NSArray");
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificatesForAlias, SearchEachKeychainByItselfByTheAliasAlone)
{
    std::vector<std::string> searched;
    platformCalls().createSearch = [&](const Ref<NSObject>& keychain, SecItemClass itemClass,
                                       const SecKeychainAttributeList* attributes, auto*) {
        searched.push_back(refCast<SecKeychain>(keychain)->path());
        EXPECT_EQ(itemClass, kSecCertificateItemClass);
        EXPECT_EQ(attributes->count, 1U);
        EXPECT_EQ(attributes->attr[0].tag, kSecAliasItemAttr);
        // Behind what the count takes in stands the certificate's type.
        EXPECT_EQ(attributes->attr[1].tag, kSecCertificateType);
        EXPECT_EQ(attributes->attr[1].length, 4U);
        EXPECT_EQ(*static_cast<const std::uint32_t*>(attributes->attr[1].data), CSSM_CERT_X_509v3);
        return OSStatus{errSecParam};
    };
    EXPECT_EQ(countOf(find()), 0U);
    EXPECT_THAT(searched, ElementsAre(defaultPath(), systemPath()));
}

TEST_F(CertificatesForAlias, LeaveAKeychainAtItsFirstError)
{
    addCertificate(authority().root(), defaultPath());
    addCertificate(authority().root(), systemPath());
    faults_->arm(Operation::open, 1, errSecInvalidKeychain);
    const auto found = find();
    EXPECT_TRUE(faults_->fired());
    ASSERT_EQ(countOf(found), 1U);
    EXPECT_EQ(found->objectAs<SecKeychainItem>(0)->keychain()->path(), systemPath());
    faults_->disarm();
    EXPECT_EQ(countOf(find()), 2U);
}

TEST_F(CertificatesForAlias, EndWithASearchThatFailsForEver)
{
    int calls = 0;
    const auto certificate = certificateOf(authority().root());
    platformCalls().searchNext = [&](const auto&, SecKeychainItemRef* item) {
        if (++calls % 2 == 0)
            return OSStatus{errSecIO};
        *item = certificate;
        return OSStatus{errSecSuccess};
    };
    EXPECT_EQ(countOf(find()), 2U);
    EXPECT_EQ(calls, 4);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificatesForAlias, AreNilWithoutSearchList)
{
    platformCalls().copySearchList = [](auto*) { return errSecNoDefaultKeychain; };
    EXPECT_FALSE(find());
    EXPECT_FALSE(KFUtilities::certificatesForAlias(nullptr));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificatesForAlias, AreNoneForNilOrNoAlias)
{
    addCertificate(authority().root(), defaultPath());
    EXPECT_EQ(searchedFor(nullptr), "(nothing)");
    EXPECT_EQ(searchedFor(""_ns), "(nothing)");
    EXPECT_EQ(searchedFor(NSString::stringWithCharacters(u"\xDC00")), "(nothing)");
}

TEST_F(CertificatesForAlias, SearchForAsManyBytesAsTheAliasHasCharacters)
{
    EXPECT_EQ(searchedFor("plain"_ns), "plain");
    EXPECT_EQ(searchedFor("Z\u00FCrich CA"_ns), "Z\u00FCrich C");
    EXPECT_EQ(searchedFor("\u2603\u2603"_ns), "\xE2\x98");
    EXPECT_EQ(searchedFor(NSString::stringWithCharacters(std::u16string(u"ab\0cd", 5))), "ab");
}

class PathForKeychainItem : public KeychainTest {
protected:
    PathForKeychainItem()
    {
        addCertificate(authority().root(), defaultPath());
        item_ = KFUtilities::certificatesForAlias("Orvane Certification Authority"_ns)->objectAs<SecKeychainItem>(0);
    }
    SecKeychainItemRef item_;
};

TEST_F(PathForKeychainItem, IsThatOfItsKeychain)
{
    EXPECT_EQ(toUTF8(KFUtilities::pathForKeychainItem(item_)), defaultPath());
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(PathForKeychainItem, IsNilWithoutKeychainAndNotLogged)
{
    EXPECT_FALSE(KFUtilities::pathForKeychainItem(nullptr));
    EXPECT_FALSE(KFUtilities::pathForKeychainItem(certificateOf(authority().root())));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(PathForKeychainItem, IsAskedForWithOneByteAndThenWithRoom)
{
    std::vector<std::uint32_t> rooms;
    platformCalls().keychainPath = [&](const auto&, std::uint32_t* length, char* path) {
        rooms.push_back(*length);
        if (rooms.size() == 1) {
            *length = 10;
            return OSStatus{errSecBufferTooSmall};
        }
        std::copy_n("/short", 6, path);
        *length = 4;
        return OSStatus{errSecSuccess};
    };
    EXPECT_EQ(toUTF8(KFUtilities::pathForKeychainItem(item_)), "/sho");
    EXPECT_THAT(rooms, ElementsAre(1U, 12U));
}

TEST_F(PathForKeychainItem, IsAskedForAgainAlsoWhereOneByteIsEnough)
{
    std::vector<std::uint32_t> rooms;
    platformCalls().keychainPath = [&](const auto&, std::uint32_t* length, char* path) {
        rooms.push_back(*length);
        path[0] = '/';
        *length = 1;
        return OSStatus{errSecSuccess};
    };
    EXPECT_EQ(toUTF8(KFUtilities::pathForKeychainItem(item_)), "/");
    EXPECT_THAT(rooms, ElementsAre(1U, 3U));
}

TEST_F(PathForKeychainItem, IsNilInSilenceWhereItIsNoText)
{
    platformCalls().keychainPath = [](const auto&, std::uint32_t* length, char* path) {
        if (*length > 1)
            path[0] = '\xFF';
        *length = 1;
        return OSStatus{errSecSuccess};
    };
    EXPECT_FALSE(KFUtilities::pathForKeychainItem(item_));
    EXPECT_THAT(lines_, IsEmpty()) << "the platform has not failed";
}

TEST_F(PathForKeychainItem, IsNilAndLoggedWhereItCannotBeRead)
{
    int calls = 0;
    platformCalls().keychainPath = [&](const auto&, auto*, auto*) {
        ++calls;
        return errSecInvalidKeychain;
    };
    EXPECT_FALSE(KFUtilities::pathForKeychainItem(item_));
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(lines_, ElementsAre(lineOf("Error getting path: ", errSecInvalidKeychain)));
}

TEST_F(PathForKeychainItem, IsNilAndLoggedWhereItNeverFits)
{
    platformCalls().keychainPath = [](const auto&, auto*, auto*) { return errSecBufferTooSmall; };
    EXPECT_FALSE(KFUtilities::pathForKeychainItem(item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("Error getting path: ", errSecBufferTooSmall)));
}

class BasicX509Policy : public KeychainTest { };

TEST_F(BasicX509Policy, IsThePlatforms)
{
    const auto policy = KFSecPolicyCreateBasicX509();
    ASSERT_TRUE(policy);
    CSSM_OID identifier;
    ASSERT_EQ(SecPolicyGetOID(policy, &identifier), errSecSuccess);
    EXPECT_EQ(Bytes(identifier.Data, identifier.Data + identifier.Length),
        Bytes(CSSMOID_APPLE_X509_BASIC.Data, CSSMOID_APPLE_X509_BASIC.Data + CSSMOID_APPLE_X509_BASIC.Length));
}

TEST_F(BasicX509Policy, IsNullWhereItCannotBeFound)
{
    const auto policy = KFSecPolicyCreateBasicX509();
    platformCalls().policySearchNext = [&](const auto&, SecPolicyRef* found) {
        *found = policy;
        return errSecItemNotFound;
    };
    EXPECT_FALSE(KFSecPolicyCreateBasicX509());
    platformCalls().createPolicySearch = [](CSSM_CERT_TYPE type, const CSSM_OID* identifier, const CSSM_DATA* value,
                                             auto*) {
        EXPECT_EQ(type, CSSM_CERT_X_509v3);
        EXPECT_EQ(identifier->Data, CSSMOID_APPLE_X509_BASIC.Data);
        EXPECT_EQ(value, nullptr);
        return errSecNoPolicyModule;
    };
    EXPECT_FALSE(KFSecPolicyCreateBasicX509());
    EXPECT_THAT(lines_, IsEmpty());
}

std::string lastCommon(const Ref<NSString>& path, const Ref<NSString>& other)
{
    const auto element = lastCommonElementWithArray(path->pathComponents(), other->pathComponents());
    return element ? toUTF8(element->description()) : "(nil)";
}

TEST(LastCommonElementOfArrays, IsTheOneBeforeTheFork)
{
    EXPECT_EQ(lastCommon("/Users/a"_ns, "/System/b"_ns), "/");
    EXPECT_EQ(lastCommon("/Users/a/x"_ns, "/Users/a/y/z"_ns), "a");
}

TEST(LastCommonElementOfArrays, IsNilWithoutFork)
{
    EXPECT_EQ(lastCommon("/Library"_ns, "/Library/x"_ns), "(nil)");
    EXPECT_EQ(lastCommon("/Library/x"_ns, "/Library"_ns), "(nil)");
    EXPECT_EQ(lastCommon("/Library/x"_ns, "/Library/x"_ns), "(nil)");
    EXPECT_EQ(lastCommon(""_ns, ""_ns), "(nil)");
    EXPECT_EQ(lastCommon("/x"_ns, ""_ns), "(nil)");
}

TEST(LastCommonElementOfArrays, IsNilWhereTheyDifferFromTheStart)
{
    EXPECT_EQ(lastCommon("a"_ns, "b"_ns), "(nil)");
    EXPECT_EQ(lastCommon("a/x"_ns, "b/x"_ns), "(nil)");
}

TEST(LastCommonElementOfArrays, ComparesByValueAndGivesTheFirstArraysElement)
{
    const auto wide = NSString::stringWithCharacters(u"same");
    const auto a = NSArray::arrayWithObjects({wide, "x"_ns});
    const auto b = NSArray::arrayWithObjects({"same"_ns, "y"_ns});
    EXPECT_EQ(lastCommonElementWithArray(a, b), Ref<NSObject>(wide));
}

TEST(LastCommonElementOfArrays, IsNilForNil)
{
    const auto array = NSArray::arrayWithObjects({"a"_ns});
    EXPECT_FALSE(lastCommonElementWithArray(nullptr, array));
    EXPECT_FALSE(lastCommonElementWithArray(array, nullptr));
}

NSInteger sorted(const Ref<NSString>& path, const Ref<NSString>& other) { return domainPathSort(path, other, nullptr); }

TEST(DomainPathSort, PutsSystemBeforeLibraryBeforeTheRest)
{
    const auto system = "/System/Library/Keychains/a.keychain"_ns;
    const auto library = "/Library/Keychains/System.keychain"_ns;
    const auto user = "/Users/a/Library/Keychains/login.keychain"_ns;
    EXPECT_EQ(sorted(system, library), -1);
    EXPECT_EQ(sorted(library, system), 1);
    EXPECT_EQ(sorted(library, user), -1);
    EXPECT_EQ(sorted(user, library), 1);
    EXPECT_EQ(sorted(system, user), -1);
    EXPECT_EQ(sorted(user, system), 1);
}

TEST(DomainPathSort, GivesMinusOneBothWaysForTwoOtherDomains)
{
    EXPECT_EQ(sorted("/Users/a"_ns, "/home/a"_ns), -1);
    EXPECT_EQ(sorted("/home/a"_ns, "/Users/a"_ns), -1);
}

TEST(DomainPathSort, SortsASearchList)
{
    std::vector<Ref<NSString>> paths = {"/home/ada/.pki/Nssdb"_ns, "/Library/Keychains/System.keychain"_ns,
        "/home/ada/.local/share/pki/nssdb"_ns, "/System/Library/Keychains/a.keychain"_ns};
    std::ranges::sort(paths, [](const auto& path, const auto& other) { return sorted(path, other) < 0; });
    std::vector<std::string> texts;
    texts.reserve(paths.size());
    for (const auto& path : paths)
        texts.push_back(toUTF8(path));
    EXPECT_THAT(texts,
        ElementsAre("/System/Library/Keychains/a.keychain", "/Library/Keychains/System.keychain",
            "/home/ada/.local/share/pki/nssdb", "/home/ada/.pki/Nssdb"));
}

TEST(DomainPathSort, OrdersPathsOfOnePlaceWithoutRegardToCase)
{
    EXPECT_EQ(sorted("/home/ada/B"_ns, "/home/ada/a"_ns), 1);
    EXPECT_EQ(sorted("/home/ada/a"_ns, "/home/ada/B"_ns), -1);
    EXPECT_EQ(sorted("/Library/b"_ns, "/Library/A"_ns), 1);
    EXPECT_EQ(sorted("/Library/x"_ns, "/LIBRARY/x"_ns), -1) << "another folder is another domain";
    EXPECT_EQ(sorted("/home/ada"_ns, "/home/ada"_ns), 0);
    EXPECT_EQ(sorted("/home/ada"_ns, "/home/ada/x"_ns), -1);
}

TEST(DomainPathSort, OrdersRelativePathsByTheirText)
{
    EXPECT_EQ(sorted("System/x"_ns, "Library/x"_ns), 1);
    EXPECT_EQ(sorted("/System/x"_ns, "Library/x"_ns), -1) << "a slash comes before a letter";
}

TEST(DomainPathSort, PutsNilFirstAndEqualToNothing)
{
    EXPECT_EQ(sorted(nullptr, "/System"_ns), -1);
    EXPECT_EQ(sorted("/System"_ns, nullptr), 1);
    EXPECT_NE(sorted(nullptr, nullptr), 0);
}

} // namespace
