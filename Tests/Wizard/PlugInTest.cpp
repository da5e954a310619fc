#include "KFWizard/PlugIn.h"
#include "KFWizard/KFWizardPane.h"
#include "Tests/Wizard/Support.h"

namespace {

using kf::PlugIn;
using State = kf::PlugIn::State;

QString bundle(const char* name)
{
    return QStringLiteral(TEST_BUNDLES "/") + QLatin1String(name) + QStringLiteral(".bundle");
}

struct Row {
    const char* name;
    State state;
    const char* reason; ///< a part of it
};

class PlugInFailure : public testing::TestWithParam<Row> { };

TEST_P(PlugInFailure, IsRecordedWithItsReasonAndLogged)
{
    const kf::test::LogLines log;
    PlugIn plugIn(bundle(GetParam().name));
    EXPECT_EQ(plugIn.state(), State::notLoaded);
    EXPECT_EQ(plugIn.createPane(), nullptr);
    EXPECT_EQ(plugIn.state(), GetParam().state);
    EXPECT_TRUE(plugIn.reason().contains(QLatin1String(GetParam().reason))) << plugIn.reason().toStdString();
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0],
        "The bundle " + plugIn.bundlePath().toStdString() + " gives no page: " + plugIn.reason().toStdString());
}

INSTANTIATE_TEST_SUITE_P(Rows, PlugInFailure,
    testing::Values(Row{"Absent", State::missing, "There is no bundle at"}, Row{"NoCode", State::noCode, "no code"},
        Row{"Broken", State::cannotBeLoaded, "file too short"}, Row{"NoPage", State::noFactory, "offers no page"},
        Row{"OtherVersion", State::wrongInterfaceVersion, "version 99 of the wizard, not 1"},
        Row{"NoInterface", State::paneFailed, "TestPage.ui is missing"},
        Row{"BadInterface", State::paneFailed, "unknown class NobodyMakesThis"},
        Row{"MissingOutlet", State::paneFailed, "lacks: greeting"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(PlugIn, GivesPagesOfAGoodBundle)
{
    PlugIn plugIn(bundle("Good"));
    EXPECT_EQ(plugIn.load(), State::loaded);
    const std::unique_ptr<KFWizardPane> first = plugIn.createPane();
    const std::unique_ptr<KFWizardPane> second = plugIn.createPane();
    ASSERT_NE(first, nullptr) << plugIn.reason().toStdString();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(toUTF8(first->title()), "A Test");
    EXPECT_NE(first->contentView(), nullptr);
    EXPECT_TRUE(plugIn.reason().isEmpty());
}

TEST(PlugIn, AFailureStaysAFailure)
{
    PlugIn plugIn(bundle("Broken"));
    EXPECT_EQ(plugIn.load(), State::cannotBeLoaded);
    EXPECT_EQ(plugIn.load(), State::cannotBeLoaded);
}

} // namespace
