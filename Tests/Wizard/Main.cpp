// The start of every GUI test program: no display, no rights, a home of its own.

#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>

#include <QApplication>

#include <cstdlib>

int main(int argc, char** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("KEYFOLD_AUTHORIZATION", "none", 1);
    const kf::test::ScratchHome home;
    testing::InitGoogleMock(&argc, argv);
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
