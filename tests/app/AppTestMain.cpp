// Installs the emulator environment for the app tests (the main function is the shared one).
#include "AppTestbed.h"

namespace {
const bool g_installed = [] {
    apptest::installEnvironment();
    return true;
}();
}  // namespace
