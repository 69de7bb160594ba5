// Installs the device tests' emulator environment for the settings tests (the main function is
// the shared one).
#include "SettingsTestbed.h"

namespace {
const bool g_installed = (devicetest::installEnvironment(true), true);
}  // namespace
