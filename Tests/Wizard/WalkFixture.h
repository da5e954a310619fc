// The whole wizard on a scratch home, gone through as a person does.
#pragma once

#include "AppKit/QtPresenter.h"
#include "KFWizard/KFWizardPane.h"
#include "Security/Keychain/Store.h"
#include "Security/Trust/DistributionStore.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"
#include "Tests/Wizard/Support.h"
#include "keyfold/Application.h"

#include <QFrame>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace kf::test {

/// Made once for the whole program: keys take time.
inline Authority& institution()
{
    static Authority authority;
    return authority;
}
inline const Bundle& bundle()
{
    static const Bundle made = institution().issue();
    return made;
}

/// Of a machine where nobody has published anything.
class EmptyStore final : public kf::trust::DistributionStore {
public:
    std::vector<kf::Bytes> certificatesWithSubject(std::span<const std::uint8_t>) const override { return {}; }
    std::vector<kf::Bytes> certificates() const override { return {}; }
};

class Walk : public testing::Test {
protected:
    Walk() : storeBefore_(kf::trust::setDistributionStore(std::make_shared<EmptyStore>()))
    {
        line_.bundle = KEYFOLD_BUNDLE;
        kf::Presenter::setCurrent(&presenter_);
    }
    ~Walk() override
    {
        kf::Presenter::setCurrent(nullptr);
        window_.reset();
        kf::keychain::closeAll();
        kf::trust::setDistributionStore(storeBefore_);
    }

    void open()
    {
        window_ = std::make_unique<kf::WizardWindow>();
        EXPECT_EQ(kf::fillWizard(*window_, line_), expectsPage_);
        window_->show();
        window_->goToPane(window_->firstPane());
    }
    void type(const char* field, const std::string& text)
    {
        auto* edit = find<QLineEdit>(window_.get(), field);
        edit->selectAll();
        if (text.empty())
            edit->clear();
        QTest::keyClicks(edit, QString::fromStdString(text));
    }
    void fillIn(const std::string& login, const std::string& file, const std::string& passphrase)
    {
        type("loginField", login);
        type("fileField", file);
        type("passphraseField", passphrase);
    }
    bool isShown(const char* name) { return find(window_.get(), name)->isVisible(); }
    /// Waits until the page shows the widget of that name.
    void waitFor(const char* name)
    {
        EXPECT_TRUE(QTest::qWaitFor([&] { return isShown(name); }, 60000)) << name << " never came";
    }
    /// Fills the page in with a bundle that can be installed, and waits for its certificate.
    void signIn(const std::string& login, const std::string& file, const std::string& passphrase)
    {
        fillIn(login, file, passphrase);
        waitFor("certificateCard");
    }
    void signIn(const Bundle& with) { signIn("ada", with.file.string(), with.passphrase); }
    QPushButton* button(const char* name) { return find<QPushButton>(window_.get(), name); }
    void press(const char* name) { QTest::mouseClick(button(name), Qt::LeftButton); }
    std::string label(const char* name) { return find<QLabel>(window_.get(), name)->text().toStdString(); }
    /// What the last page says under one of its headings, each line after the other.
    std::string report(const char* part)
    {
        std::string text;
        for (const QLabel* line : find(window_.get(), part)->findChildren<QLabel*>()) {
            if (line->objectName() != u"heading")
                text += line->text().toStdString() + "\n";
        }
        return text;
    }
    qlonglong state(const char* sphere) { return find<QLabel>(window_.get(), sphere)->property("state").toLongLong(); }
    Ref<NSObject> field(const char* key)
    {
        return window_->fields().valueForField(NSString::stringWithUTF8String(key));
    }
    std::string keychain() const { return "sql:" + home_.defaultKeychain().string(); }
    int keys() const
    {
        const std::string listed = run({"certutil", "-K", "-d", keychain()}).output;
        return static_cast<int>(std::count(listed.begin(), listed.end(), '<'));
    }

    std::shared_ptr<const kf::trust::DistributionStore> storeBefore_;
    ScratchHome home_;
    kf::QtPresenter presenter_;
    kf::CommandLine line_;
    bool expectsPage_ = true;
    std::unique_ptr<kf::WizardWindow> window_;
};

} // namespace kf::test
