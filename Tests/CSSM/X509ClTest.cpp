#include "Security/CSSM/CssmManager.h"
#include "Security/cssmoids.h"
#include "Security/x509defs.h"
#include "Tests/CSSM/CssmTestSupport.h"
#include "Tests/Support/Fixtures.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace kf::test {
namespace {

using testing::ElementsAre;

std::string text(const CSSM_DATA& data) { return {reinterpret_cast<const char*>(data.Data), data.Length}; }

class X509ClTest : public testing::Test {
protected:
    X509ClTest()
    {
        manager.registerModule(gGuidAppleX509CL, makeX509ClModule());
        EXPECT_EQ(initialize(), CSSM_OK);
        EXPECT_EQ(load(gGuidAppleX509CL), CSSM_OK);
        EXPECT_EQ(attach(gGuidAppleX509CL, CSSM_SERVICE_CL, memory, &cl), CSSM_OK);
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-cl-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        directory = pattern;
    }
    ~X509ClTest() override
    {
        EXPECT_EQ(memory.live(), 0U);
        EXPECT_EQ(CSSM_ModuleDetach(cl), CSSM_OK);
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    Bytes certificate(std::vector<std::string> options = {})
    {
        const std::string file = (directory / "certificate").string();
        std::vector<std::string> command = {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
            "ec_paramgen_curve:P-256", "-noenc", "-keyout", "/dev/null", "-outform", "DER", "-out", file, "-subj",
            "/C=NO/O=Orvane Collegium+OU=Staff/CN=Ada", "-set_serial", "0x1234567890"};
        command.insert(command.end(), options.begin(), options.end());
        mustRun(command);
        return readFile(file);
    }

    CSSM_RETURN getFields(const Bytes& der)
    {
        const CSSM_DATA data = dataOf(der);
        return CSSM_CL_CertGetAllFields(cl, &data, &count, &fields);
    }
    void freeFields() { EXPECT_EQ(CSSM_CL_FreeFields(cl, count, &fields), CSSM_OK); }

    template <class T>
    const T& valueAs(std::size_t index) const
    {
        EXPECT_EQ(fields[index].FieldValue.Length, sizeof(T));
        return *reinterpret_cast<const T*>(fields[index].FieldValue.Data);
    }

    CssmManager manager;
    ScopedCssmService installed{manager};
    CountingMemory memory;
    CSSM_MODULE_HANDLE cl = 0;
    std::filesystem::path directory;
    std::uint32_t count = 0;
    CSSM_FIELD* fields = nullptr;
};

TEST_F(X509ClTest, GivesTheFieldsInTheirOrder)
{
    ASSERT_EQ(getFields(certificate()), CSSM_OK);
    std::vector<std::string> found;
    for (const CSSM_FIELD& field : std::span(fields, count))
        found.push_back(hex(field.FieldOid));
    EXPECT_THAT(found,
        ElementsAre(hex(CSSMOID_X509V1Version), hex(CSSMOID_X509V1SerialNumber), hex(CSSMOID_X509V1IssuerNameCStruct),
            hex(CSSMOID_X509V1ValidityNotBefore), hex(CSSMOID_X509V1ValidityNotAfter),
            hex(CSSMOID_X509V1SubjectNameCStruct), hex(CSSMOID_X509V1SubjectPublicKeyCStruct)));
    EXPECT_EQ(hex(fields[0].FieldValue), "02");
    EXPECT_EQ(hex(fields[1].FieldValue), "1234567890");
    freeFields();
    EXPECT_EQ(fields, nullptr);
}

TEST_F(X509ClTest, DecodesNames)
{
    ASSERT_EQ(getFields(certificate()), CSSM_OK);
    const auto& subject = valueAs<CSSM_X509_NAME>(5);
    ASSERT_EQ(subject.numberOfRDNs, 3U);
    const auto& country = subject.RelativeDistinguishedName[0];
    ASSERT_EQ(country.numberOfPairs, 1U);
    EXPECT_EQ(hex(country.AttributeTypeAndValue[0].type), hex(CSSMOID_CountryName));
    EXPECT_EQ(country.AttributeTypeAndValue[0].valueType, BER_TAG_PRINTABLE_STRING);
    EXPECT_EQ(text(country.AttributeTypeAndValue[0].value), "NO");
    const auto& organization = subject.RelativeDistinguishedName[1];
    ASSERT_EQ(organization.numberOfPairs, 2U);
    // DER sorts the attributes of one relative name.
    EXPECT_EQ(hex(organization.AttributeTypeAndValue[0].type), hex(CSSMOID_OrganizationalUnitName));
    EXPECT_EQ(text(organization.AttributeTypeAndValue[0].value), "Staff");
    EXPECT_EQ(hex(organization.AttributeTypeAndValue[1].type), hex(CSSMOID_OrganizationName));
    EXPECT_EQ(organization.AttributeTypeAndValue[1].valueType, BER_TAG_UTF8_STRING);
    EXPECT_EQ(text(organization.AttributeTypeAndValue[1].value), "Orvane Collegium");
    EXPECT_EQ(valueAs<CSSM_X509_NAME>(2).numberOfRDNs, 3U);
    freeFields();
}

TEST_F(X509ClTest, DecodesTimesAndThePublicKey)
{
    ASSERT_EQ(getFields(certificate({"-days", "20000"})), CSSM_OK);
    const auto& notBefore = valueAs<CSSM_X509_TIME>(3);
    EXPECT_EQ(notBefore.timeType, BER_TAG_UTC_TIME);
    EXPECT_EQ(notBefore.time.Length, 13U);
    const auto& notAfter = valueAs<CSSM_X509_TIME>(4);
    EXPECT_EQ(notAfter.timeType, BER_TAG_GENERALIZED_TIME);
    EXPECT_EQ(notAfter.time.Length, 15U);
    EXPECT_EQ(text(notAfter.time).substr(0, 2), "20");
    const auto& key = valueAs<CSSM_X509_SUBJECT_PUBLIC_KEY_INFO>(6);
    EXPECT_EQ(hex(key.algorithm.algorithm), "2a8648ce3d0201");
    EXPECT_EQ(hex(key.algorithm.parameters), "06082a8648ce3d030107");
    ASSERT_EQ(key.subjectPublicKey.Length, 65U);
    EXPECT_EQ(key.subjectPublicKey.Data[0], 4);
    freeFields();
}

TEST_F(X509ClTest, AlgorithmsWithoutParametersHaveNone)
{
    const std::string key = (directory / "key").string();
    mustRun({"openssl", "genpkey", "-algorithm", "ed25519", "-out", key});
    const std::string file = (directory / "certificate").string();
    mustRun({"openssl", "req", "-x509", "-key", key, "-outform", "DER", "-out", file, "-subj", "/"});
    ASSERT_EQ(getFields(readFile(file)), CSSM_OK);
    EXPECT_EQ(valueAs<CSSM_X509_NAME>(5).numberOfRDNs, 0U);
    const auto& info = valueAs<CSSM_X509_SUBJECT_PUBLIC_KEY_INFO>(6);
    EXPECT_EQ(hex(info.algorithm.algorithm), "2b6570");
    EXPECT_EQ(info.algorithm.parameters.Length, 0U);
    EXPECT_EQ(info.algorithm.parameters.Data, nullptr);
    EXPECT_EQ(info.subjectPublicKey.Length, 32U);
    freeFields();
}

TEST_F(X509ClTest, AVersion1CertificateHasNoVersion)
{
    const std::string file = (directory / "certificate").string();
    const std::string request = (directory / "request").string();
    const std::string key = (directory / "key").string();
    mustRun({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-keyout", key, "-out",
        request, "-subj", "/CN=v1"});
    mustRun({"openssl", "x509", "-req", "-in", request, "-signkey", key, "-outform", "DER", "-out", file});
    ASSERT_EQ(getFields(readFile(file)), CSSM_OK);
    ASSERT_EQ(count, 6U);
    EXPECT_EQ(hex(fields[0].FieldOid), hex(CSSMOID_X509V1SerialNumber));
    freeFields();
}

TEST_F(X509ClTest, EverythingComesFromTheApplicationsMemory)
{
    ASSERT_EQ(getFields(certificate()), CSSM_OK);
    EXPECT_TRUE(memory.owns(fields));
    for (const CSSM_FIELD& field : std::span(fields, count))
        EXPECT_TRUE(memory.owns(field.FieldValue.Data));
    EXPECT_EQ(memory.live(), 8U);
    freeFields();
    EXPECT_EQ(memory.live(), 0U);
}

TEST_F(X509ClTest, NothingIsLeftWhereTheApplicationRunsOutOfMemory)
{
    const Bytes der = certificate();
    for (std::size_t successes = 0; successes < 8; ++successes) {
        memory.failAfter(successes);
        count = 42;
        EXPECT_EQ(getFields(der), CSSMERR_CL_MEMORY_ERROR) << successes;
        EXPECT_EQ(memory.live(), 0U);
        EXPECT_EQ(count, 42U);
        EXPECT_EQ(fields, nullptr);
    }
    memory.failAfter(8);
    EXPECT_EQ(getFields(der), CSSM_OK);
    freeFields();
}

TEST_F(X509ClTest, RefusesMissingPointers)
{
    const CSSM_DATA data = dataOf("x");
    const CSSM_DATA unreadable{1, nullptr};
    EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, nullptr, &count, &fields), CSSMERR_CL_INVALID_CERT_POINTER);
    EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, &unreadable, &count, &fields), CSSMERR_CL_INVALID_CERT_POINTER);
    EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, &data, nullptr, &fields), CSSMERR_CL_INVALID_POINTER);
    EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, &data, &count, nullptr), CSSMERR_CL_INVALID_POINTER);
    EXPECT_EQ(CSSM_CL_FreeFields(cl, 0, nullptr), CSSMERR_CL_INVALID_FIELD_POINTER);
    EXPECT_EQ(CSSM_CL_FreeFields(cl, 0, &fields), CSSMERR_CL_INVALID_FIELD_POINTER);
}

TEST_F(X509ClTest, FieldsAreFreedOnceOnly)
{
    ASSERT_EQ(getFields(certificate()), CSSM_OK);
    freeFields();
    EXPECT_EQ(CSSM_CL_FreeFields(cl, count, &fields), CSSMERR_CL_INVALID_FIELD_POINTER);
}

TEST_F(X509ClTest, ACutOffOrLengthenedCertificateIsNone)
{
    Bytes der = certificate();
    for (std::size_t length = 0; length < der.size(); ++length) {
        const Bytes part(der.begin(), der.begin() + static_cast<std::ptrdiff_t>(length));
        CSSM_DATA data = dataOf(part);
        if (part.empty())
            data.Data = der.data();
        EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, &data, &count, &fields), CSSMERR_CL_UNKNOWN_FORMAT) << length;
    }
    der.push_back(0);
    EXPECT_EQ(getFields(der), CSSMERR_CL_UNKNOWN_FORMAT);
    EXPECT_EQ(memory.given(), 0U);
}

TEST_F(X509ClTest, DamageIsEitherFoundOrHarmless)
{
    const Bytes der = certificate();
    int refused = 0;
    for (std::size_t i = 0; i < der.size(); ++i) {
        for (const int change : {0x01, 0x20, 0x80, 0xFF}) {
            Bytes damaged = der;
            damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ change);
            const CSSM_RETURN error = getFields(damaged);
            if (error == CSSM_OK)
                freeFields();
            else
                EXPECT_EQ(error, CSSMERR_CL_UNKNOWN_FORMAT);
            refused += error == CSSM_OK ? 0 : 1;
        }
    }
    EXPECT_GT(refused, 100);
}

/// The first place of `from` in a certificate holds `to`, which is as long.
Bytes changed(Bytes der, const Bytes& from, const Bytes& to)
{
    const auto place = std::search(der.begin(), der.end(), from.begin(), from.end());
    if (place == der.end() || from.size() != to.size())
        throw std::runtime_error("a fixture lacks what is to be changed in it");
    std::copy(to.begin(), to.end(), place);
    return der;
}

TEST_F(X509ClTest, PartsThatHoldMoreThanTheirsAreNone)
{
    const Bytes der = certificate();
    const Bytes ada = {0x0C, 0x03, 'A', 'd', 'a'};
    EXPECT_EQ(getFields(changed(der, ada, {0x0C, 0x01, 'A', 0x05, 0x00})), CSSMERR_CL_UNKNOWN_FORMAT)
        << "an attribute of type, value and NULL";
    const Bytes utcTime = {0x17, 0x0D};
    const auto time = std::search(der.begin(), der.end(), utcTime.begin(), utcTime.end());
    Bytes threeTimes(time, time + 15);
    threeTimes[1] = 0x0B;
    threeTimes[13] = 0x05;
    threeTimes[14] = 0x00;
    EXPECT_EQ(getFields(changed(der, {time, time + 15}, threeTimes)), CSSMERR_CL_UNKNOWN_FORMAT)
        << "a validity of two times and NULL";
    const Bytes extensions = {0xA3, 0x53, 0x30, 0x51};
    EXPECT_EQ(getFields(changed(der, extensions, {0xA4, 0x53, 0x30, 0x51})), CSSMERR_CL_UNKNOWN_FORMAT)
        << "a part that no certificate has";
}

TEST_F(X509ClTest, AValueKeepsItsWholeTag)
{
    ASSERT_EQ(getFields(changed(certificate(), {0x0C, 0x03, 'A', 'd', 'a'}, {0x8C, 0x03, 'A', 'd', 'a'})), CSSM_OK);
    const auto& issuer = valueAs<CSSM_X509_NAME>(2);
    EXPECT_EQ(issuer.RelativeDistinguishedName[2].AttributeTypeAndValue[0].valueType, 0x8C);
    freeFields();
}

TEST_F(X509ClTest, OtherDerIsNoCertificate)
{
    const std::string key = (directory / "key").string();
    mustRun({"openssl", "genpkey", "-algorithm", "ed25519", "-outform", "DER", "-out", key});
    EXPECT_EQ(getFields(readFile(key)), CSSMERR_CL_UNKNOWN_FORMAT);
    EXPECT_EQ(getFields({0x30, 0x00}), CSSMERR_CL_UNKNOWN_FORMAT);
    EXPECT_EQ(getFields({0x30, 0x80, 0x00, 0x00}), CSSMERR_CL_UNKNOWN_FORMAT);
    EXPECT_EQ(getFields({0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}), CSSMERR_CL_UNKNOWN_FORMAT);
}

} // namespace
} // namespace kf::test
