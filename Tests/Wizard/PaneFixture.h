// The installer page in a wizard, with keychains in memory, faults on demand,
// rights as told and answers as told.
#pragma once

#include "KFWizard/PlugIn.h"
#include "KFWizard/WizardWindow.h"
#include "Pane/KFInstallerPane.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainSearch.h"
#include "Security/SecTrust.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Wizard/Support.h"

#include <gmock/gmock.h>

namespace kf::test {

/// Answers every alert with one code and writes the questions down.
class RecordingPresenter final : public Presenter {
public:
    RecordingPresenter() : before_(setCurrent(this)) { }
    ~RecordingPresenter() override { setCurrent(before_); }
    NSInteger runAlert(const AlertQuestion& question) override
    {
        onMainThread = QThread::currentThread() == qApp->thread();
        questions.push_back(question);
        return answer;
    }
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion&) override { return std::nullopt; }

    NSInteger answer = alertDefaultReturn;
    bool onMainThread = false;
    std::vector<AlertQuestion> questions;

private:
    Presenter* before_;
};

/// What was shown: the field's object name, the text, and how the spheres stood.
struct Shown {
    std::string field;
    std::string text;
    bool isError;
    NSInteger authorityState;
    NSInteger personalState;
    friend bool operator==(const Shown&, const Shown&) = default;
};

inline std::string text(OSStatus status) { return toUTF8(SecCopyErrorMessageString(status, nullptr)); }

class PaneTest : public testing::Test {
protected:
    PaneTest()
    {
        PlugIn plugIn(QStringLiteral(KEYFOLD_BUNDLE));
        std::unique_ptr<KFWizardPane> made = plugIn.createPane();
        if (!made)
            throw std::runtime_error(plugIn.reason().toStdString());
        pane_ = dynamic_cast<KFInstallerPane*>(window_.addSection()->addPane(std::move(made)));
        pane_->setHost(&window_);
        QObject::connect(
            pane_, &KFWizardPane::messageShown, [this](QLabel* field, const QString& message, bool isError) {
                shown_.push_back({field->objectName().toStdString(), message.toStdString(), isError,
                    pane_->authorityStatus()->state(), pane_->personalStatus()->state()});
            });
    }

    /// A job alone, as the page runs it.
    void run(const char* name, void (KFInstallerPane::*job)(), QLabel* messages)
    {
        pane_->setActiveMessageField(messages);
        pane_->performBackgroundSelector(selector(name, pane_, job), nullptr, nullptr, nullptr, -1.0);
    }
    void runAuthorityJob()
    {
        run("installCertificateAuthority", &KFInstallerPane::installCertificateAuthority, pane_->caMessages());
    }
    void runPersonalJob()
    {
        run("installPersonalCertificate", &KFInstallerPane::installPersonalCertificate, pane_->certMessages());
    }

    void setField(const char* key, const Ref<NSObject>& value)
    {
        window_.fields().setValue(value, NSString::stringWithUTF8String(key));
    }
    Ref<NSObject> field(const char* key) { return window_.fields().valueForField(NSString::stringWithUTF8String(key)); }
    void setBundle(const Bytes& pkcs12, const std::string& passphrase)
    {
        const QByteArray base64 =
            QByteArray(reinterpret_cast<const char*>(pkcs12.data()), static_cast<qsizetype>(pkcs12.size())).toBase64();
        setField("pkcs12", NSString::stringWithUTF8String(base64.toStdString()));
        setField("downloadpassword", NSString::sensitiveStringWithUTF8String(passphrase));
    }

    static SecKeychainRef defaultKeychain()
    {
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
        return keychain;
    }
    static SecKeychainRef systemKeychain() { return keychain::systemKeychain(); }
    static SecCertificateRef certificate(const Bytes& der)
    {
        Bytes copy = der;
        const CSSM_DATA data{copy.size(), copy.data()};
        SecCertificateRef made;
        EXPECT_EQ(SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &made), errSecSuccess);
        return made;
    }
    /// The authority that the page brings along.
    static Bytes shippedAuthority() { return readFile(KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der"); }
    static OSStatus userTrust(const SecCertificateRef& of, SecTrustSettingsDomain domain = kSecTrustSettingsDomainUser)
    {
        Ref<NSArray> settings;
        return SecTrustSettingsCopyTrustSettings(of, domain, &settings);
    }

    static std::size_t count(const SecKeychainRef& keychain, SecItemClass itemClass)
    {
        SecKeychainSearchRef search;
        EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain, itemClass, nullptr, &search), errSecSuccess);
        std::size_t found = 0;
        for (SecKeychainItemRef item; SecKeychainSearchCopyNext(search, &item) == errSecSuccess;)
            ++found;
        return found;
    }
    static std::size_t keys() { return count(defaultKeychain(), kSecPrivateKeyItemClass); }
    static std::size_t certificates() { return count(defaultKeychain(), kSecCertificateItemClass); }

    /// Puts a bundle into the default keychain, as an earlier visit did.
    static void install(const Bundle& bundle)
    {
        SecKeyImportExportParameters parameters;
        parameters.passphrase = NSString::stringWithUTF8String(bundle.passphrase);
        parameters.keyUsage = CSSM_KEYUSE_ANY;
        SecExternalFormat format = kSecFormatPKCS12;
        SecExternalItemType type = kSecItemTypeAggregate;
        Ref<NSArray> items;
        ASSERT_EQ(SecKeychainItemImport(NSData::dataWithBytes(bundle.pkcs12), "p12"_ns, &format, &type, 0, &parameters,
                      defaultKeychain(), &items),
            errSecSuccess);
    }

    std::shared_ptr<keychain::MemoryBackend> memory_ = std::make_shared<keychain::MemoryBackend>();
    std::shared_ptr<keychain::FaultBackend> faults_ = std::make_shared<keychain::FaultBackend>(memory_);
    keychain::ScopedBackend scopedBackend_{faults_};
    RecordingAuthorization authorization_;
    RecordingPresenter presenter_;
    WizardWindow window_;
    KFInstallerPane* pane_ = nullptr;
    std::vector<Shown> shown_;
};

/// Made once for the whole program: keys take time.
inline Authority& institution()
{
    static Authority authority;
    return authority;
}
inline Authority& stranger()
{
    static Authority authority("Somebody Else", "Another Authority");
    return authority;
}

} // namespace kf::test
