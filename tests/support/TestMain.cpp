// GoogleTest main with a QApplication (offscreen), so tests can use widgets, timers and the
// main-thread dispatcher.
#include <QApplication>
#include <gmock/gmock.h>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
