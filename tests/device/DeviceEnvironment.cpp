// Installs the emulator environment (with a registered observer) for the device tests.
#include "DeviceTestbed.h"

namespace {
const bool installed = (devicetest::installEnvironment(true), true);
}
