// Device values: the values a new device has, typed round trips through the library and
// through device.plist, read-only identity keys.
#include <QDateTime>
#include <QFile>
#include <QTimeZone>
#include <gtest/gtest.h>

#include "HandlinkTestbed.h"
#include "handlink/emulator/DeviceFolder.h"
#include "platform/PropertyList.h"

using namespace hltest;

namespace {

// The device key table of the metadata file, in its order.
const char* const kDeviceKeys[] = {
    "DeviceClass", "UniqueDeviceID", "DeviceName", "BuildVersion", "ProductVersion", "ProductType", "SerialNumber",
    "InternationalMobileEquipmentIdentity", "InternationalMobileSubscriberIdentity", "IntegratedCircuitCardIdentity",
    "SIMStatus", "BasebandVersion", "FirmwareVersion", "WiFiAddress", "BluetoothAddress", "LumenHasConnected",
    "TotalDiskCapacity", "TotalSystemCapacity", "TotalSystemAvailable", "TotalDataCapacity", "TotalDataAvailable",
    "AmountDataReserved", "AmountDataAvailable", "PhotoUsage", "CameraUsage", "CalendarUsage", "VoicemailUsage",
    "NotesUsage", "MediaCacheUsage", "CalculateDiskUsage", "AmountCameraAvailable", "TimeZoneOffsetFromUTC", "Language",
    "Locale", "TimeIntervalSince1970", "TimeZone", "Uses24HourClock", "IsInternal", "Internal", "Standard", "ModelNumber",
};

class Values : public HandlinkTest {
protected:
    void SetUp() override {
        HandlinkTest::SetUp();
        device = attachNewDevice(QStringLiteral("Values Tamber"));
        ASSERT_TRUE(device);
        ref = refFor(device->identifier());
        ASSERT_TRUE(ref);
        openSession(ref);
    }
    void TearDown() override {
        if (ref) closeSession(ref);
        HandlinkTest::TearDown();
    }
    std::shared_ptr<handlink::emu::Device> device;
    HLDeviceRef ref = nullptr;
};

QVariantMap sampleValues() {
    QVariantMap nested;
    nested.insert(QStringLiteral("depth"), qint64(2));
    nested.insert(QStringLiteral("when"), QDateTime(QDate(2008, 7, 11), QTime(9, 0, 0), QTimeZone::utc()));
    QVariantMap values;
    values.insert(QStringLiteral("string"), QStringLiteral("Grüße, \"quoted\" & <tagged>"));
    values.insert(QStringLiteral("integer"), qint64(-5000000000LL));
    values.insert(QStringLiteral("real"), 0.125);
    values.insert(QStringLiteral("bool"), true);
    values.insert(QStringLiteral("date"), QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), QTimeZone::utc()));
    values.insert(QStringLiteral("data"), QByteArray("\x00\x01\x02\xfe\xff", 5));
    values.insert(QStringLiteral("array"), QVariantList{QStringLiteral("a"), qint64(1), false, QVariantList{2.5}});
    values.insert(QStringLiteral("dict"), nested);
    return values;
}

}  // namespace

TEST_F(Values, ANewDeviceHasEveryKeyOfTheKeyTable) {
    const QVariant all = HLDeviceCopyValue(ref, QString(), QString());  // no key: the whole domain
    ASSERT_EQ(all.typeId(), QMetaType::QVariantMap);
    const QVariantMap global = all.toMap();
    for (const char* key : kDeviceKeys) EXPECT_TRUE(global.contains(QLatin1String(key))) << key;

    EXPECT_EQ(global.value(QStringLiteral("DeviceName")).toString(), QStringLiteral("Values Tamber"));
    EXPECT_EQ(global.value(QStringLiteral("DeviceClass")).toString(), QStringLiteral("Tamber"));
    EXPECT_EQ(global.value(QStringLiteral("UniqueDeviceID")).toString(), device->identifier());
    EXPECT_EQ(global.value(QStringLiteral("TotalDiskCapacity")).typeId(), QMetaType::LongLong);
    EXPECT_GT(global.value(QStringLiteral("TotalSystemCapacity")).toLongLong(), qint64(1) << 31);
    EXPECT_EQ(global.value(QStringLiteral("LumenHasConnected")).typeId(), QMetaType::Bool);
    EXPECT_EQ(global.value(QStringLiteral("TimeZoneOffsetFromUTC")).typeId(), QMetaType::Double);
    // The other property-list types occur among the global values too.
    EXPECT_EQ(global.value(QStringLiteral("ActivationDate")).typeId(), QMetaType::QDateTime);
    EXPECT_EQ(global.value(QStringLiteral("DevicePublicKey")).typeId(), QMetaType::QByteArray);
    EXPECT_EQ(global.value(QStringLiteral("SupportedDeviceFamilies")).typeId(), QMetaType::QVariantList);
    EXPECT_EQ(global.value(QStringLiteral("BatteryInfo")).typeId(), QMetaType::QVariantMap);
    // The media software's domain.
    EXPECT_EQ(HLDeviceCopyValue(ref, QStringLiteral("com.corvid.mobiletamber"), QStringLiteral("syncDebug.dataNeedsRemoval")),
              QVariant(false));
    // An unknown key or domain has no value.
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("NoSuchKey")).isValid());
    EXPECT_FALSE(HLDeviceCopyValue(ref, QStringLiteral("com.example.none"), QStringLiteral("DeviceName")).isValid());
}

TEST_F(Values, ADeviceOfEachClass) {
    const QString folder = makeDeviceFolder(QStringLiteral("Pocket"), QStringLiteral("Zephyr"));
    auto zephyr = emulator->attach(folder);
    ASSERT_TRUE(zephyr);
    EXPECT_EQ(zephyr->value(QString(), QStringLiteral("DeviceClass")).toString(), QStringLiteral("Zephyr"));
    EXPECT_TRUE(zephyr->value(QString(), QStringLiteral("ProductType")).toString().startsWith(QStringLiteral("Zephyr")));
    EXPECT_NE(zephyr->identifier(), device->identifier());

    QString error;
    handlink::emu::MakeDeviceOptions options;
    options.deviceClass = QStringLiteral("Walkman");
    EXPECT_FALSE(handlink::emu::makeDevice(root() + QStringLiteral("/devices/bad"), options, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("Walkman")));
    EXPECT_FALSE(handlink::emu::makeDevice(folder, {}, &error));  // a device folder already
    // A folder that is not a device cannot be attached.
    EXPECT_FALSE(emulator->attach(root() + QStringLiteral("/devices/none"), &error));
    EXPECT_FALSE(error.isEmpty());
    // Nor can a device twice.
    EXPECT_FALSE(emulator->attach(folder, &error));
}

TEST_F(Values, TypedValuesRoundTripThroughTheLibraryAndDevicePlist) {
    const QVariantMap values = sampleValues();
    for (auto it = values.begin(); it != values.end(); ++it) {
        ASSERT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example.types"), it.key(), it.value()), kHLDSuccess) << it.key().toStdString();
        ASSERT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("custom.") + it.key(), it.value()), kHLDSuccess);
    }
    for (auto it = values.begin(); it != values.end(); ++it) {
        const QVariant back = HLDeviceCopyValue(ref, QStringLiteral("com.example.types"), it.key());
        EXPECT_EQ(back.typeId(), it.value().typeId()) << it.key().toStdString();
        EXPECT_EQ(back, it.value()) << it.key().toStdString();
        EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("custom.") + it.key()), it.value());
    }
    // device.plist holds them with their types, so a new emulator run reads them back alike.
    const QString folder = device->folder();
    const QString identifier = device->identifier();
    closeSession(ref);
    recorder.reset();
    ref = nullptr;
    emulator->stop();
    ASSERT_TRUE(emulator->start());
    ASSERT_TRUE(emulator->attach(folder));
    ref = refFor(identifier);
    ASSERT_TRUE(ref);
    openSession(ref);
    EXPECT_EQ(HLDeviceCopyValue(ref, QStringLiteral("com.example.types"), QString()), QVariant(values));
    const auto plist = platform::plist::readFile(handlink::emu::folder::plistPath(folder));
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->toMap().value(QStringLiteral("Domains")).toMap().value(QStringLiteral("com.example.types")), QVariant(values));
}

TEST_F(Values, IdentityKeysAreReadOnly) {
    const QVariant udid = HLDeviceCopyValue(ref, QString(), QStringLiteral("UniqueDeviceID"));
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("UniqueDeviceID"), QStringLiteral("forged")), kHLDSetProhibitedError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("SerialNumber"), QStringLiteral("forged")), kHLDSetProhibitedError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceClass"), QStringLiteral("Zephyr")), kHLDSetProhibitedError);
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("UniqueDeviceID")), udid);
    // The same key in another domain is an ordinary key; the name is not read-only.
    EXPECT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example"), QStringLiteral("SerialNumber"), QStringLiteral("mine")), kHLDSuccess);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Renamed")), kHLDSuccess);
    EXPECT_EQ(device->value(QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Renamed"));
    // Neither an empty key nor "no value" can be set.
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QString(), QStringLiteral("x")), kHLDInvalidArgumentError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("Nothing"), QVariant()), kHLDInvalidArgumentError);
}
