// A default keychain that has a pass phrase of its own.

#include "Tests/Wizard/WalkFixture.h"

namespace {

using namespace kf::test;

/// Deals with every dialog for a keychain's pass phrase that opens while it lives.
class PassphraseAnswers {
public:
    explicit PassphraseAnswers(std::function<void(QWidget* box, int nth)> answer) : answer_(std::move(answer))
    {
        QObject::connect(&timer_, &QTimer::timeout, [this] { look(); });
        timer_.start(10);
    }
    int asked() const noexcept { return asked_; }

private:
    void look()
    {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() != QLatin1String("passphraseBox") || !widget->isVisible())
                continue;
            answer_(widget, ++asked_);
            return;
        }
    }
    std::function<void(QWidget*, int)> answer_;
    QTimer timer_;
    int asked_ = 0;
};

void answerWith(QWidget* box, const char* passphrase)
{
    QTest::keyClicks(find<QLineEdit>(box, "passphraseField"), QLatin1String(passphrase));
    QTest::mouseClick(find<QPushButton>(box, "unlockButton"), Qt::LeftButton);
}

class KeychainPassphrase : public Walk {
protected:
    KeychainPassphrase()
    {
        const auto password = home_.path() / "keychain-passphrase";
        writeFile(password, "open sesame\n");
        std::filesystem::create_directories(home_.defaultKeychain());
        mustRun({"certutil", "-N", "-d", keychain(), "-f", password});
        open();
        signIn(bundle());
    }
    bool isInstalled() const
    {
        const auto password = home_.path() / "keychain-passphrase";
        const Ran listed = run({"certutil", "-K", "-d", keychain(), "-f", password});
        return listed.output.find("Ada Example") != std::string::npos;
    }
};

TEST_F(KeychainPassphrase, TheRightOneIsAskedForOnce)
{
    const PassphraseAnswers answers([this](QWidget* box, int) {
        EXPECT_NE(find<QLabel>(box, "questionLabel")
                      ->text()
                      .indexOf(QString::fromStdString(home_.defaultKeychain().string())),
            -1);
        EXPECT_EQ(box->findChild<QLabel*>(QStringLiteral("retryLabel")), nullptr);
        answerWith(box, "open sesame");
    });
    press("nextButton");
    EXPECT_EQ(answers.asked(), 1);
    EXPECT_EQ(state("authorityStatus"), 1);
    EXPECT_EQ(state("personalStatus"), 1);
    press("nextButton");
    EXPECT_EQ(answers.asked(), 1) << "the last page reads it unlocked";
    EXPECT_NE(report("personalReport").find("and its private key are in your keychain"), std::string::npos);
    kf::keychain::closeAll();
    EXPECT_TRUE(isInstalled());
}

TEST_F(KeychainPassphrase, AWrongOneIsToldAndAskedForAgain)
{
    const PassphraseAnswers answers([](QWidget* box, int nth) {
        EXPECT_EQ(box->findChild<QLabel*>(QStringLiteral("retryLabel")) != nullptr, nth > 1);
        answerWith(box, nth < 3 ? "wrong" : "open sesame");
    });
    press("nextButton");
    EXPECT_EQ(answers.asked(), 3);
    EXPECT_EQ(state("personalStatus"), 1);
}

TEST_F(KeychainPassphrase, ThreeWrongOnesEndTheJobInWords)
{
    const PassphraseAnswers answers([](QWidget* box, int) { answerWith(box, "wrong"); });
    press("nextButton");
    EXPECT_EQ(answers.asked(), 6) << "three tries for each of the two jobs";
    EXPECT_EQ(state("personalStatus"), 0);
    EXPECT_EQ(label("certMessages"),
        "Failed to install your personal certificate:\nThe pass phrase of the keychain is wrong.");
    kf::keychain::closeAll();
    EXPECT_FALSE(isInstalled());
}

TEST_F(KeychainPassphrase, CancellingIsACleanFailure)
{
    const PassphraseAnswers answers(
        [](QWidget* box, int) { QTest::mouseClick(find<QPushButton>(box, "cancelButton"), Qt::LeftButton); });
    press("nextButton");
    EXPECT_EQ(answers.asked(), 2) << "once for each of the two jobs";
    EXPECT_EQ(state("authorityStatus"), 0);
    EXPECT_EQ(state("personalStatus"), 0);
    EXPECT_EQ(label("certMessages"), "Failed to install your personal certificate:\nThe operation was canceled.");
    kf::keychain::closeAll();
    EXPECT_FALSE(isInstalled());
}

TEST_F(KeychainPassphrase, EscapeCancels)
{
    const PassphraseAnswers answers([](QWidget* box, int) { QTest::keyClick(box, Qt::Key_Escape); });
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 0);
    kf::keychain::closeAll();
    EXPECT_FALSE(isInstalled());
}

TEST_F(KeychainPassphrase, QuittingAtTheQuestionIsACleanFailureAndAsksNoMore)
{
    const PassphraseAnswers answers([](QWidget* box, int nth) {
        if (nth == 1)
            QCoreApplication::quit();
        else
            box->close();
    });
    QTimer::singleShot(0, [this] { press("nextButton"); });
    const Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(answers.asked(), 1);
    EXPECT_EQ(state("personalStatus"), 0);
    kf::keychain::closeAll();
    EXPECT_FALSE(isInstalled());
}

TEST_F(KeychainPassphrase, CanBeShownWhileItIsTyped)
{
    const PassphraseAnswers answers([](QWidget* box, int) {
        auto* field = find<QLineEdit>(box, "passphraseField");
        EXPECT_EQ(field->echoMode(), QLineEdit::Password);
        QTest::mouseClick(find<QPushButton>(box, "showButton"), Qt::LeftButton);
        EXPECT_EQ(field->echoMode(), QLineEdit::Normal);
        answerWith(box, "open sesame");
    });
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 1);
}

} // namespace
