#include "Keychain/KeychainTools.h"
#include "Tests/Keychain/KeychainTest.h"

namespace {

using namespace kf::test;
using kf::keychain::Operation;
using testing::ElementsAre;
using testing::IsEmpty;

class CertificateTools : public KeychainTest { };

TEST_F(CertificateTools, MakeACertificateFromItsBytes)
{
    const auto certificate = KeychainTools::createCertificateWithData(dataOf(authority().root()));
    ASSERT_TRUE(certificate);
    CSSM_DATA data;
    ASSERT_EQ(SecCertificateGetData(certificate, &data), errSecSuccess);
    EXPECT_EQ(Bytes(data.Data, data.Data + data.Length), authority().root());
    EXPECT_FALSE(certificate->keychain());
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificateTools, AskForAnX509CertificateInDER)
{
    CSSM_CERT_TYPE asked = 0;
    CSSM_CERT_ENCODING encoding = 0;
    platformCalls().createCertificate = [&](const CSSM_DATA*, CSSM_CERT_TYPE type, CSSM_CERT_ENCODING as, auto*) {
        asked = type;
        encoding = as;
        return errSecInternalComponent;
    };
    EXPECT_FALSE(KeychainTools::createCertificateWithData(dataOf(authority().root())));
    EXPECT_EQ(asked, 3U);
    EXPECT_EQ(encoding, 3U);
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificateTools, MakeNothingOfOtherBytes)
{
    Bytes longer = authority().root();
    longer.push_back(0);
    Bytes shorter = authority().root();
    shorter.pop_back();
    EXPECT_FALSE(KeychainTools::createCertificateWithData(nullptr));
    EXPECT_FALSE(KeychainTools::createCertificateWithData(NSData::data()));
    EXPECT_FALSE(KeychainTools::createCertificateWithData(dataOf({'n', 'o', 'n', 'e'})));
    EXPECT_FALSE(KeychainTools::createCertificateWithData(dataOf(longer)));
    EXPECT_FALSE(KeychainTools::createCertificateWithData(dataOf(shorter)));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificateTools, FindTwoHandlesOfOneCertificateEqual)
{
    const auto one = certificateOf(authority().root());
    const auto two = certificateOf(authority().root());
    EXPECT_TRUE(KeychainTools::certificateIsEqualToCertificate(one, two));
    EXPECT_FALSE(KeychainTools::certificateIsEqualToCertificate(one, certificateOf(authority().issuer())));
    std::vector<CSSM_ALGORITHMS> algorithms;
    platformCalls().createDigestContext = [&](CSSM_ALGORITHMS algorithm) {
        algorithms.push_back(algorithm);
        return CSSM_OK;
    };
    EXPECT_TRUE(KeychainTools::certificateIsEqualToCertificate(one, two));
    EXPECT_THAT(algorithms, ElementsAre(CSSM_ALGID_SHA1, CSSM_ALGID_SHA1));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(CertificateTools, FindNothingEqualToNil)
{
    const auto certificate = certificateOf(authority().root());
    EXPECT_FALSE(KeychainTools::certificateIsEqualToCertificate(certificate, nullptr));
    EXPECT_FALSE(KeychainTools::certificateIsEqualToCertificate(nullptr, certificate));
    EXPECT_FALSE(KeychainTools::certificateIsEqualToCertificate(nullptr, nullptr));
}

TEST_F(CertificateTools, FindACertificateWithoutBytesUnequalToItself)
{
    const auto certificate = certificateOf(authority().root());
    platformCalls().certificateData = [](const SecCertificateRef&, CSSM_DATA*) { return errSecInvalidItemRef; };
    EXPECT_FALSE(KeychainTools::certificateIsEqualToCertificate(certificate, certificate));
    const std::string line = lineOf("DFC:SecCertificateGetData: ", errSecInvalidItemRef);
    EXPECT_THAT(lines_, ElementsAre(line, line));
}

/// A certificate in the default keychain, as an item.
class AttributeTools : public KeychainTest {
protected:
    AttributeTools()
    {
        addCertificate(authority().root(), defaultPath());
        SecKeychainSearchRef search;
        SecKeychainSearchCreateFromAttributes(nullptr, kSecCertificateItemClass, nullptr, &search);
        EXPECT_EQ(SecKeychainSearchCopyNext(search, &item_), errSecSuccess);
        lines_.clear();
    }
    std::string label()
    {
        const auto data = KeychainTools::readAttribute(kSecLabelItemAttr, item_);
        return data ? std::string(data->span().begin(), data->span().end()) : "(nil)";
    }

    SecKeychainItemRef item_;
};

TEST_F(AttributeTools, ReadAnAttributeAndLogSuccessToo)
{
    EXPECT_EQ(label(), "Orvane Certification Authority");
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecSuccess), "Got 1 attribute(s)"));
}

TEST_F(AttributeTools, ReadNothingThatTheItemLacks)
{
    EXPECT_FALSE(KeychainTools::readAttribute(fourCharacterCode("none"), item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecNoSuchAttr)));
}

TEST_F(AttributeTools, ReadNothingFromNilOrFromADeletedItem)
{
    ASSERT_EQ(SecKeychainItemDelete(item_), errSecSuccess);
    EXPECT_FALSE(KeychainTools::readAttribute(kSecLabelItemAttr, item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecInvalidItemRef)));
    lines_.clear();
    EXPECT_FALSE(KeychainTools::readAttribute(kSecLabelItemAttr, nullptr));
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecInvalidItemRef)));
}

TEST_F(AttributeTools, AskForTheAttributeAloneAndFreeTheList)
{
    std::uint8_t value[] = {'a', 0, 'b'};
    SecKeychainAttribute attribute{kSecAliasItemAttr, sizeof value, value};
    SecKeychainAttributeList list{1, &attribute};
    int frees = 0;
    platformCalls().copyAttributes = [&](const auto& item, const SecKeychainAttributeInfo* info,
                                         SecItemClass* itemClass, SecKeychainAttributeList** attributes,
                                         std::uint32_t* length, void** data) {
        EXPECT_EQ(item, item_);
        EXPECT_EQ(info->count, 1U);
        EXPECT_EQ(*info->tag, kSecAliasItemAttr);
        EXPECT_EQ(*info->format, CSSM_DB_ATTRIBUTE_FORMAT_STRING);
        EXPECT_EQ(itemClass, nullptr);
        EXPECT_EQ(length, nullptr);
        EXPECT_EQ(data, nullptr);
        *attributes = &list;
        return errSecSuccess;
    };
    platformCalls().freeAttributes = [&](SecKeychainAttributeList* attributes, void* data) {
        EXPECT_EQ(attributes, &list);
        EXPECT_EQ(data, nullptr);
        ++frees;
        return errSecSuccess;
    };
    const auto read = KeychainTools::readAttribute(kSecAliasItemAttr, item_);
    ASSERT_TRUE(read);
    EXPECT_EQ(Bytes(read->span().begin(), read->span().end()), Bytes({'a', 0, 'b'}));
    EXPECT_EQ(frees, 1);
}

TEST_F(AttributeTools, ReadNothingFromAListThatIsEmpty)
{
    SecKeychainAttributeList list{0, nullptr};
    platformCalls().copyAttributes = [&](const auto&, auto*, auto*, SecKeychainAttributeList** attributes, auto*,
                                         auto*) {
        *attributes = &list;
        return errSecSuccess;
    };
    platformCalls().freeAttributes = [](auto*, auto*) { return errSecIO; };
    EXPECT_FALSE(KeychainTools::readAttribute(kSecLabelItemAttr, item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecSuccess), "Got 0 attribute(s)"))
        << "and nothing of the list that could not be freed";
}

TEST_F(AttributeTools, ReadAnAttributeThatCameWithAnError)
{
    std::uint8_t value[] = {'a'};
    SecKeychainAttribute attribute{kSecLabelItemAttr, sizeof value, value};
    SecKeychainAttributeList list{1, &attribute};
    platformCalls().copyAttributes = [&](const auto&, auto*, auto*, SecKeychainAttributeList** attributes, auto*,
                                         auto*) {
        *attributes = &list;
        return errSecIO;
    };
    platformCalls().freeAttributes = [](auto*, auto*) { return errSecSuccess; };
    EXPECT_EQ(label(), "a") << "the list decides, not the status";
    EXPECT_THAT(lines_, ElementsAre(lineOf("Got error ", errSecIO), "Got 1 attribute(s)"));
}

TEST_F(AttributeTools, WriteAnAttributeAndLogSuccessToo)
{
    EXPECT_TRUE(KeychainTools::modifyAttribute(kSecLabelItemAttr, dataOf({'n', 'e', 'w'}), item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("", errSecSuccess)));
    EXPECT_EQ(label(), "new");
}

TEST_F(AttributeTools, WriteNothingThatIsRefused)
{
    EXPECT_FALSE(KeychainTools::modifyAttribute(kSecSubjectItemAttr, dataOf({'x'}), item_));
    EXPECT_FALSE(KeychainTools::modifyAttribute(fourCharacterCode("none"), dataOf({'x'}), item_));
    EXPECT_THAT(lines_, ElementsAre(lineOf("", errSecReadOnlyAttr), lineOf("", errSecNoSuchAttr)));
    EXPECT_EQ(label(), "Orvane Certification Authority");
}

TEST_F(AttributeTools, LeaveTheItemWhereWritingFails)
{
    faults_->arm(Operation::setLabel, 1, errSecIO);
    EXPECT_FALSE(KeychainTools::modifyAttribute(kSecLabelItemAttr, dataOf({'n', 'e', 'w'}), item_));
    EXPECT_TRUE(faults_->fired());
    EXPECT_THAT(lines_, ElementsAre(lineOf("", errSecIO)));
    EXPECT_EQ(label(), "Orvane Certification Authority");
    faults_->disarm();
    EXPECT_TRUE(KeychainTools::modifyAttribute(kSecLabelItemAttr, dataOf({'n', 'e', 'w'}), item_));
    EXPECT_EQ(label(), "new");
}

TEST_F(AttributeTools, PassAnEmptyValueAsZeroLength)
{
    int calls = 0;
    platformCalls().modifyAttributes = [&](const auto&, const SecKeychainAttributeList* list, std::uint32_t length,
                                           const void* data) {
        ++calls;
        EXPECT_EQ(list->count, 1U);
        EXPECT_EQ(list->attr[0].tag, kSecLabelItemAttr);
        EXPECT_EQ(list->attr[0].length, 0U);
        EXPECT_EQ(length, 0U);
        EXPECT_EQ(data, nullptr);
        return errSecSuccess;
    };
    EXPECT_TRUE(KeychainTools::modifyAttribute(kSecLabelItemAttr, NSData::data(), item_));
    EXPECT_TRUE(KeychainTools::modifyAttribute(kSecLabelItemAttr, nullptr, item_));
    EXPECT_EQ(calls, 2);
}

TEST_F(AttributeTools, TellTheReadableName)
{
    EXPECT_EQ(toUTF8(KeychainTools::getReadableNameFromCertificate(item_)), "Orvane Certification Authority");
    EXPECT_THAT(lines_, ElementsAre("Certificate name retrieved: Orvane Certification Authority"));
}

TEST_F(AttributeTools, TellNoNameWhereTheLabelCannotBeRead)
{
    ASSERT_EQ(SecKeychainItemDelete(item_), errSecSuccess);
    EXPECT_FALSE(KeychainTools::getReadableNameFromCertificate(item_));
    EXPECT_FALSE(KeychainTools::getReadableNameFromCertificate(nullptr));
    EXPECT_THAT(lines_,
        ElementsAre(lineOf("SecKeychainItemCopyAttributesAndData failed: ", errSecInvalidItemRef),
            lineOf("SecKeychainItemCopyAttributesAndData failed: ", errSecInvalidItemRef)));
}

/// The readable name of a certificate with some label.
class ReadableName : public KeychainTest {
protected:
    std::string nameOf(std::string label, std::uint32_t* lengthLeft = nullptr)
    {
        SecKeychainAttribute attribute{kSecLabelItemAttr, static_cast<std::uint32_t>(label.size()), label.data()};
        SecKeychainAttributeList list{1, &attribute};
        int frees = 0;
        platformCalls().copyAttributes = [&](const auto&, const SecKeychainAttributeInfo* info, auto*,
                                             SecKeychainAttributeList** attributes, auto*, auto*) {
            EXPECT_EQ(*info->tag, kSecLabelItemAttr);
            *attributes = &list;
            return errSecSuccess;
        };
        platformCalls().freeAttributes = [&](SecKeychainAttributeList*, void*) {
            ++frees;
            return errSecSuccess;
        };
        const auto name = KeychainTools::getReadableNameFromCertificate(certificateOf(authority().root()));
        EXPECT_EQ(frees, 1);
        if (lengthLeft)
            *lengthLeft = attribute.length;
        return toUTF8(name);
    }
};

TEST_F(ReadableName, IsCutTo255Bytes)
{
    std::uint32_t length = 0;
    EXPECT_EQ(nameOf(std::string(300, 'x'), &length), std::string(255, 'x'));
    EXPECT_EQ(length, 255U);
    EXPECT_EQ(nameOf(std::string(255, 'y')), std::string(255, 'y'));
}

TEST_F(ReadableName, EndsAtAZeroByte)
{
    EXPECT_EQ(nameOf(std::string("before\0after", 12)), "before");
    EXPECT_EQ(nameOf(std::string("\0after", 6)), "");
}

TEST_F(ReadableName, IsReadAsMacOSRoman)
{
    EXPECT_EQ(nameOf("Zo\xC3\xAB"), "Zo\u221A\u00B4");
    EXPECT_THAT(lines_, ElementsAre("Certificate name retrieved: Zo\u221A\u00B4"));
}

TEST_F(ReadableName, MayBeEmpty) { EXPECT_EQ(nameOf(""), ""); }

class StringForErrorCode : public KeychainTest { };

TEST_F(StringForErrorCode, IsThePlatformsText)
{
    for (const OSStatus status : {errSecItemNotFound, errSecPkcs12VerifyFailure, errSecSuccess}) {
        const auto text = KeychainTools::stringForErrorCode(status);
        EXPECT_TRUE(CFEqual(text, platformText(status)));
        EXPECT_GT(text->length(), 0);
    }
}

TEST_F(StringForErrorCode, IsTheDecimalCodeWhereThePlatformHasNone)
{
    platformCalls().errorMessage = [](OSStatus) -> Ref<NSString> { return nullptr; };
    EXPECT_EQ(toUTF8(KeychainTools::stringForErrorCode(-25300)), "-25300");
    EXPECT_EQ(toUTF8(KeychainTools::stringForErrorCode(INT32_MIN)), "-2147483648");
}

TEST_F(StringForErrorCode, IsACopy)
{
    const auto changing = NSMutableString::stringWithString("text"_ns);
    platformCalls().errorMessage = [&](OSStatus) -> Ref<NSString> { return changing; };
    const auto text = KeychainTools::stringForErrorCode(1);
    changing->appendString(" changed"_ns);
    EXPECT_EQ(toUTF8(text), "text");
}

} // namespace
