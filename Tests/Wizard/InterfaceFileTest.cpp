// Loading interface files.

#include "KFWizard/InterfaceFile.h"
#include "Tests/Support/ScratchHome.h"

#include <QCoreApplication>
#include <QWidget>

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(InterfaceFile, LoadsNoPlugInsOfDesigner)
{
    const kf::test::ScratchHome home;
    const std::string path = (home.path() / "page.ui").string();
    std::ofstream(path) << R"(<ui version="4.0"><class>Page</class><widget class="QWidget" name="Page"/></ui>)";
    const QStringList paths = QCoreApplication::libraryPaths();
    QString problem;
    const auto page = kf::loadInterfaceFile(
        QString::fromStdString(path), [](const QString&, QWidget*) -> QWidget* { return nullptr; }, &problem);
    ASSERT_TRUE(page) << problem.toStdString();
    EXPECT_EQ(page->objectName(), u"Page");
    EXPECT_EQ(QCoreApplication::libraryPaths(), paths) << "others find their plug-ins afterwards";
    std::ostringstream loaded;
    loaded << std::ifstream("/proc/self/maps").rdbuf();
    EXPECT_THAT(loaded.str(), Not(HasSubstr("/designer/"))) << "where no such plug-in is installed this sees nothing";
}

} // namespace
