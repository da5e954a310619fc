// What a screen reader and the keyboard find on each page.

#include "AppKit/PassphraseBox.h"
#include "Tests/Wizard/WalkFixture.h"
#include "keyfold/EndPane.h"

#include <gmock/gmock.h>

#include <QAccessible>
#include <QTextBrowser>

namespace {

using namespace kf::test;
using testing::AllOf;
using testing::HasSubstr;

const char* roleName(QAccessible::Role role)
{
    switch (role) {
    case QAccessible::Button:
        return "button";
    case QAccessible::CheckBox:
        return "toggle";
    case QAccessible::EditableText:
        return "field";
    case QAccessible::StaticText:
        return "text";
    case QAccessible::Graphic:
        return "graphic";
    case QAccessible::ProgressBar:
        return "progress";
    case QAccessible::Dialog:
        return "dialog";
    case QAccessible::AlertMessage:
        return "alert";
    case QAccessible::List:
        return "list";
    case QAccessible::ListItem:
        return "item";
    case QAccessible::Document:
        return "document";
    case QAccessible::ScrollBar:
        return "scroll bar";
    default:
        return nullptr;
    }
}

std::string describe(QAccessibleInterface* object, const char* role)
{
    const QAccessible::State state = object->state();
    std::string text = role;
    text += " \"" + object->text(QAccessible::Name).toStdString() + "\"";
    const std::string description = object->text(QAccessible::Description).toStdString();
    if (!description.empty())
        text += " (" + description + ")";
    if (state.disabled)
        text += " disabled";
    if (state.checked)
        text += " checked";
    if (state.passwordEdit)
        text += " password";
    if (state.defaultButton)
        text += " default";
    return text;
}

void walk(QAccessibleInterface* object, std::vector<std::string>& found)
{
    if (!object || !object->isValid() || object->state().invisible)
        return;
    const char* role = roleName(object->role());
    // An empty line of text is nothing to say.
    if (role && (object->role() != QAccessible::StaticText || !object->text(QAccessible::Name).isEmpty()))
        found.push_back(describe(object, role));
    for (int i = 0; i < object->childCount(); ++i)
        walk(object->child(i), found);
}

/// Everything that is shown of a window, a line each, in the order in which it is read.
std::string tree(QWidget* window)
{
    std::vector<std::string> found;
    walk(QAccessible::queryAccessibleInterface(window), found);
    std::string text;
    for (const std::string& line : found)
        text += line + "\n";
    return text;
}

class Accessibility : public Walk {
protected:
    /// The object names on which the focus stops, from `first` on, until it comes back.
    std::string stops(const char* first)
    {
        QWidget* start = find(window_.get(), first);
        start->setFocus();
        std::string names;
        int count = 0;
        QWidget* at = start;
        do {
            names += at->objectName().toStdString() + " ";
            QTest::keyClick(at, Qt::Key_Tab);
            at = window_->focusWidget();
        } while (at && at != start && ++count < 20);
        return names;
    }
};

const char* const signInFields = R"(dialog "Keyfold"
text "Sign In"
text "Enter your login name and choose the certificate file that you downloaded, or drop it here, with the pass phrase that protects it."
text "Login name"
field "Login name"
text "Certificate file"
field "Certificate file" (A .p12 or .pfx file)
button "Choose…" (Certificate file)
text "Pass phrase"
field "Pass phrase" password
toggle "Show" (Pass phrase)
)";

TEST_F(Accessibility, OfTheSignInPage)
{
    open();
    EXPECT_EQ(tree(window_.get()), signInFields + std::string(R"(button "Previous" disabled
button "Next" disabled default
)"));
    type("loginField", "grace");
    EXPECT_EQ(stops("loginField"), "loginField fileField chooseButton passphraseField showButton ");
}

TEST_F(Accessibility, TheKeyboardAloneLeadsFromSignInToTheEnd)
{
    open();
    const auto keys = [this](const std::string& text) {
        QTest::keyClicks(window_->focusWidget(), QString::fromStdString(text));
    };
    const auto key = [this](Qt::Key which) { QTest::keyClick(window_->focusWidget(), which); };
    keys("ada");
    key(Qt::Key_Tab);
    keys(bundle().file.string());
    key(Qt::Key_Tab);
    key(Qt::Key_Tab);
    keys(bundle().passphrase);
    key(Qt::Key_Return);
    waitFor("certificateCard");
    key(Qt::Key_Return);
    EXPECT_EQ(label("titleLabel"), "Install Your Certificates");
    EXPECT_EQ(state("personalStatus"), 1);
    key(Qt::Key_Return);
    EXPECT_EQ(label("titleLabel"), "What Was Installed");
    key(Qt::Key_Return);
    EXPECT_FALSE(window_->isVisible());
}

TEST_F(Accessibility, OfARefusedFile)
{
    open();
    fillIn("ada", bundle().file.string(), "wrong");
    press("nextButton");
    waitFor("passphraseMessage");
    EXPECT_EQ(tree(window_.get()),
        signInFields
            + std::string(
                R"(text "This pass phrase does not open the file. Mind capital letters and the keyboard’s layout." (Pass phrase)
button "Previous" disabled
button "Next" default
)"));
}

TEST_F(Accessibility, OfTheCertificateInTheFile)
{
    open();
    signIn("grace", bundle().file.string(), bundle().passphrase);
    EXPECT_EQ(tree(window_.get()), signInFields + std::string(R"(text "Ada Example"
text "For ada@orvane.example
Issued by Orvane Certification Authority 2
Valid from 1 January 2020 until 1 January 2049"
graphic "Warning"
text "The certificate is issued for ada@orvane.example, not for grace@orvane.example. Is it yours?" (Warning)
button "Previous" disabled
button "Next" default
)"));
}

TEST_F(Accessibility, OfTheInstallerPageAtWork)
{
    open();
    signIn(bundle());
    std::string seen;
    auto* pane = window_->currentPane();
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, [&] {
        if (seen.empty() && window_->currentPane() != pane && isShown("progressIndicator"))
            seen = tree(window_.get());
    });
    look.start(1);
    press("nextButton");
    EXPECT_THAT(seen, HasSubstr("graphic \"Personal certificate\" (working)"));
    EXPECT_THAT(seen, HasSubstr("progress \"Progress\""));
    EXPECT_THAT(seen, HasSubstr("button \"Next\" disabled default"));
}

TEST_F(Accessibility, OfTheInstallerPage)
{
    open();
    signIn(bundle());
    press("nextButton");
    EXPECT_EQ(tree(window_.get()), R"(dialog "Keyfold"
text "Install Your Certificates"
text "Two things are put onto this computer: the certificate authority of Orvane Collegium, and the personal certificate with which you sign in and sign your mail."
graphic "Certificate authority" (succeeded)
text "Certificate authority"
text "Certificate authority is valid" (Certificate authority)
graphic "Personal certificate" (succeeded)
text "Personal certificate"
text "Personal certificate has been successfully installed" (Personal certificate)
text "Your certificates were successfully installed" (Summary)
button "Help"
button "Previous" disabled
button "Next" default
)");
    EXPECT_EQ(stops("helpButton"), "helpButton nextButton ");
}

TEST_F(Accessibility, OfTheHelpPanel)
{
    open();
    signIn(bundle());
    press("nextButton");
    press("helpButton");
    auto* panel = find(window_.get(), "helpWindow");
    EXPECT_EQ(tree(panel), "dialog \"Help\"\ntext \"Help\"\nscroll bar \"\"\n");
    QAccessibleTextInterface* text = QAccessible::queryAccessibleInterface(find(panel, "helpText"))->textInterface();
    ASSERT_NE(text, nullptr);
    const QStringList lines = text->text(0, text->characterCount()).split(u'\n');
    EXPECT_EQ(lines.first(), QStringLiteral("Installing your certificates"));
    EXPECT_TRUE(lines.contains(QStringLiteral("“Certificate authority is valid”\u2028Nothing to do: your computer "
                                              "trusts the Collegium’s servers.")));
    EXPECT_TRUE(lines.last().endsWith(u"nor your certificate file, to anybody.")) << lines.last().toStdString();
}

TEST_F(Accessibility, OfTheEnd)
{
    open();
    signIn(bundle());
    press("nextButton");
    const Ref<NSObject> identity = field("UserSecIdentityRef");
    window_ = std::make_unique<kf::WizardWindow>();
    window_->fields().setValue(identity, "UserSecIdentityRef"_ns);
    const std::string authority = KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der";
    window_->addSection()->addPane(std::make_unique<kf::EndPane>(authority, QStringLiteral("/nonexistent")));
    window_->show();
    window_->goToPane(window_->firstPane());
    EXPECT_EQ(tree(window_.get()),
        R"(dialog "Keyfold"
text "What Was Installed"
text "Your personal certificate"
text "Your certificate “Ada Example” and its private key are in your keychain:
)" + home_.defaultKeychain().string()
            + R"(" (Your personal certificate)
text "The certificate authority"
text "“Orvane Certification Authority” is trusted for you alone: it is in your keychain. For everybody else, an administrator can run this program." (The certificate authority)
text "Programs that use them"
text "Chromium and the browsers made from it sign you in with your certificate, from their next start." (Programs that use them)
text "Chromium and the browsers made from it trust the authority’s servers." (Programs that use them)
text "What is left to do"
text "curl, wget and other programs that follow the system’s trust store do not trust the authority’s servers: an administrator has to run this program." (What is left to do)
text "Firefox and Thunderbird keep certificates of their own: where you use them, import the same file there, in the settings under Certificates." (What is left to do)
text "It could not be found out whether Firefox trusts the authority’s servers. If it warns you of them, import the authority there, in the settings under Certificates, Authorities." (What is left to do)
text "The authority is imported from this file:
)" + authority
            + R"(" (What is left to do)
button "Previous" disabled
button "Close" default
)");
}

TEST_F(Accessibility, OfAPassPhraseThatIsShown)
{
    open();
    press("showButton");
    EXPECT_THAT(tree(window_.get()), HasSubstr("toggle \"Hide\" (Pass phrase) checked\n"));
}

TEST_F(Accessibility, OfAFailedInstallation)
{
    open();
    signIn(bundle());
    std::filesystem::create_directories(home_.olderKeychain());
    writeFile(home_.olderKeychain() / "cert9.db", std::string_view());
    press("nextButton");
    EXPECT_THAT(tree(window_.get()),
        AllOf(HasSubstr("graphic \"Certificate authority\" (failed)"),
            HasSubstr("graphic \"Personal certificate\" (failed)")));
}

TEST_F(Accessibility, OfTheQuestionAboutOldCertificates)
{
    open();
    signIn(bundle());
    press("nextButton");
    static const Bundle next = institution().issue({.commonName = "Ada Newly"});
    open();
    signIn(next);
    std::string seen;
    const WhenDialogOpens watch("alert", [&](QWidget* box) {
        seen = tree(box);
        box->close();
    });
    press("nextButton");
    EXPECT_EQ(seen, R"(alert "Existing certificates found"
graphic "Warning"
text "Existing certificates found"
button "No" default
button "Yes"
button "Help"
text "You appear to have one or more old certificates installed. Would you like to delete them?

WARNING: If you have used S/MIME for email encryption, do not delete your certificates

For more information, see https://help.orvane.example/certificates"
)");
}

TEST_F(Accessibility, OfTheKeychainsQuestion)
{
    kf::PassphraseBox box({"/home/ada/.pki/nssdb"_ns, 2}, nullptr);
    box.show();
    EXPECT_EQ(tree(&box), R"(dialog "Unlock the Keychain"
text "Your certificates are kept in a keychain that is protected by a pass phrase. To look at them and to install new ones, it has to be unlocked:
/home/ada/.pki/nssdb"
text "It is the pass phrase that you gave this keychain, in a browser or mail program perhaps; not the one of the certificate file."
text "That was not the keychain’s pass phrase. Please try again."
field "Pass phrase of the keychain" password
toggle "Show" (Pass phrase of the keychain)
button "Unlock" default
button "Cancel"
)");
}

TEST_F(Accessibility, OfAPageThatCannotBeLoaded)
{
    line_.bundle = "/nonexistent";
    expectsPage_ = false;
    open();
    EXPECT_EQ(tree(window_.get()), R"(dialog "Keyfold"
text "The Installer Cannot Be Loaded"
text "Nothing was installed. There is no bundle at /nonexistent.

Ask whoever installed this program to install it again."
button "Previous" disabled
button "Close" default
)");
}

} // namespace
