#pragma once
// The Handlink tests' device: a fresh in-process emulator on a temporary socket for every test
// (HANDLINK_SOCKET and HANDLINK_HOST_ID_FILE point into the test's own folder), devices made
// there, and a subscription that records every device event on the main thread.
#include <QString>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "handlink/Handlink.h"
#include "handlink/emulator/Emulator.h"

namespace hltest {

// One delivered event. The reference is retained for as long as the recorder lives.
struct Event {
    HLDeviceRef device;
    QString identifier;
    uint32_t msg;
};

// Subscribes on the calling (main) thread and keeps every event in order.
class EventRecorder {
public:
    EventRecorder();
    ~EventRecorder();
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

    const std::vector<Event>& events() const { return _events; }
    // Runs the event loop until there are at least n events; false if they never came.
    bool waitForCount(size_t n);
    // The reference of the last "attached" event for this identifier, or nullptr.
    HLDeviceRef lastAttached(const QString& identifier) const;
    // Ends the subscription (no more events).
    void unsubscribe();

private:
    static void callback(HLDeviceNotificationInfo* info, void* context);
    HLDeviceNotificationRef _handle = nullptr;
    std::vector<Event> _events;
};

class HandlinkTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    QString root() const { return _root.path(); }
    QString socketPath() const { return _root.path() + QStringLiteral("/run/handlinkd.sock"); }
    // Makes a new device folder under the test folder; returns its path.
    QString makeDeviceFolder(const QString& name = QStringLiteral("Tamber"), const QString& deviceClass = QStringLiteral("Tamber"));
    // Makes and attaches a device.
    std::shared_ptr<handlink::emu::Device> attachNewDevice(const QString& name = QStringLiteral("Tamber"));
    // A subscription's reference for the attached device (subscribes on first use).
    HLDeviceRef refFor(const QString& identifier);
    // Connect, pair when needed and start a session on ref: the way the device classes do.
    void openSession(HLDeviceRef ref);
    void closeSession(HLDeviceRef ref);

    std::unique_ptr<handlink::emu::Emulator> emulator;
    std::unique_ptr<EventRecorder> recorder;

private:
    QTemporaryDir _root;
    int _made = 0;
};

// A Handlink test with one attached device and the subscription's reference for it.
class AttachedDeviceTest : public HandlinkTest {
protected:
    // Makes and attaches a device with this name and finds its reference (fatal failure if not).
    void attachDevice(const QString& name);

    std::shared_ptr<handlink::emu::Device> device;
    HLDeviceRef ref = nullptr;
};

}  // namespace hltest
