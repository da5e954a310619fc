#include "Security/SFChooseIdentityPanel.h"

#include "Security/Keychain/Index.h"
#include "Security/Presenter.h"

using namespace kf;

namespace {

/// Nil for a text that is empty or no UTF-8.
Ref<NSString> textOf(std::string_view text) { return text.empty() ? nullptr : NSString::stringWithUTF8String(text); }

/// The label, which the person may have written.
Ref<NSString> nameOf(const SecCertificateRef& certificate)
{
    SecKeychainAttrType tag = kSecLabelItemAttr;
    const SecKeychainAttributeInfo info{1, &tag, nullptr};
    SecKeychainAttributeList* list = nullptr;
    if (SecKeychainItemCopyAttributesAndData(certificate, &info, nullptr, &list, nullptr, nullptr) != errSecSuccess)
        return nullptr;
    const SecKeychainAttribute& label = list->attr[0];
    auto name = textOf({static_cast<const char*>(label.data), label.length});
    SecKeychainItemFreeAttributesAndData(list, nullptr);
    return name;
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

IdentityChoice choiceOf(const SecIdentityRef& identity)
{
    const SecCertificateRef& certificate = identity->certificate();
    IdentityChoice choice;
    choice.name = nameOf(certificate);
    if (const auto& fields = certificate->parsed().fields) {
        if (!choice.name)
            choice.name = textOf(fields->label);
        choice.issuer = textOf(shortName(fields->issuer));
        choice.emailAddresses = textOf(joined(fields->emailAddresses));
        choice.notBefore = fields->notBefore;
        choice.notAfter = fields->notAfter;
    }
    return choice;
}

} // namespace

SFChooseIdentityPanel::~SFChooseIdentityPanel() = default;

Ref<SFChooseIdentityPanel> SFChooseIdentityPanel::sharedChooseIdentityPanel()
{
    static const auto shared = makeRef<SFChooseIdentityPanel>();
    return shared;
}

void SFChooseIdentityPanel::setAlternateButtonTitle(const Ref<NSString>& title) { alternateButtonTitle_ = title; }

NSInteger SFChooseIdentityPanel::runModalForIdentities(const Ref<NSArray>& identities, const Ref<NSString>& message)
{
    identity_.reset();
    Presenter* const presenter = Presenter::current();
    if (!presenter)
        return 0;
    IdentityQuestion question{message, alternateButtonTitle_ ? alternateButtonTitle_ : "Cancel"_ns, {}};
    std::vector<SecIdentityRef> offered;
    for (NSUInteger index = 0; index < countOf(identities); ++index) {
        if (auto identity = identities->objectAs<SecIdentity>(index)) {
            question.choices.push_back(choiceOf(identity));
            offered.push_back(std::move(identity));
        }
    }
    const auto chosen = presenter->chooseIdentity(question);
    if (!chosen)
        return 0;
    if (*chosen < offered.size())
        identity_ = offered[*chosen];
    return 1;
}
