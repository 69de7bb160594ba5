// Device values, the change notification, the device name and notification posting.
#include <QDateTime>
#include <QThread>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

#include "DeviceTestbed.h"
#include "device/HLLockdownSession.h"
#include "device/HLNotificationProxy.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"

using devicetest::DeviceTest;
using handlink::emu::Fault;

namespace {

const QString kDomain = QStringLiteral("com.corvid.mobiletamber");

// Records every LinkDevLockdownValueDidChange while alive.
class ChangeRecorder {
public:
    ChangeRecorder()
    {
        platform::NotificationCenter::defaultCenter().addObserver(
            &_owner, LinkDevLockdownValueDidChange, nullptr,
            [this](const platform::Notification& n) { notifications.push_back(n); });
    }
    std::vector<platform::Notification> notifications;

private:
    QObject _owner;
};

bool isIntegerValue(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return true;
    default:
        return false;
    }
}

}  // namespace

using DeviceValues = DeviceTest;

TEST_F(DeviceValues, TypedValuesRoundTrip)
{
    const QDateTime when(QDate(2011, 3, 4), QTime(5, 6, 7), QTimeZone::utc());
    const QVariantMap dict{{"a", 1}, {"b", QStringLiteral("two")}};
    const QList<QPair<QString, QVariant>> values = {
        {"text", QStringLiteral("hello world")},
        {"integer", qint64(-42)},
        {"real", 2.5},
        {"flag", true},
        {"date", when},
        {"data", QByteArray("\x00\x01\xff", 3)},
        {"list", QVariantList{1, QStringLiteral("x")}},
        {"dict", dict},
    };
    dev->beginLockdownSession();
    for (const auto& [key, value] : values) dev->setLockdownValue(value, key, kDomain);
    for (const auto& [key, value] : values) {
        const QVariant back = dev->lockdownValueForKey(key, kDomain, QVariant());
        EXPECT_EQ(back, value) << key.toStdString();
        EXPECT_EQ(back.typeId(), device->value(kDomain, key).typeId()) << key.toStdString();
    }
    dev->endLockdownSession();
    EXPECT_EQ(device->count("connect"), 1);  // one outer session around all of them
    EXPECT_EQ(device->count("set-value"), values.size());
    EXPECT_EQ(device->value(kDomain, "text"), QStringLiteral("hello world"));
}

TEST_F(DeviceValues, SuccessfulSetIsLoggedAndAnnouncedOnce)
{
    ChangeRecorder changes;
    platform::LogCapture log;
    dev->setLockdownValue(QStringLiteral("on"), QStringLiteral("syncDebug.custom"), kDomain);
    EXPECT_EQ(log.lines(),
              QStringList{"setting lockdown value domain=com.corvid.mobiletamber, key=syncDebug.custom, value=on"});
    ASSERT_EQ(changes.notifications.size(), 1u);
    const platform::Notification& n = changes.notifications[0];
    EXPECT_EQ(n.sender, dev.get());
    EXPECT_EQ(n.userInfo.keys(), QStringList{"keys"});
    EXPECT_EQ(n.userInfo.value("keys").toStringList(), QStringList{"syncDebug.custom"});
    EXPECT_EQ(device->value(kDomain, "syncDebug.custom"), QStringLiteral("on"));
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(DeviceValues, GlobalDomainIsWrittenAsNull)
{
    platform::LogCapture log;
    dev->setLockdownValue(qint64(3), QStringLiteral("TestCounter"), QString());
    EXPECT_EQ(log.lines(), QStringList{"setting lockdown value domain=(null), key=TestCounter, value=3"});
    EXPECT_EQ(device->value(QString(), "TestCounter").toLongLong(), 3);
    EXPECT_EQ(dev->lockdownValueForKey("TestCounter", QString(), QVariant()).toLongLong(), 3);
}

TEST_F(DeviceValues, EmptyKeyTouchesNothing)
{
    ChangeRecorder changes;
    platform::LogCapture log;
    dev->setLockdownValue(QStringLiteral("x"), QString(), kDomain);
    dev->setLockdownValue(QStringLiteral("x"), QStringLiteral(""), kDomain);
    EXPECT_EQ(dev->lockdownValueForKey(QString(), kDomain, QStringLiteral("fallback")), QStringLiteral("fallback"));
    EXPECT_TRUE(changes.notifications.empty());
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(device->count("connect"), 0);
    EXPECT_EQ(device->count("set-value"), 0);
    EXPECT_EQ(device->count("get-value"), 0);
}

TEST_F(DeviceValues, FailedSetIsLoggedAndNotAnnounced)
{
    ChangeRecorder changes;
    Fault f;
    f.operation = "set-value";
    f.status = kHLDInvalidArgumentError;
    device->addFault(f);
    platform::LogCapture log;
    dev->setLockdownValue(QStringLiteral("v"), QStringLiteral("k"), kDomain);
    EXPECT_EQ(log.lines(),
              (QStringList{"setting lockdown value domain=com.corvid.mobiletamber, key=k, value=v",
                           "ERROR: Attempt to set lockdown domain=com.corvid.mobiletamber, key=k, value=v, failed.  "
                           "error = HLDError: 'HLDeviceSetValue()', hld_error = -402653177 (kHLDInvalidArgumentError)."}));
    EXPECT_TRUE(changes.notifications.empty());
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
    EXPECT_EQ(device->count("stop-session"), 1);
}

TEST_F(DeviceValues, IdentityKeysAreReadOnly)
{
    ChangeRecorder changes;
    platform::LogCapture log;
    const QVariant before = dev->lockdownValueForKey("UniqueDeviceID", QString(), QVariant());
    EXPECT_EQ(before.toString(), device->identifier());
    dev->setLockdownValue(QStringLiteral("forged"), QStringLiteral("UniqueDeviceID"), QString());
    EXPECT_EQ(log.linesStartingWith("ERROR: ").value(0),
              "ERROR: Attempt to set lockdown domain=(null), key=UniqueDeviceID, value=forged, failed.  error = "
              "HLDError: 'HLDeviceSetValue()', hld_error = -402653161 (kHLDSetProhibitedError).");
    EXPECT_TRUE(changes.notifications.empty());
    EXPECT_EQ(dev->lockdownValueForKey("UniqueDeviceID", QString(), QVariant()), before);
}

TEST_F(DeviceValues, NoSessionMeansNoSetAndTheDefault)
{
    ChangeRecorder changes;
    device->setPairing("refuse");
    platform::LogCapture log;
    dev->setLockdownValue(QStringLiteral("v"), QStringLiteral("k"), kDomain);
    EXPECT_EQ(dev->lockdownValueForKey("DeviceName", QString(), QStringLiteral("dflt")), QStringLiteral("dflt"));
    EXPECT_TRUE(changes.notifications.empty());
    EXPECT_EQ(device->count("set-value"), 0);
    EXPECT_EQ(device->count("get-value"), 0);
    EXPECT_TRUE(log.linesStartingWith("setting lockdown value").isEmpty());
    EXPECT_EQ(log.linesStartingWith("ERROR: could not pair").size(), 2);
}

TEST_F(DeviceValues, MissingValuesAnswerTheDefault)
{
    platform::LogCapture log;
    EXPECT_EQ(dev->lockdownValueForKey("NoSuchKey", kDomain, 17), QVariant(17));
    EXPECT_FALSE(dev->lockdownValueForKey("NoSuchKey", kDomain, QVariant()).isValid());
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(device->count("get-value"), 2);
}

TEST_F(DeviceValues, FlagsAreWrittenAsOneAndZero)
{
    ChangeRecorder changes;
    platform::LogCapture log;
    dev->setLockdownBoolValue(true, "syncDebug.enabled_v2", kDomain);
    const QVariant on = device->value(kDomain, "syncDebug.enabled_v2");
    EXPECT_TRUE(isIntegerValue(on)) << on.typeName();
    EXPECT_EQ(on.toLongLong(), 1);
    EXPECT_TRUE(dev->lockdownBoolValueForKey("syncDebug.enabled_v2", kDomain, false));
    dev->setLockdownBoolValue(false, "syncDebug.enabled_v2", kDomain);
    const QVariant off = device->value(kDomain, "syncDebug.enabled_v2");
    EXPECT_TRUE(isIntegerValue(off)) << off.typeName();
    EXPECT_EQ(off.toLongLong(), 0);
    EXPECT_FALSE(dev->lockdownBoolValueForKey("syncDebug.enabled_v2", kDomain, true));
    EXPECT_EQ(changes.notifications.size(), 2u);
    EXPECT_EQ(log.linesStartingWith("setting lockdown value"),
              (QStringList{"setting lockdown value domain=com.corvid.mobiletamber, key=syncDebug.enabled_v2, value=1",
                           "setting lockdown value domain=com.corvid.mobiletamber, key=syncDebug.enabled_v2, value=0"}));

    // Missing: the default. Numbers: true unless 0.
    EXPECT_TRUE(dev->lockdownBoolValueForKey("missing.flag", kDomain, true));
    EXPECT_FALSE(dev->lockdownBoolValueForKey("missing.flag", kDomain, false));
    dev->setLockdownValue(qint64(2), "number.flag", kDomain);
    EXPECT_TRUE(dev->lockdownBoolValueForKey("number.flag", kDomain, false));
    dev->setLockdownValue(qint64(0), "number.flag", kDomain);
    EXPECT_FALSE(dev->lockdownBoolValueForKey("number.flag", kDomain, true));

    // A flag that something else stored as a property-list boolean reads the same way.
    dev->setLockdownValue(true, "boolean.flag", kDomain);
    EXPECT_EQ(device->value(kDomain, "boolean.flag").typeId(), QMetaType::Bool);
    EXPECT_TRUE(dev->lockdownBoolValueForKey("boolean.flag", kDomain, false));
    dev->setLockdownValue(false, "boolean.flag", kDomain);
    EXPECT_FALSE(dev->lockdownBoolValueForKey("boolean.flag", kDomain, true));
}

TEST_F(DeviceValues, ChangeIsAnnouncedOnTheSettingThreadWhileTheSessionIsOpen)
{
    // What the observer saw while it ran: the thread, the session count of the device object
    // and how many sessions the device had stopped by then.
    struct Seen {
        QThread* thread = nullptr;
        intptr_t sessionOpenCount = -1;
        int stopsOnDevice = -1;
    };
    std::mutex mutex;
    std::vector<Seen> seen;
    QObject owner;
    platform::NotificationCenter::defaultCenter().addObserver(
        &owner, LinkDevLockdownValueDidChange, dev.get(), [&](const platform::Notification&) {
            std::lock_guard guard(mutex);
            seen.push_back({QThread::currentThread(), dev->lockdownSession()->sessionOpenCount(),
                            device->count("stop-session")});
        });

    dev->setLockdownValue(QStringLiteral("main"), QStringLiteral("announce.key"), kDomain);
    QThread* workerThread = nullptr;
    std::thread worker([&] {
        workerThread = QThread::currentThread();
        dev->setLockdownValue(QStringLiteral("worker"), QStringLiteral("announce.key"), kDomain);
    });
    worker.join();
    platform::NotificationCenter::defaultCenter().removeObserver(&owner);

    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].thread, QThread::currentThread());
    EXPECT_EQ(seen[1].thread, workerThread);
    EXPECT_NE(workerThread, QThread::currentThread());
    for (const Seen& s : seen) EXPECT_EQ(s.sessionOpenCount, 1);  // inside the set's own session
    EXPECT_EQ(seen[0].stopsOnDevice, 0);  // not stopped yet when the first set was announced
    EXPECT_EQ(seen[1].stopsOnDevice, 1);  // only the first set's session had been stopped
    EXPECT_EQ(device->count("stop-session"), 2);
}

TEST_F(DeviceValues, NameIsTheDevicesName)
{
    EXPECT_EQ(dev->name(), "Tamber");
    dev->setLockdownValue(QStringLiteral("Lab Zephyr"), "DeviceName", QString());
    EXPECT_EQ(dev->name(), "Lab Zephyr");
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(DeviceValues, PostsShareOneNotificationServiceForTheDevicesLife)
{
    EXPECT_TRUE(dev->postNotification("com.corvid.lumen-linkdev.syncWillStart"));
    EXPECT_TRUE(dev->postNotification("com.corvid.lumen-linkdev.syncDidStart"));
    EXPECT_EQ(device->count("start-service"), 1);
    EXPECT_EQ(device->postedNotifications(),
              (QStringList{"com.corvid.lumen-linkdev.syncWillStart", "com.corvid.lumen-linkdev.syncDidStart"}));
    std::shared_ptr<HLNotificationProxy> service = dev->_notificationSessionForPosting();
    EXPECT_EQ(service->sessionConnectionOpenCount(), 1);
    EXPECT_EQ(dev->activeServiceSessions().count(service), 1u);
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);

    Fault f;
    f.operation = "post-notification";
    f.status = kHLDUndefinedError;
    device->addFault(f);
    platform::LogCapture log;
    EXPECT_FALSE(dev->postNotification("com.corvid.lumen-linkdev.syncDidFinish"));
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(device->postCount("com.corvid.lumen-linkdev.syncDidFinish"), 0);
    EXPECT_EQ(device->count("shutdown-notifications"), 0);
}

TEST_F(DeviceValues, AFailedNotificationStartIsNotRetriedByTheSameObject)
{
    Fault f;
    f.operation = "start-service";
    f.status = kHLDInvalidServiceError;
    device->addFault(f);
    platform::LogCapture log;
    EXPECT_FALSE(dev->postNotification("com.corvid.test.first"));
    EXPECT_EQ(log.linesStartingWith("ERROR: Could not start com.corvid.mobile.notification_proxy service").size(), 1);
    EXPECT_FALSE(dev->postNotification("com.corvid.test.second"));
    EXPECT_EQ(device->count("start-service"), 1);

    // A fresh device object tries again.
    std::shared_ptr<LinkDev> fresh = devicetest::Testbed::linkDevFor(device->identifier());
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh, dev);
    EXPECT_TRUE(fresh->postNotification("com.corvid.test.third"));
    EXPECT_EQ(device->count("start-service"), 2);
    EXPECT_EQ(device->postedNotifications(), QStringList{"com.corvid.test.third"});
}
