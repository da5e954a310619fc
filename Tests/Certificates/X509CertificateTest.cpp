#include "Certificates/X509Certificate.h"
#include "Foundation/NSArray.h"
#include "Foundation/NSData.h"
#include "Foundation/NSDate.h"
#include "Tests/Certificates/CertificateMaker.h"
#include "Tests/Certificates/FieldModule.h"
#include "Tests/Certificates/VectorFile.h"
#include "Tests/Support/RecordingCssm.h"

#include <gmock/gmock.h>

#include <map>

namespace kf::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

Ref<NSString> key(const std::string& text) { return NSString::stringWithUTF8String(text); }

/// A name's dictionary as plain text; "Others" is left to othersOf().
std::map<std::string, std::string> textsOf(const Ref<NSDictionary>& name)
{
    std::map<std::string, std::string> texts;
    for (const auto& entry : name->allKeys())
        if (const auto text = name->objectAs<NSString>(entry))
            texts[toUTF8(entry)] = toUTF8(text);
    return texts;
}

std::vector<std::string> othersOf(const Ref<NSDictionary>& name)
{
    std::vector<std::string> texts;
    if (const auto others = name->objectAs<NSArray>("Others"_ns))
        for (const auto& text : *others)
            texts.push_back(toUTF8(refCast<NSString>(text)));
    return texts;
}

std::vector<std::string> keysOf(const Ref<NSDictionary>& dictionary)
{
    std::vector<std::string> keys;
    for (const auto& entry : dictionary->allKeys())
        keys.push_back(toUTF8(entry));
    return keys;
}

Bytes bytesOf(const Ref<NSDictionary>& dictionary, const std::string& name)
{
    const auto data = dictionary->objectAs<NSData>(key(name));
    return data ? Bytes(data->span().begin(), data->span().end()) : Bytes{0xBA, 0xD0};
}

Ref<NSMutableDictionary> dictionaryOf(const Bytes& der)
{
    return X509Certificate::extractCertDictFromCert(certificateFromDer(der));
}

Ref<NSDictionary> subjectOf(const Bytes& der)
{
    const auto dictionary = dictionaryOf(der);
    return dictionary ? dictionary->objectAs<NSDictionary>("Subject"_ns) : nullptr;
}

double secondsOf(const Ref<NSDictionary>& dictionary, const std::string& name)
{
    const auto date = dictionary->objectAs<NSDate>(key(name));
    return date ? date->timeIntervalSince1970() : -1;
}

TEST(X509Certificate, GivesEveryPartOfAnRsaCertificate)
{
    CertificateMaker maker({"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
    const auto dictionary = dictionaryOf(maker.certtool("dn = \"cn=Ada,o=Orvane Collegium,c=NO\"\nserial = 0x1122\n"
                                                        "activation_date = \"2020-02-29 12:34:56 UTC\"\n"
                                                        "expiration_date = \"2049-12-31 23:59:59 UTC\"\n"));
    ASSERT_TRUE(dictionary);
    EXPECT_THAT(keysOf(dictionary),
        UnorderedElementsAre("SerialNumber", "Issuer", "Subject", "NotValidBefore", "NotValidAfter", "PublicKey"));
    const std::map<std::string, std::string> name = {
        {"CommonName", "Ada"}, {"Organization", "Orvane Collegium"}, {"Country", "NO"}};
    EXPECT_EQ(textsOf(dictionary->objectAs<NSDictionary>("Subject"_ns)), name);
    EXPECT_EQ(textsOf(dictionary->objectAs<NSDictionary>("Issuer"_ns)), name);
    EXPECT_EQ(bytesOf(dictionary, "SerialNumber"), (Bytes{0x11, 0x22}));
    EXPECT_EQ(secondsOf(dictionary, "NotValidBefore"), 1582979696);
    EXPECT_EQ(secondsOf(dictionary, "NotValidAfter"), 2524607999);
    mustRun({"openssl", "rsa", "-in", maker.path("key.pem"), "-RSAPublicKey_out", "-outform", "DER", "-out",
        maker.path("public")});
    EXPECT_EQ(bytesOf(dictionary, "PublicKey"), readFile(maker.path("public")));
}

TEST(X509Certificate, PassesOverUniqueIdentifiers)
{
    const auto dictionary = dictionaryOf(
        CertificateMaker().certtool("cn = Ada\nissuer_unique_id = \"0016\"\nsubject_unique_id = \"00153224\"\n"));
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->count(), 6U);
}

TEST(X509Certificate, IssuerAndSubjectAreToldApart)
{
    Authority authority;
    const auto dictionary = dictionaryOf(authority.issue().leaf);
    const auto issuer = dictionary->objectAs<NSDictionary>("Issuer"_ns);
    EXPECT_EQ(toUTF8(issuer->objectAs<NSString>("Organization"_ns)), "Orvane Collegium");
    EXPECT_EQ(toUTF8(issuer->objectAs<NSString>("CommonName"_ns)), "Orvane Certification Authority 2");
    EXPECT_EQ(
        toUTF8(dictionary->objectAs<NSDictionary>("Subject"_ns)->objectAs<NSString>("CommonName"_ns)), "Ada Example");
}

TEST(X509Certificate, GivesKeysOfOtherKindsAsTheyStand)
{
    CertificateMaker ec;
    mustRun({"openssl", "pkey", "-in", ec.path("key.pem"), "-pubout", "-outform", "DER", "-out", ec.path("public")});
    const Bytes ecKey = readFile(ec.path("public"));
    EXPECT_EQ(bytesOf(dictionaryOf(ec.openssl("/CN=Ada")), "PublicKey"), Bytes(ecKey.end() - 65, ecKey.end()));

    CertificateMaker ed({"-algorithm", "ED25519"});
    mustRun({"openssl", "pkey", "-in", ed.path("key.pem"), "-pubout", "-outform", "DER", "-out", ed.path("public")});
    const Bytes edKey = readFile(ed.path("public"));
    EXPECT_EQ(bytesOf(dictionaryOf(ed.certtool("cn = Ada\n")), "PublicKey"), Bytes(edKey.end() - 32, edKey.end()));
}

TEST(X509Certificate, KnowsTheAttributesOfNames)
{
    CertificateMaker maker;
    // As openssl writes them; the e-mail address is an IA5String and has no place.
    EXPECT_EQ(textsOf(subjectOf(maker.openssl(
                  "/C=NO/O=Collegium/L=Bergen/OU=Staff/CN=Ada/SN=Example/title=Dr/ST=Vestland/collectiveST=West"
                  "/emailAddress=ada@orvane.example/street=Main/postalCode=5003"))),
        (std::map<std::string, std::string>{{"Country", "NO"}, {"Organization", "Collegium"}, {"Locality", "Bergen"},
            {"OrganizationalUnit", "Staff"}, {"CommonName", "Ada"}, {"Surname", "Example"}, {"Title", "Dr"},
            {"StateProvince", "Vestland"}, {"CollectiveStateProvince", "West"}, {"StreetAddress", "Main"},
            {"PostalCode", "5003"}}));
    // As certtool writes them.
    EXPECT_EQ(textsOf(subjectOf(maker.certtool(
                  "dn = \"c=NO,o=Collegium,l=Bergen,ou=Staff,cn=Ada,surname=Example,title=Dr,st=Vestland,"
                  "street=Main,postalCode=5003\"\n"))),
        (std::map<std::string, std::string>{{"Country", "NO"}, {"Organization", "Collegium"}, {"Locality", "Bergen"},
            {"OrganizationalUnit", "Staff"}, {"CommonName", "Ada"}, {"Surname", "Example"}, {"Title", "Dr"},
            {"StateProvince", "Vestland"}, {"StreetAddress", "Main"}, {"PostalCode", "5003"}}));
}

TEST(X509Certificate, DecodesEachStringType)
{
    CertificateMaker maker;
    const auto name = [&](const std::string& commonName, const std::string& stringMask) {
        return textsOf(subjectOf(maker.openssl("/CN=" + commonName, {}, stringMask)));
    };
    using Texts = std::map<std::string, std::string>;
    // The masks are openssl's bits of PrintableString, T61String, BMPString and UTF8String.
    EXPECT_EQ(name("Ada", "MASK:0x2"), (Texts{{"CommonName", "Ada"}}));
    EXPECT_EQ(name("\xC3\x85"
                   "se",
                  "MASK:0x4"),
        (Texts{{"CommonName",
            "\xC3\x85"
            "se"}}));
    EXPECT_EQ(name("\xC3\x85"
                   "se \xE2\x82\xAC",
                  "MASK:0x2000"),
        (Texts{{"CommonName",
            "\xC3\x85"
            "se \xE2\x82\xAC"}}));
    // Two and four bytes a character, read as UTF-8: the zero bytes stay, and what is not valid UTF-8 is dropped.
    EXPECT_EQ(name("Ad", "MASK:0x800"), (Texts{{"CommonName", std::string("\0A\0d", 4)}}));
    EXPECT_EQ(name("\xC3\x85"
                   "se",
                  "MASK:0x800"),
        Texts());
    // openssl writes no UniversalStrings in names, certtool any DER.
    EXPECT_EQ(
        textsOf(subjectOf(maker.certtool("dn = \"cn=#1c0400000041,o=#1c04000000c5,ou=#0c02c528,title=#0c024472\"\n"))),
        (Texts{{"CommonName", std::string("\0\0\0A", 4)}, {"Title", "Dr"}}));
}

TEST(X509Certificate, DropsValuesOfOtherTypes)
{
    // NumericString, IA5String, VisibleString, GeneralString, INTEGER and OCTET STRING beside a PrintableString.
    EXPECT_EQ(textsOf(subjectOf(CertificateMaker().certtool("dn = \"cn=#1203313233,o=#1603416461,ou=#1a03416461,"
                                                            "l=#1b03416461,title=#020101,st=#0403416461,"
                                                            "surname=#1303416461\"\n"))),
        (std::map<std::string, std::string>{{"Surname", "Ada"}}));
}

TEST(X509Certificate, ReadsAnEmailAddressOfATextType)
{
    EXPECT_EQ(textsOf(subjectOf(CertificateMaker().certtool("dn = \"email=#0c056140622e63\"\n"))),
        (std::map<std::string, std::string>{{"EmailAddress", "a@b.c"}}));
    // Several: the last one that is text. certtool writes them in the opposite order, as RFC 4514 has it.
    EXPECT_EQ(textsOf(subjectOf(
                  CertificateMaker().certtool("dn = \"email=#1603634064,email=#0c056140622e63,email=#0c03634064\"\n"))),
        (std::map<std::string, std::string>{{"EmailAddress", "a@b.c"}}));
}

TEST(X509Certificate, KeepsTheLastOfSeveralValues)
{
    CertificateMaker maker;
    EXPECT_EQ(textsOf(subjectOf(maker.openssl("/OU=first/CN=Ada/OU=second"))),
        (std::map<std::string, std::string>{{"OrganizationalUnit", "second"}, {"CommonName", "Ada"}}));
    // Within one relative name, in the order in which they stand there.
    EXPECT_EQ(textsOf(subjectOf(maker.openssl("/OU=long one+OU=short+CN=Ada"))),
        (std::map<std::string, std::string>{{"OrganizationalUnit", "long one"}, {"CommonName", "Ada"}}));
}

TEST(X509Certificate, CollectsValuesOfOtherTypesInOrder)
{
    CertificateMaker maker;
    const auto subject = subjectOf(maker.openssl("/UID=ada1/CN=Ada/GN=Augusta/UID=ada2", {}, "MASK:0x2"));
    EXPECT_THAT(othersOf(subject), ElementsAre("ada1", "Augusta", "ada2"));
    EXPECT_EQ(textsOf(subject), (std::map<std::string, std::string>{{"CommonName", "Ada"}}));
    EXPECT_THAT(othersOf(subjectOf(maker.certtool("dn = \"uid=ada,cn=Ada\"\n"))), ElementsAre("ada"));
}

TEST(X509Certificate, WithoutOtherTypesThereAreNoOthers)
{
    CertificateMaker maker;
    EXPECT_THAT(keysOf(subjectOf(maker.openssl("/CN=Ada"))), ElementsAre("CommonName"));
}

TEST(X509Certificate, LeavesIA5StringsOut)
{
    CertificateMaker maker;
    // domainComponent is of an unknown type and an IA5String too.
    EXPECT_THAT(keysOf(subjectOf(maker.openssl("/CN=Ada/emailAddress=ada@orvane.example/DC=example"))),
        ElementsAre("CommonName"));
    EXPECT_THAT(keysOf(subjectOf(maker.certtool("dn = \"cn=Ada,email=ada@orvane.example,dc=example\"\n"))),
        ElementsAre("CommonName"));
}

TEST(X509Certificate, AnEmptySubjectIsAnEmptyDictionary)
{
    const auto subject = subjectOf(CertificateMaker().openssl("/"));
    ASSERT_TRUE(subject);
    EXPECT_EQ(subject->count(), 0U);
    const auto bare = subjectOf(CertificateMaker().certtool("expiration_days = 10\n"));
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->count(), 0U);
}

TEST(X509Certificate, GivesSerialNumbersAsTheyAreEncoded)
{
    CertificateMaker maker;
    const auto serial = [&](const std::string& number) {
        return bytesOf(dictionaryOf(maker.openssl("/CN=Ada", {"-set_serial", number})), "SerialNumber");
    };
    EXPECT_EQ(serial("0"), (Bytes{0x00}));
    EXPECT_EQ(serial("-5"), (Bytes{0xFB}));
    EXPECT_EQ(serial("255"), (Bytes{0x00, 0xFF}));
    Bytes twenty(20, 0x11);
    twenty[0] = 0x7F;
    EXPECT_EQ(serial("0x7f" + std::string(38, '1')), twenty);
    EXPECT_EQ(
        bytesOf(dictionaryOf(maker.certtool("cn = Ada\nserial = 0x7f" + std::string(38, '1') + "\n")), "SerialNumber"),
        twenty);
}

TEST(X509Certificate, ATimeThatCannotBeMeantLeavesOnlyItsKeyOut)
{
    Authority authority;
    BundleOptions options;
    options.notBefore = "19550101000000Z";
    const auto dictionary = dictionaryOf(authority.issue(options).leaf);
    EXPECT_THAT(
        keysOf(dictionary), UnorderedElementsAre("SerialNumber", "Issuer", "Subject", "NotValidAfter", "PublicKey"));
}

TEST(X509Certificate, ReadsTimesAtTheEdgesOfTheirForms)
{
    Authority authority;
    BundleOptions options;
    options.notBefore = "19700101000000Z";
    options.notAfter = "20491231235959Z";
    auto dictionary = dictionaryOf(authority.issue(options).leaf);
    EXPECT_EQ(dictionary->objectAs<NSDate>("NotValidBefore"_ns)->timeIntervalSince1970(), 0);
    EXPECT_EQ(secondsOf(dictionary, "NotValidAfter"), 2524607999);
    options.notAfter = "20500101000000Z";
    dictionary = dictionaryOf(authority.issue(options).leaf);
    EXPECT_EQ(secondsOf(dictionary, "NotValidAfter"), 2524608000);
    // As certtool writes them.
    dictionary = dictionaryOf(CertificateMaker().certtool("cn = Ada\nactivation_date = \"1970-01-01 00:00:00 UTC\"\n"
                                                          "expiration_date = \"2050-01-01 00:00:00 UTC\"\n"));
    EXPECT_EQ(dictionary->objectAs<NSDate>("NotValidBefore"_ns)->timeIntervalSince1970(), 0);
    EXPECT_EQ(secondsOf(dictionary, "NotValidAfter"), 2524608000);
}

TEST(X509Certificate, WhatTheKeychainTakesForACertificateHasADictionary)
{
    const Bytes der = CertificateMaker().openssl("/O=Collegium+OU=Staff/CN=Ada");
    int taken = 0;
    for (std::size_t i = 0; i < der.size(); ++i) {
        for (const int change : {0x01, 0x20, 0x80, 0xFF}) {
            Bytes damaged = der;
            damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ change);
            const CSSM_DATA data{damaged.size(), damaged.data()};
            SecCertificateRef certificate;
            if (SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate)
                != errSecSuccess)
                continue;
            ++taken;
            EXPECT_TRUE(X509Certificate::extractCertDictFromCert(certificate)) << i;
        }
    }
    EXPECT_GT(taken, 100);
}

TEST(X509Certificate, TakesTheCertificateOfAnIdentity)
{
    const auto certificate = certificateFromDer(CertificateMaker().openssl("/CN=Ada"));
    const auto identity = makeRef<SecIdentity>(certificate, Ref<SecKey>());
    const auto dictionary = X509Certificate::extractCertDictFromIdentity(identity);
    ASSERT_TRUE(dictionary);
    EXPECT_TRUE(CFEqual(dictionary, X509Certificate::extractCertDictFromCert(certificate)));
    EXPECT_FALSE(X509Certificate::extractCertDictFromIdentity(nullptr));
}

class CertificateLibraryTest : public testing::Test {
protected:
    Ref<NSMutableDictionary> extract()
    {
        testing::internal::CaptureStderr();
        auto dictionary = X509Certificate::extractCertDictFromCert(certificate);
        printed = testing::internal::GetCapturedStderr();
        return dictionary;
    }

    static inline const std::vector<std::string> wholeRun = {"CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach",
        "CSSM_CL_CertGetAllFields", "CSSM_CL_FreeFields", "CSSM_ModuleDetach", "CSSM_ModuleUnload"};

    SecCertificateRef certificate = certificateFromDer(CertificateMaker().openssl("/CN=Ada"));
    RecordingCssm cssm;
    std::string printed;
};

TEST_F(CertificateLibraryTest, AttachesAnewForEachCertificateAndLeavesNothing)
{
    EXPECT_TRUE(extract());
    EXPECT_EQ(cssm.takeCalls(), wholeRun);
    EXPECT_TRUE(extract());
    EXPECT_EQ(cssm.takeCalls(), wholeRun);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(cssm.manager().moduleUnload(&gGuidAppleX509CL), CSSMERR_CSSM_MODULE_NOT_LOADED);
}

TEST_F(CertificateLibraryTest, AFailedStartIsPrintedAndTriedAgainNextTime)
{
    cssm.fail("CSSM_Init", CSSMERR_CSSM_INTERNAL_ERROR);
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "CSSM_Init: The security services manager failed for an internal reason.\n");
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init"));
    cssm.succeed("CSSM_Init");
    EXPECT_TRUE(extract());
}

TEST_F(CertificateLibraryTest, AFailedLoadIsPrinted)
{
    cssm.fail("CSSM_ModuleLoad", CSSMERR_CSSM_ADDIN_LOAD_FAILED);
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "CSSM_ModuleLoad: The security module could not be loaded.\n");
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_ModuleLoad"));
}

TEST_F(CertificateLibraryTest, AFailedAttachIsPrintedAndLeavesTheModuleLoaded)
{
    cssm.fail("CSSM_ModuleAttach", CSSMERR_CSSM_ADDIN_AUTHENTICATE_FAILED);
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "CSSM_ModuleAttach: The security module could not be authenticated.\n");
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach"));
    EXPECT_EQ(cssm.manager().moduleUnload(&gGuidAppleX509CL), CSSM_OK);
}

TEST_F(CertificateLibraryTest, AFailedDetachStillUnloadsAndBothStepsArePrinted)
{
    cssm.fail("CSSM_ModuleDetach", CSSMERR_CSSM_INTERNAL_ERROR);
    cssm.fail("CSSM_ModuleUnload", CSSMERR_CSSM_ADDIN_UNLOAD_FAILED);
    EXPECT_TRUE(extract());
    EXPECT_EQ(printed,
        "CSSM_ModuleDetach: The security services manager failed for an internal reason.\n"
        "CSSM_ModuleUnload: The security module could not be unloaded; it is still in use.\n");
    EXPECT_EQ(cssm.takeCalls(), wholeRun);
}

TEST_F(CertificateLibraryTest, AFailedUnloadIsPrinted)
{
    cssm.fail("CSSM_ModuleUnload", CSSMERR_CSSM_MODULE_NOT_LOADED);
    EXPECT_TRUE(extract());
    EXPECT_EQ(printed, "CSSM_ModuleUnload: The security module is not loaded.\n");
}

TEST_F(CertificateLibraryTest, FieldsThatCannotBeReadGiveNilInSilence)
{
    cssm.fail("CSSM_CL_CertGetAllFields", CSSMERR_CL_UNKNOWN_FORMAT);
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "");
    EXPECT_THAT(cssm.takeCalls(),
        ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach", "CSSM_CL_CertGetAllFields",
            "CSSM_ModuleDetach", "CSSM_ModuleUnload"));
}

TEST_F(CertificateLibraryTest, ACertificateWithoutBytesGivesNilInSilence)
{
    certificate = nullptr;
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "");
    EXPECT_THAT(cssm.takeCalls(),
        ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach", "CSSM_ModuleDetach", "CSSM_ModuleUnload"));
}

TEST_F(CertificateLibraryTest, AttachesAsItselfWithMemoryOfItsOwn)
{
    struct Cssm final : RecordingCssm {
        CSSM_RETURN init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
            CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved) override
        {
            EXPECT_EQ(version->Major, 2U);
            EXPECT_EQ(version->Minor, 0U);
            EXPECT_EQ(scope, CSSM_PRIVILEGE_SCOPE_NONE);
            EXPECT_EQ(*callerGuid, (CSSM_GUID{0xFADE, 0, 0, {1, 2, 3, 4, 5, 6, 7, 0}}));
            EXPECT_EQ(keyHierarchy, CSSM_KEY_HIERARCHY_NONE);
            EXPECT_EQ(*pvcPolicy, CSSM_PVC_NONE);
            EXPECT_EQ(reserved, nullptr);
            return RecordingCssm::init(version, scope, callerGuid, keyHierarchy, pvcPolicy, reserved);
        }
        CSSM_RETURN moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
            const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
            CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
            std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle) override
        {
            EXPECT_EQ(*moduleGuid, gGuidAppleX509CL);
            EXPECT_EQ(version->Major, 2U);
            EXPECT_EQ(version->Minor, 0U);
            EXPECT_EQ(memoryFuncs->AllocRef, nullptr);
            EXPECT_EQ(subserviceID, 0U);
            EXPECT_EQ(subserviceType, CSSM_SERVICE_CL);
            EXPECT_EQ(attachFlags, 0U);
            EXPECT_EQ(keyHierarchy, CSSM_KEY_HIERARCHY_NONE);
            EXPECT_EQ(functionTable, nullptr);
            EXPECT_EQ(numFunctionTable, 0U);
            EXPECT_EQ(reserved, nullptr);
            auto* memory = static_cast<std::uint8_t*>(memoryFuncs->calloc_func(3, 5, nullptr));
            EXPECT_THAT(std::vector(memory, memory + 15), testing::Each(0));
            memory[14] = 7;
            memory = static_cast<std::uint8_t*>(memoryFuncs->realloc_func(memory, 4000, nullptr));
            EXPECT_EQ(memory[14], 7);
            memoryFuncs->free_func(memory, nullptr);
            return RecordingCssm::moduleAttach(moduleGuid, version, memoryFuncs, subserviceID, subserviceType,
                attachFlags, keyHierarchy, functionTable, numFunctionTable, reserved, moduleHandle);
        }
    } checking;
    EXPECT_TRUE(extract());
    EXPECT_EQ(checking.takeCalls(), wholeRun);
    EXPECT_THAT(cssm.takeCalls(), IsEmpty());
}

/// Fields that no certificate has, as a certificate library could hand them over.
class OddFieldsTest : public testing::Test {
protected:
    Ref<NSMutableDictionary> extract() { return X509Certificate::extractCertDictFromCert(certificate); }

    static CSSM_DATA dataOf(std::string& text) { return {text.size(), reinterpret_cast<std::uint8_t*>(text.data())}; }

    SecCertificateRef certificate = certificateFromDer(CertificateMaker().openssl("/CN=Ada"));
    FieldModule module;
    std::string ada = "Ada";
    std::string time = "081231235959Z";
    CSSM_X509_TYPE_VALUE_PAIR pair{CSSMOID_CommonName, BER_TAG_UTF8_STRING, dataOf(ada)};
    CSSM_X509_RDN rdn{1, &pair};
    CSSM_X509_NAME name{1, &rdn};
    CSSM_X509_TIME date{BER_TAG_UTC_TIME, dataOf(time)};
    CSSM_X509_SUBJECT_PUBLIC_KEY_INFO publicKey{{}, dataOf(ada)};
};

TEST_F(OddFieldsTest, NoFieldsMakeAnEmptyDictionary)
{
    const auto dictionary = extract();
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->count(), 0U);
}

TEST_F(OddFieldsTest, UnknownFieldsAreIgnored)
{
    std::string other = "\x55\x04\x03";
    module.fields = {fieldOf(CSSMOID_X509V1Version, name), fieldOf(dataOf(other), name), fieldOf(CSSM_OID{}, name),
        fieldOf(CSSM_OID{3, nullptr}, name)};
    EXPECT_EQ(extract()->count(), 0U);
}

TEST_F(OddFieldsTest, ValuesOfAnotherSizeAreIgnored)
{
    for (const CSSM_OID& oid : {CSSMOID_X509V1IssuerNameCStruct, CSSMOID_X509V1SubjectNameCStruct,
             CSSMOID_X509V1ValidityNotBefore, CSSMOID_X509V1ValidityNotAfter, CSSMOID_X509V1SubjectPublicKeyCStruct}) {
        for (const std::size_t length : {std::size_t{0}, sizeof name - 1, sizeof publicKey + 1})
            module.fields.push_back({oid, {length, reinterpret_cast<std::uint8_t*>(&name)}});
        module.fields.push_back({oid, {sizeof name, nullptr}});
        module.fields.push_back({oid, {sizeof date, nullptr}});
        module.fields.push_back({oid, {sizeof publicKey, nullptr}});
    }
    EXPECT_EQ(extract()->count(), 0U);
}

TEST_F(OddFieldsTest, AMalformedFieldLeavesTheOthers)
{
    time = "550101000000Z";
    date.time = dataOf(time);
    module.fields = {fieldOf(CSSMOID_X509V1ValidityNotBefore, date), fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
    EXPECT_THAT(keysOf(extract()), ElementsAre("Subject"));
}

TEST_F(OddFieldsTest, TheLaterOfTwoFieldsCounts)
{
    std::string grace = "Grace";
    CSSM_X509_TYPE_VALUE_PAIR laterPair{CSSMOID_CommonName, BER_TAG_UTF8_STRING, dataOf(grace)};
    CSSM_X509_RDN laterRdn{1, &laterPair};
    CSSM_X509_NAME later{1, &laterRdn};
    module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name), fieldOf(CSSMOID_X509V1SubjectNameCStruct, later)};
    EXPECT_EQ(textsOf(extract()->objectAs<NSDictionary>("Subject"_ns)),
        (std::map<std::string, std::string>{{"CommonName", "Grace"}}));
}

TEST_F(OddFieldsTest, AMalformedLaterFieldReplacesNothing)
{
    module.fields = {
        fieldOf(CSSMOID_X509V1SubjectNameCStruct, name), {CSSMOID_X509V1SubjectNameCStruct, {sizeof name, nullptr}}};
    EXPECT_THAT(keysOf(extract()), ElementsAre("Subject"));
}

TEST_F(OddFieldsTest, BytesMayBeMissing)
{
    publicKey.subjectPublicKey = {};
    module.fields = {{CSSMOID_X509V1SerialNumber, {}}, fieldOf(CSSMOID_X509V1SubjectPublicKeyCStruct, publicKey)};
    const auto dictionary = extract();
    EXPECT_EQ(bytesOf(dictionary, "SerialNumber"), Bytes());
    EXPECT_EQ(bytesOf(dictionary, "PublicKey"), Bytes());
}

TEST_F(OddFieldsTest, OnlyFiveStringTypesAreText)
{
    for (int tag = 0; tag < 256; ++tag) {
        pair.valueType = static_cast<CSSM_BER_TAG>(tag);
        module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
        const bool isText = tag == 12 || tag == 19 || tag == 20 || tag == 28 || tag == 30;
        EXPECT_EQ(extract()->objectAs<NSDictionary>("Subject"_ns)->count(), isText ? 1U : 0U) << tag;
    }
}

TEST_F(OddFieldsTest, StringsAreReadByTheirType)
{
    const auto rows = readVectors("strings.txt", 3);
    ASSERT_GT(rows.size(), 30U);
    for (const auto& row : rows) {
        std::string bytes = row[1];
        pair.valueType = static_cast<CSSM_BER_TAG>(std::stoi(row[0]));
        pair.value = dataOf(bytes);
        module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
        const auto texts = textsOf(extract()->objectAs<NSDictionary>("Subject"_ns));
        using Texts = std::map<std::string, std::string>;
        EXPECT_EQ(texts, row[2] == "none" ? Texts() : (Texts{{"CommonName", row[2]}}))
            << row[0] << ' ' << testing::PrintToString(row[1]);
    }
}

TEST_F(OddFieldsTest, ByteStringsThatAreNoTextAreDropped)
{
    std::string latin1 = "\xC5se";
    pair.value = dataOf(latin1);
    const auto text = [&](CSSM_BER_TAG tag) {
        pair.valueType = tag;
        module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
        return textsOf(extract()->objectAs<NSDictionary>("Subject"_ns));
    };
    using Texts = std::map<std::string, std::string>;
    for (const CSSM_BER_TAG tag : {BER_TAG_UTF8_STRING, BER_TAG_UNIVERSAL_STRING, BER_TAG_BMP_STRING})
        EXPECT_EQ(text(tag), Texts());
    for (const CSSM_BER_TAG tag : {BER_TAG_PRINTABLE_STRING, BER_TAG_T61_STRING})
        EXPECT_EQ(text(tag), (Texts{{"CommonName", "\xC3\x85se"}}));
    // A dropped value does not take an earlier one away.
    CSSM_X509_TYPE_VALUE_PAIR pairs[] = {{CSSMOID_CommonName, BER_TAG_UTF8_STRING, dataOf(ada)},
        {CSSMOID_CommonName, BER_TAG_UTF8_STRING, dataOf(latin1)}};
    rdn = {2, pairs};
    EXPECT_EQ(text(BER_TAG_UTF8_STRING), (Texts{{"CommonName", "Ada"}}));
    // Nor one that follows it in the same relative name.
    std::swap(pairs[0], pairs[1]);
    EXPECT_EQ(text(BER_TAG_UTF8_STRING), (Texts{{"CommonName", "Ada"}}));
}

TEST_F(OddFieldsTest, EmptyTextIsText)
{
    pair.value = {};
    module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
    EXPECT_EQ(textsOf(extract()->objectAs<NSDictionary>("Subject"_ns)),
        (std::map<std::string, std::string>{{"CommonName", ""}}));
}

TEST_F(OddFieldsTest, AttributeTypesAreComparedWhole)
{
    std::string longer = "\x55\x04\x03\x01";
    std::string shorter = "\x55\x04";
    std::string collective = "\x55\x04\x08\x01";
    CSSM_X509_TYPE_VALUE_PAIR pairs[] = {{dataOf(longer), BER_TAG_UTF8_STRING, dataOf(ada)},
        {dataOf(shorter), BER_TAG_UTF8_STRING, dataOf(ada)}, {dataOf(collective), BER_TAG_UTF8_STRING, dataOf(ada)},
        {{}, BER_TAG_UTF8_STRING, dataOf(ada)}};
    rdn = {4, pairs};
    module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
    const auto subject = extract()->objectAs<NSDictionary>("Subject"_ns);
    EXPECT_THAT(othersOf(subject), ElementsAre("Ada", "Ada", "Ada"));
    EXPECT_THAT(keysOf(subject), UnorderedElementsAre("CollectiveStateProvince", "Others"));
}

TEST_F(OddFieldsTest, FieldsThatCannotBeFreedSpoilNothing)
{
    module.freeingError = CSSMERR_CL_INTERNAL_ERROR;
    module.fields = {fieldOf(CSSMOID_X509V1SubjectNameCStruct, name)};
    testing::internal::CaptureStderr();
    EXPECT_THAT(keysOf(extract()), ElementsAre("Subject"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(OddFieldsTest, AnErrorOfTheLibraryGivesNil)
{
    module.error = CSSMERR_CL_MEMORY_ERROR;
    EXPECT_FALSE(extract());
}

} // namespace
} // namespace kf::test
