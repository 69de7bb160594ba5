#pragma once
// The device tests' emulator: the shared emulator testbed, made before the first test and
// stopped after the last, with devices named "Tamber" by default.
#include <QString>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>

#include "device/LinkDev.h"
#include "handlink/emulator/Emulator.h"
#include "support/EmulatorTestbed.h"

namespace devicetest {

class Testbed : public testsupport::EmulatorTestbed {
public:
    // Created by the test environment (before the first test), stopped after the last.
    static Testbed& instance();

    Testbed() : EmulatorTestbed(QStringLiteral("TESTDEVICE")) {}

    // Makes a new device folder and attaches it; waits until the registry lists it.
    std::shared_ptr<handlink::emu::Device> attachNewDevice(const QString& name = QStringLiteral("Tamber"))
    {
        handlink::emu::MakeDeviceOptions options;
        options.name = name;
        return EmulatorTestbed::attachNewDevice(options);
    }
};

// Registers an observer (subscribing the registry) before the first test, and stops the
// emulator after the last. Binaries whose tests do their own first registration pass false.
void installEnvironment(bool registerObserver = true);

// Waits until the device has counted at least n calls of the operation (a count rises when
// the request arrives, before an armed delay). Polls without running the event loop, so any
// thread may call it; false if the count was not reached within timeoutMs (a safety net
// against hangs, not a timing assertion).
bool waitForCount(const handlink::emu::Device& device, const QString& operation, int n, int timeoutMs = 20000);

// Counts handlinkAvailabliltyDidChange calls (any thread).
class CountingObserver : public LinkDevObserver {
public:
    void handlinkAvailabliltyDidChange() override { ++calls; }
    std::atomic<int> calls{0};
};

// A fresh device attached for each test, and a device object for it.
using DeviceTest = testsupport::AttachedDeviceTest<Testbed>;

}  // namespace devicetest
