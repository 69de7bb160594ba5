#pragma once
// One in-process emulator for a whole test binary (the device registry subscribes once per
// process): its socket and this host's configuration folder live in a temporary folder
// (HANDLINK_SOCKET, XDG_CONFIG_HOME), devices are made below it, and attach and detach wait
// until the registry has seen the change.
#include <QString>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

#include "device/LinkDev.h"
#include "handlink/emulator/Emulator.h"

namespace testsupport {

class EmulatorTestbed {
public:
    // Devices made here get the identifiers "0000<n>-<identifierTag>", n counting from 1.
    explicit EmulatorTestbed(const QString& identifierTag);
    virtual ~EmulatorTestbed();
    void start();  // a test failure when the emulator does not start
    void stop();

    handlink::emu::Emulator& emulator() { return *_emulator; }
    QString root() const { return _root.path(); }

    // Makes a new device folder (the next identifier unless options name one); empty on failure.
    QString makeDeviceFolder(handlink::emu::MakeDeviceOptions options = {});
    // Makes a device folder and attaches it; see attachFolder.
    std::shared_ptr<handlink::emu::Device> attachNewDevice(const handlink::emu::MakeDeviceOptions& options = {},
                                                           const std::function<void(handlink::emu::Device&)>& prepare = {});
    // Attaches a device folder, runs prepare on the device, and waits (running the main event
    // loop) until the registry lists it.
    std::shared_ptr<handlink::emu::Device> attachFolder(const QString& folder,
                                                        const std::function<void(handlink::emu::Device&)>& prepare = {});
    // Detaches and waits until the registry no longer lists it.
    void detach(const std::shared_ptr<handlink::emu::Device>& device);

    // What "listed" and "no longer listed" mean, given the device's identifier; by default
    // whether availableDeviceIdentifiers() holds it. waitMs bounds each wait (a guard against
    // hangs, not a timing check).
    std::function<bool(const QString& identifier)> listed;
    std::function<bool(const QString& identifier)> gone;
    int waitMs = 20000;

    // A new device object for the attached device with this identifier: the registry hands out
    // the first and the last device, so tests keep at most two attached (null if none).
    static std::shared_ptr<LinkDev> linkDevFor(const QString& identifier);

private:
    QTemporaryDir _root;
    QString _identifierTag;
    std::unique_ptr<handlink::emu::Emulator> _emulator;
    int _made = 0;
};

// A fresh device attached for each test through Bed::instance(), and a device object for it.
template <class Bed>
class AttachedDeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        device = Bed::instance().attachNewDevice();
        ASSERT_TRUE(device);
        dev = Bed::linkDevFor(device->identifier());
        ASSERT_TRUE(dev);
    }
    void TearDown() override
    {
        dev.reset();
        Bed::instance().detach(device);
    }

    std::shared_ptr<handlink::emu::Device> device;
    std::shared_ptr<LinkDev> dev;
};

}  // namespace testsupport
