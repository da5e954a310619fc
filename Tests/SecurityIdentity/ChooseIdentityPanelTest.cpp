// The identity chooser as its callers see it, with a person who answers as told.

#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/Presenter.h"
#include "Security/SFChooseIdentityPanel.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>

namespace {

using namespace kf::test;

/// A presenter of before there were choosers.
class OlderPresenter : public kf::Presenter {
public:
    OlderPresenter() : before_(setCurrent(this)) { }
    ~OlderPresenter() override { setCurrent(before_); }
    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override { return std::nullopt; }

private:
    kf::Presenter* before_;
};

class Person final : public OlderPresenter {
public:
    std::optional<std::size_t> chooseIdentity(const kf::IdentityQuestion& question) override
    {
        questions.push_back(question);
        return answer;
    }
    std::optional<std::size_t> answer;
    std::vector<kf::IdentityQuestion> questions;
};

class ChooseIdentityPanel : public testing::Test {
protected:
    ChooseIdentityPanel() { memory_->create(home_.defaultKeychain().string()); }

    static Authority& authority()
    {
        static Authority instance;
        return instance;
    }
    static SecIdentityRef import(const BundleOptions& options)
    {
        const Bundle bundle = authority().issue(options);
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
        SecKeyImportExportParameters parameters;
        parameters.passphrase = NSString::sensitiveStringWithUTF8String(bundle.passphrase);
        Ref<NSArray> items;
        EXPECT_EQ(SecKeychainItemImport(NSData::dataWithBytes(bundle.pkcs12), nullptr, nullptr, nullptr, 0, &parameters,
                      keychain, &items),
            errSecSuccess);
        return items->objectAs<SecIdentity>(0);
    }

    const ScratchHome home_;
    std::shared_ptr<kf::keychain::MemoryBackend> memory_ = std::make_shared<kf::keychain::MemoryBackend>();
    const kf::keychain::ScopedBackend scoped_{memory_};
    const Ref<SFChooseIdentityPanel> panel_ = SFChooseIdentityPanel::sharedChooseIdentityPanel();
};

TEST_F(ChooseIdentityPanel, IsOneForTheProcess)
{
    EXPECT_EQ(SFChooseIdentityPanel::sharedChooseIdentityPanel(), panel_);
}

TEST_F(ChooseIdentityPanel, GivesTheConfirmedIdentity)
{
    const auto first = import({});
    const auto second = import({.commonName = "Grace Example"});
    Person person;
    person.answer = 1;
    EXPECT_EQ(panel_->runModalForIdentities(NSArray::arrayWithObjects({first, second}), "Which?"_ns), 1);
    EXPECT_EQ(panel_->identity(), second);
}

TEST_F(ChooseIdentityPanel, ForgetsTheIdentityAtTheNextRun)
{
    const auto identities = NSArray::arrayWithObjects({import({})});
    Person person;
    person.answer = 0;
    ASSERT_EQ(panel_->runModalForIdentities(identities, "Which?"_ns), 1);
    person.answer.reset();
    EXPECT_EQ(panel_->runModalForIdentities(identities, "Which?"_ns), 0);
    EXPECT_FALSE(panel_->identity());
}

TEST_F(ChooseIdentityPanel, ChoosesNothingWhereNobodyCanBeAsked)
{
    const auto identities = NSArray::arrayWithObjects({import({})});
    ASSERT_EQ(kf::Presenter::current(), nullptr);
    EXPECT_EQ(panel_->runModalForIdentities(identities, "Which?"_ns), 0);
    EXPECT_FALSE(panel_->identity());
    const OlderPresenter presenter;
    EXPECT_EQ(panel_->runModalForIdentities(identities, "Which?"_ns), 0);
    EXPECT_FALSE(panel_->identity());
}

TEST_F(ChooseIdentityPanel, GivesNoIdentityForAPlaceThatIsNone)
{
    Person person;
    person.answer = 1000000;
    EXPECT_EQ(panel_->runModalForIdentities(NSArray::arrayWithObjects({import({})}), "Which?"_ns), 1);
    EXPECT_FALSE(panel_->identity());
}

TEST_F(ChooseIdentityPanel, AsksWithMessageAndAlternateButton)
{
    Person person;
    panel_->setAlternateButtonTitle("Never mind"_ns);
    EXPECT_EQ(panel_->runModalForIdentities(NSArray::array(), "Which?"_ns), 0);
    panel_->setAlternateButtonTitle(nullptr);
    EXPECT_EQ(panel_->runModalForIdentities(nullptr, nullptr), 0);
    ASSERT_EQ(person.questions.size(), 2U);
    EXPECT_EQ(toUTF8(person.questions[0].message), "Which?");
    EXPECT_EQ(toUTF8(person.questions[0].alternateButton), "Never mind");
    EXPECT_TRUE(person.questions[0].choices.empty());
    EXPECT_EQ(toUTF8(person.questions[1].alternateButton), "Cancel");
}

TEST_F(ChooseIdentityPanel, TellsWhatAPersonKnowsIdentitiesBy)
{
    const auto plain = import({.commonName = "Zo\u00EB \u05D0\u05D1",
        .email = "zoe@orvane.example",
        .emailPlace = EmailPlace::both,
        .notBefore = "20210203000000Z",
        .notAfter = "20301231235959Z"});
    const auto bare = import({.commonName = "Bare", .emailPlace = EmailPlace::none});
    Person person;
    panel_->runModalForIdentities(NSArray::arrayWithObjects({plain, "no identity"_ns, bare}), "Which?"_ns);
    ASSERT_EQ(person.questions.size(), 1U);
    ASSERT_EQ(person.questions[0].choices.size(), 2U);
    const auto& choice = person.questions[0].choices[0];
    EXPECT_EQ(toUTF8(choice.name), "Zo\u00EB \u05D0\u05D1");
    EXPECT_EQ(toUTF8(choice.issuer), "Orvane Certification Authority 2");
    EXPECT_EQ(toUTF8(choice.emailAddresses), "zoe@orvane.example, zoe@orvane.example");
    EXPECT_EQ(choice.notBefore, 1612310400);
    EXPECT_EQ(choice.notAfter, 1924991999);
    EXPECT_EQ(toUTF8(person.questions[0].choices[1].name), "Bare");
    EXPECT_FALSE(person.questions[0].choices[1].emailAddresses);
}

TEST_F(ChooseIdentityPanel, CallsIdentitiesByTheLabelThatThePersonWrote)
{
    const auto identity = import({});
    std::string label = "My work certificate";
    SecKeychainAttribute attribute{kSecLabelItemAttr, static_cast<std::uint32_t>(label.size()), label.data()};
    const SecKeychainAttributeList list{1, &attribute};
    ASSERT_EQ(SecKeychainItemModifyAttributesAndData(identity->certificate(), &list, 0, nullptr), errSecSuccess);
    Person person;
    panel_->runModalForIdentities(NSArray::arrayWithObjects({identity}), "Which?"_ns);
    EXPECT_EQ(toUTF8(person.questions.at(0).choices.at(0).name), label);
    ASSERT_EQ(SecKeychainItemDelete(identity->certificate()), errSecSuccess);
    panel_->runModalForIdentities(NSArray::arrayWithObjects({identity}), "Which?"_ns);
    EXPECT_EQ(toUTF8(person.questions.at(1).choices.at(0).name), "Ada Example") << "its own, once the item is gone";
}

} // namespace
