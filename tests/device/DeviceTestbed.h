#pragma once
// The device tests' emulator: one in-process emulator per test binary on one socket path
// (the registry subscribes once per process), devices made in a temporary folder, and
// helpers that wait until the registry has seen an attach or detach.
#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>

#include "device/LinkDev.h"
#include "handlink/emulator/Emulator.h"

namespace devicetest {

class Testbed {
public:
    // Created by the test environment (before the first test), stopped after the last.
    static Testbed& instance();

    Testbed();
    ~Testbed();
    void start();
    void stop();

    handlink::emu::Emulator& emulator() { return *_emulator; }
    QString root() const { return _root.path(); }

    // Makes a new device folder and attaches it; waits until the registry lists it.
    std::shared_ptr<handlink::emu::Device> attachNewDevice(const QString& name = QStringLiteral("Tamber"));
    // Attaches a device folder made earlier; waits until the registry lists it.
    std::shared_ptr<handlink::emu::Device> attachFolder(const QString& folder);
    // Detaches and waits until the registry no longer lists it.
    void detach(const std::shared_ptr<handlink::emu::Device>& device);
    // A new device object for the attached device with this identifier.
    static std::shared_ptr<LinkDev> linkDevFor(const QString& identifier);

private:
    QTemporaryDir _root;
    std::unique_ptr<handlink::emu::Emulator> _emulator;
    int _made = 0;
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
class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        device = Testbed::instance().attachNewDevice();
        ASSERT_TRUE(device);
        dev = Testbed::linkDevFor(device->identifier());
        ASSERT_TRUE(dev);
    }
    void TearDown() override
    {
        dev.reset();
        Testbed::instance().detach(device);
    }

    std::shared_ptr<handlink::emu::Device> device;
    std::shared_ptr<LinkDev> dev;
};

}  // namespace devicetest
