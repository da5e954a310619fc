// What the thread that opens bundles leaves for the import, and what it does not.
#include "keyfold/BundleChecker.h"
#include "Security/Keychain/KeptBundle.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <QEventLoop>

#include <gtest/gtest.h>

namespace {

class BundleCheckerTest : public testing::Test {
protected:
    kf::BundleRequest request(const std::string& file) const
    {
        return {"ada", file, {bundle_.passphrase.begin(), bundle_.passphrase.end()}, {}};
    }
    void checkToTheEnd(const std::string& file)
    {
        QEventLoop loop;
        QObject::connect(checker_.get(), &kf::BundleChecker::finished, &loop, &QEventLoop::quit);
        checker_->start(request(file));
        loop.exec();
    }
    bool isKept() const
    {
        const auto secret = request({}).passphrase;
        return kf::keychain::takeKeptBundle(bundle_.pkcs12, secret).has_value();
    }

    kf::test::ScratchHome home_;
    kf::test::Authority authority_;
    kf::test::Bundle bundle_ = authority_.issue({});
    std::unique_ptr<kf::BundleChecker> checker_ = std::make_unique<kf::BundleChecker>();
};

TEST_F(BundleCheckerTest, KeepsWhatItReadForTheImport)
{
    checkToTheEnd(bundle_.file);
    EXPECT_TRUE(isKept());
}

TEST_F(BundleCheckerTest, KeepsNothingOfABundleThatIsNotWantedAnyMore)
{
    checkToTheEnd(bundle_.file);
    checker_->cancel();
    EXPECT_FALSE(isKept());

    checker_->start(request(bundle_.file));
    checker_->cancel();
    checkToTheEnd("/nowhere/bundle.p12"); // waits for the one before
    EXPECT_FALSE(isKept());
}

TEST_F(BundleCheckerTest, KeepsNothingWhenItGoes)
{
    checkToTheEnd(bundle_.file);
    checker_.reset();
    EXPECT_FALSE(isKept());
}

} // namespace
