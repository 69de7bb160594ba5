// Installs the emulator environment for the settings tests (the main function is the shared one).
#include "SettingsTestbed.h"

namespace {
const bool g_installed = (settingstest::installEnvironment(), true);
}  // namespace
