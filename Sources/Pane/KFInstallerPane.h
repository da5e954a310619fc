// The page that installs a member's certificates.
#pragma once

#include "AppKit/NSAlert.h"
#include "KFWizard/KFWizardPane.h"
#include "Pane/KFStatusView.h"
#include "Security/Authorization.h"

class QTextBrowser;

/// Entering the page runs two jobs, one after the other: the certificate
/// authority's, then the person's own certificate. Each reports through a
/// sphere and a message field of its own; the summary tells how the second one
/// went. Main thread, but for the jobs and authorize.
class KFInstallerPane final : public KFWizardPane, public NSAlertDelegate {
    Q_OBJECT
public:
    KFStatusView* authorityStatus() const noexcept { return authorityStatus_; }
    void setAuthorityStatus(KFStatusView* view) noexcept { authorityStatus_ = view; }
    KFStatusView* personalStatus() const noexcept { return personalStatus_; }
    void setPersonalStatus(KFStatusView* view) noexcept { personalStatus_ = view; }
    QLabel* caMessages() const noexcept { return caMessages_; }
    void setCaMessages(QLabel* field) noexcept { caMessages_ = field; }
    QLabel* certMessages() const noexcept { return certMessages_; }
    void setCertMessages(QLabel* field) noexcept { certMessages_ = field; }
    QDialog* helpWindow() const noexcept { return helpWindow_; }
    void setHelpWindow(QDialog* window) noexcept { helpWindow_ = window; }
    QTextBrowser* helpText() const noexcept { return helpText_; }
    void setHelpText(QTextBrowser* view) noexcept { helpText_ = view; }

    Ref<NSString> title() const override;
    void awakeFromNib() override;
    void didEnterPane(NSInteger direction) override;
    void didExitPane(NSInteger direction) override;
    bool showsHelp() const override;
    void showHelp(QObject* sender) override;
    bool alertShowHelp(NSAlert* alert) override;

    /// An authorization with administrator rights; the person may be asked.
    /// Nil where that failed or was cancelled, which is logged; `*error` (where
    /// not null) then says why. Job thread.
    Ref<SFAuthorization> authorize(Ref<NSError>* error);
    Ref<SFAuthorization> authorize();

    /// Makes sure that the certificate authority is in the keychains and
    /// trusted as a root. Job thread.
    void installCertificateAuthority();
    /// Offers to delete old certificates, then imports the bundle of the field
    /// "pkcs12". Job thread.
    void installPersonalCertificate();
    /// Asks whether old certificates are to be deleted and keeps the answer:
    /// 0 for a press of "Yes", 1 for everything else.
    void identityAlert();

protected:
    QWidget* createView(const QString& className, QWidget* parent) override;
    void connectOutlets(kf::Outlets& outlets) override;

private:
    void performJob(const kf::Selector& selector, QLabel* messages);
    void findOrInstallAuthority();
    bool installAuthorityCertificate(bool* installedByTool);
    void trustAuthority(const Ref<NSArray>& certificates, bool installedByTool);
    void failAuthority(const Ref<NSString>& message);
    void offerToDeleteOldCertificates();
    void deleteOldIdentities(const Ref<NSArray>& identities, const Ref<NSString>& emailAddress);
    void deleteOldCertificates(const Ref<NSString>& emailAddress);
    OSStatus importBundle(Ref<NSArray>* items);
    void reportImport(OSStatus status, const Ref<NSArray>& items);

    KFStatusView* authorityStatus_ = nullptr;
    KFStatusView* personalStatus_ = nullptr;
    QLabel* caMessages_ = nullptr;
    QLabel* certMessages_ = nullptr;
    NSInteger alertResult_ = NSAlertDefaultReturn;
    QDialog* helpWindow_ = nullptr;
    QTextBrowser* helpText_ = nullptr;
};
