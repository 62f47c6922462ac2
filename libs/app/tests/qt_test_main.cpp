// GoogleTest's main with the QCoreApplication that the view model's queued calls and timers need.

#include <gtest/gtest.h>

#include <QCoreApplication>

int main(int argc, char** argv)
{
    // Nothing here needs a display; a test that pulls in a GUI plugin must not look for one.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    const QCoreApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
