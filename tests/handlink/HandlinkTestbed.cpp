#include "HandlinkTestbed.h"

#include "support/TestSupport.h"

namespace hltest {

EventRecorder::EventRecorder() {
    EXPECT_EQ(HLDeviceNotificationSubscribe(&EventRecorder::callback, 0, 1, this, &_handle), kHLDSuccess);
}

EventRecorder::~EventRecorder() {
    unsubscribe();
    for (const Event& event : _events) HLDeviceRelease(event.device);
}

void EventRecorder::unsubscribe() {
    if (_handle) HLDeviceNotificationUnsubscribe(_handle);
    _handle = nullptr;
}

void EventRecorder::callback(HLDeviceNotificationInfo* info, void* context) {
    auto* self = static_cast<EventRecorder*>(context);
    HLDeviceRetain(info->device);
    self->_events.push_back(Event{info->device, HLDeviceCopyDeviceIdentifier(info->device), info->msg});
}

bool EventRecorder::waitForCount(size_t n) {
    return testsupport::runUntil([&] { return _events.size() >= n; });
}

HLDeviceRef EventRecorder::lastAttached(const QString& identifier) const {
    for (auto it = _events.rbegin(); it != _events.rend(); ++it)
        if (it->identifier == identifier && it->msg == kHLDNotificationConnected) return it->device;
    return nullptr;
}

void HandlinkTest::SetUp() {
    ASSERT_TRUE(_root.isValid());
    qputenv("HANDLINK_SOCKET", socketPath().toUtf8());
    qputenv("HANDLINK_HOST_ID_FILE", (root() + QStringLiteral("/config/hostid")).toUtf8());
    emulator = std::make_unique<handlink::emu::Emulator>(socketPath());
    QString error;
    ASSERT_TRUE(emulator->start(&error)) << error.toStdString();
}

void HandlinkTest::TearDown() {
    recorder.reset();
    emulator.reset();
}

QString HandlinkTest::makeDeviceFolder(const QString& name, const QString& deviceClass) {
    const QString folder = root() + QStringLiteral("/devices/device%1").arg(++_made);
    handlink::emu::MakeDeviceOptions options;
    options.name = name;
    options.deviceClass = deviceClass;
    QString error;
    EXPECT_TRUE(handlink::emu::makeDevice(folder, options, &error)) << error.toStdString();
    return folder;
}

std::shared_ptr<handlink::emu::Device> HandlinkTest::attachNewDevice(const QString& name) {
    QString error;
    auto device = emulator->attach(makeDeviceFolder(name), &error);
    EXPECT_TRUE(device) << error.toStdString();
    return device;
}

HLDeviceRef HandlinkTest::refFor(const QString& identifier) {
    if (!recorder) recorder = std::make_unique<EventRecorder>();
    HLDeviceRef ref = nullptr;
    testsupport::runUntil([&] { return (ref = recorder->lastAttached(identifier)) != nullptr; });
    return ref;
}

void HandlinkTest::openSession(HLDeviceRef ref) {
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    if (!HLDeviceIsPaired(ref)) {
        ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    }
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
}

void HandlinkTest::closeSession(HLDeviceRef ref) {
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
}

void AttachedDeviceTest::attachDevice(const QString& name) {
    device = attachNewDevice(name);
    ASSERT_TRUE(device);
    ref = refFor(device->identifier());
    ASSERT_TRUE(ref);
}

}  // namespace hltest
