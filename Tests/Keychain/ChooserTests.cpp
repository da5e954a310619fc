#include "Foundation/NSException.h"
#include "Keychain/KeychainTools.h"
#include "Security/Presenter.h"
#include "Security/SFChooseIdentityPanel.h"
#include "Tests/Keychain/KeychainTest.h"

namespace {

using namespace kf::test;
using testing::ElementsAre;
using testing::IsEmpty;

/// A person in front of the chooser, who answers as told.
class Person final : public kf::Presenter {
public:
    Person() : before_(setCurrent(this)) { }
    ~Person() override { setCurrent(before_); }
    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override { return std::nullopt; }
    std::optional<std::size_t> chooseIdentity(const kf::IdentityQuestion& question) override
    {
        questions.push_back(question);
        return answer;
    }
    std::vector<std::string> namesOffered() const
    {
        std::vector<std::string> names;
        for (const auto& choice : questions.at(0).choices)
            names.push_back(toUTF8(choice.name));
        return names;
    }

    std::optional<std::size_t> answer;
    std::vector<kf::IdentityQuestion> questions;

private:
    kf::Presenter* before_;
};

Bundle issued(const char* name) { return authority().issue({.commonName = name}); }

class Chooser : public KeychainTest {
protected:
    Chooser()
    {
        for (const Bundle& bundle : {ada(), grace()})
            importBundle(bundle);
    }
    static const Bundle& ada()
    {
        static const Bundle bundle = issued("Ada Example");
        return bundle;
    }
    static const Bundle& grace()
    {
        static const Bundle bundle = issued("Grace Example");
        return bundle;
    }
    static const Bundle& keyless()
    {
        static const Bundle bundle = issued("Keyless Example");
        return bundle;
    }
    static Ref<NSArray> all()
    {
        return NSArray::arrayWithObjects(
            {certificateOf(ada().leaf), certificateOf(keyless().leaf), certificateOf(grace().leaf)});
    }

    Person person_;
};

TEST_F(Chooser, IsNotShownForNoCertificates)
{
    for (const Ref<NSArray>& none : {NSArray::array(), Ref<NSArray>()}) {
        lines_.clear();
        EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(none));
        EXPECT_THAT(lines_, ElementsAre("displayIdentityPanel didn't receive any certificates to display"));
    }
    EXPECT_THAT(person_.questions, IsEmpty());
}

TEST_F(Chooser, AsksWithTheMessageAndACancelButton)
{
    SFChooseIdentityPanel::sharedChooseIdentityPanel()->setAlternateButtonTitle("Another"_ns);
    KeychainTools::userSelectCertificateFromArray(all());
    ASSERT_EQ(person_.questions.size(), 1U);
    EXPECT_EQ(toUTF8(person_.questions[0].message), "Which personal certificate would you like to use?");
    EXPECT_EQ(toUTF8(person_.questions[0].alternateButton), "Cancel");
}

TEST_F(Chooser, OffersThoseWithAKeyInTheirOrder)
{
    KeychainTools::userSelectCertificateFromArray(
        NSArray::arrayWithObjects({certificateOf(keyless().leaf), certificateOf(grace().leaf),
            certificateOf(authority().root()), certificateOf(ada().leaf), certificateOf(grace().leaf)}));
    EXPECT_THAT(person_.namesOffered(), ElementsAre("Grace Example", "Ada Example", "Grace Example"));
    EXPECT_THAT(lines_, ElementsAre("User clicked Cancel in Choose Identity dialog"))
        << "and nothing of those left out";
}

TEST_F(Chooser, LooksForKeysInTheWholeListAndHeedsTheIdentityAlone)
{
    const auto identity = KeychainTools::identitiesForEmailAddress("ada@orvane.example"_ns)->objectAs<SecIdentity>(0);
    int calls = 0;
    platformCalls().createIdentity = [&](const Ref<NSObject>& keychain, const auto&, SecIdentityRef* made) -> OSStatus {
        EXPECT_FALSE(keychain);
        EXPECT_FALSE(*made) << "nothing is left of the certificate before";
        if (++calls == 2)
            return errSecSuccess;
        *made = identity;
        return errSecIO;
    };
    KeychainTools::userSelectCertificateFromArray(all());
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(person_.questions.at(0).choices.size(), 2U) << "the status is not looked at";
}

TEST_F(Chooser, IsShownEmptyWhereNoCertificateHasItsKey)
{
    EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(
        NSArray::arrayWithObjects({certificateOf(keyless().leaf), certificateOf(authority().root())})));
    ASSERT_EQ(person_.questions.size(), 1U);
    EXPECT_TRUE(person_.questions[0].choices.empty());
    EXPECT_THAT(lines_, ElementsAre("User clicked Cancel in Choose Identity dialog"));
}

TEST_F(Chooser, LeavesOutWhatIsNoCertificate)
{
    KeychainTools::userSelectCertificateFromArray(NSArray::arrayWithObjects({"text"_ns, certificateOf(ada().leaf)}));
    EXPECT_THAT(person_.namesOffered(), ElementsAre("Ada Example"));
}

TEST_F(Chooser, GivesTheCertificateThatIsChosen)
{
    person_.answer = 1;
    const auto chosen = KeychainTools::userSelectCertificateFromArray(all());
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->digest(), certificateOf(grace().leaf)->digest());
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Chooser, GivesNothingAndLogsItAtCancel)
{
    EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(all()));
    EXPECT_THAT(lines_, ElementsAre("User clicked Cancel in Choose Identity dialog"));
}

TEST_F(Chooser, IsCanceledWhereNobodyCanBeAsked)
{
    const auto before = kf::Presenter::setCurrent(nullptr);
    EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(all()));
    kf::Presenter::setCurrent(before);
    EXPECT_THAT(lines_, ElementsAre("User clicked Cancel in Choose Identity dialog"));
}

TEST_F(Chooser, GivesNothingWhereNoIdentityWasConfirmed)
{
    person_.answer = 99;
    platformCalls().copyCertificate = [](const auto&, auto*) -> OSStatus {
        ADD_FAILURE() << "there is no identity to ask";
        return errSecParam;
    };
    EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(all()));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Chooser, GivesWhatTheIdentityHasWhateverTheStatus)
{
    person_.answer = 0;
    const auto certificate = certificateOf(ada().leaf);
    platformCalls().copyCertificate = [&](const auto&, SecCertificateRef* copied) {
        *copied = certificate;
        return errSecIO;
    };
    EXPECT_EQ(KeychainTools::userSelectCertificateFromArray(all()), certificate);
    platformCalls().copyCertificate = [](const auto&, auto*) { return errSecIO; };
    EXPECT_FALSE(KeychainTools::userSelectCertificateFromArray(all()));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(Chooser, RaisesWhereTheArrayChangesWhileItIsWalked)
{
    const auto changing = NSMutableArray::array();
    changing->addObject(certificateOf(ada().leaf));
    changing->addObject(certificateOf(grace().leaf));
    platformCalls().createIdentity = [&](const auto&, const auto& certificate, auto*) {
        changing->addObject(certificate);
        return errSecItemNotFound;
    };
    EXPECT_THROW(KeychainTools::userSelectCertificateFromArray(changing), NSRaisedException);
    EXPECT_THAT(person_.questions, IsEmpty());
}

} // namespace
