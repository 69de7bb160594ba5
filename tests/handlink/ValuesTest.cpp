// Device values: the values a new device has, typed round trips through the library and
// through device.plist, read-only identity keys.
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimeZone>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>

#include "HandlinkTestbed.h"
#include "handlink/emulator/DeviceFolder.h"
#include "platform/PropertyList.h"

using namespace hltest;

namespace {

// The device key table of the metadata file, in its order, with the type of each value.
const struct {
    const char* key;
    QMetaType::Type type;
} kDeviceKeys[] = {
    {"DeviceClass", QMetaType::QString},
    {"UniqueDeviceID", QMetaType::QString},
    {"DeviceName", QMetaType::QString},
    {"BuildVersion", QMetaType::QString},
    {"ProductVersion", QMetaType::QString},
    {"ProductType", QMetaType::QString},
    {"SerialNumber", QMetaType::QString},
    {"InternationalMobileEquipmentIdentity", QMetaType::QString},
    {"InternationalMobileSubscriberIdentity", QMetaType::QString},
    {"IntegratedCircuitCardIdentity", QMetaType::QString},
    {"SIMStatus", QMetaType::QString},
    {"BasebandVersion", QMetaType::QString},
    {"FirmwareVersion", QMetaType::QString},
    {"WiFiAddress", QMetaType::QString},
    {"BluetoothAddress", QMetaType::QString},
    {"LumenHasConnected", QMetaType::Bool},
    {"TotalDiskCapacity", QMetaType::LongLong},
    {"TotalSystemCapacity", QMetaType::LongLong},
    {"TotalSystemAvailable", QMetaType::LongLong},
    {"TotalDataCapacity", QMetaType::LongLong},
    {"TotalDataAvailable", QMetaType::LongLong},
    {"AmountDataReserved", QMetaType::LongLong},
    {"AmountDataAvailable", QMetaType::LongLong},
    {"PhotoUsage", QMetaType::LongLong},
    {"CameraUsage", QMetaType::LongLong},
    {"CalendarUsage", QMetaType::LongLong},
    {"VoicemailUsage", QMetaType::LongLong},
    {"NotesUsage", QMetaType::LongLong},
    {"MediaCacheUsage", QMetaType::LongLong},
    {"CalculateDiskUsage", QMetaType::Bool},
    {"AmountCameraAvailable", QMetaType::LongLong},
    {"TimeZoneOffsetFromUTC", QMetaType::Double},
    {"Language", QMetaType::QString},
    {"Locale", QMetaType::QString},
    {"TimeIntervalSince1970", QMetaType::Double},
    {"TimeZone", QMetaType::QString},
    {"Uses24HourClock", QMetaType::Bool},
    {"IsInternal", QMetaType::Bool},
    {"Internal", QMetaType::Bool},
    {"Standard", QMetaType::Bool},
    {"ModelNumber", QMetaType::QString},
};

class Values : public AttachedDeviceTest {
protected:
    void SetUp() override {
        HandlinkTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(attachDevice(QStringLiteral("Values Tamber")));
        openSession(ref);
    }
    void TearDown() override {
        if (ref) closeSession(ref);
        HandlinkTest::TearDown();
    }
};

// One value of every property-list type, with the cases where types get confused: a real with
// an integral value, integers 0 and 1 beside false and true, empty texts, data and containers.
QVariantMap scalars() {
    QVariantMap values;
    values.insert(QStringLiteral("string"), QStringLiteral("Grüße, \"quoted\" & <tagged>"));
    values.insert(QStringLiteral("string-empty"), QString(QLatin1String("")));
    values.insert(QStringLiteral("string-digits"), QStringLiteral("42"));
    values.insert(QStringLiteral("integer"), qint64(-5000000000LL));
    values.insert(QStringLiteral("integer-max"), std::numeric_limits<qint64>::max());
    values.insert(QStringLiteral("integer-0"), qint64(0));
    values.insert(QStringLiteral("integer-1"), qint64(1));
    values.insert(QStringLiteral("real"), 0.125);
    values.insert(QStringLiteral("real-integral"), 2.0);
    values.insert(QStringLiteral("real-0"), 0.0);
    values.insert(QStringLiteral("true"), true);
    values.insert(QStringLiteral("false"), false);
    values.insert(QStringLiteral("date"), QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), QTimeZone::utc()));
    values.insert(QStringLiteral("data"), QByteArray("\x00\x01\x02\xfe\xff", 5));
    values.insert(QStringLiteral("data-empty"), QByteArray(""));
    values.insert(QStringLiteral("array-empty"), QVariantList());
    values.insert(QStringLiteral("dict-empty"), QVariantMap());
    return values;
}

// Every scalar at the top, and again inside an array and a dictionary, nested both ways.
QVariantMap sampleValues() {
    const QVariantMap flat = scalars();
    QVariantList array = flat.values();
    array.append(QVariantList{flat.value(QStringLiteral("real-integral")), flat.value(QStringLiteral("integer-1")),
                              QVariantList{flat.value(QStringLiteral("true"))}});
    array.append(flat);
    QVariantMap dict = flat;
    dict.insert(QStringLiteral("array"), flat.values());
    QVariantMap inner = flat;
    inner.insert(QStringLiteral("deeper"), QVariantList{flat});
    dict.insert(QStringLiteral("dict"), inner);
    QVariantMap values = flat;
    values.insert(QStringLiteral("array"), array);
    values.insert(QStringLiteral("dict"), dict);
    return values;
}

// Compares type and value, element by element: QVariant's == compares numbers across types
// (an integer 2 equals a real 2.0, true equals 1), so it cannot tell a type that changed.
void expectSameTyped(const QVariant& actual, const QVariant& expected, const QString& where) {
    if (actual.typeId() != expected.typeId()) {
        ADD_FAILURE() << where.toStdString() << ": " << (actual.typeName() ? actual.typeName() : "no value")
                      << " instead of " << expected.typeName();
        return;
    }
    switch (expected.typeId()) {
    case QMetaType::QVariantList: {
        const QVariantList a = actual.toList(), e = expected.toList();
        if (a.size() != e.size()) {
            ADD_FAILURE() << where.toStdString() << ": " << a.size() << " items instead of " << e.size();
            return;
        }
        for (qsizetype i = 0; i < e.size(); ++i) expectSameTyped(a[i], e[i], QStringLiteral("%1[%2]").arg(where).arg(i));
        return;
    }
    case QMetaType::QVariantMap: {
        const QVariantMap a = actual.toMap(), e = expected.toMap();
        EXPECT_EQ(a.keys(), e.keys()) << where.toStdString();
        for (auto it = e.begin(); it != e.end(); ++it)
            if (a.contains(it.key())) expectSameTyped(a.value(it.key()), it.value(), where + QLatin1Char('.') + it.key());
        return;
    }
    case QMetaType::Double:
        EXPECT_EQ(actual.toDouble(), expected.toDouble()) << where.toStdString();
        return;
    default:
        EXPECT_EQ(actual, expected) << where.toStdString();  // the same type by now
    }
}

}  // namespace

TEST_F(Values, EveryDeviceAnswersEveryKeyOfTheKeyTableWithItsType) {
    static_assert(std::size(kDeviceKeys) == 41);
    auto zephyr = emulator->attach(makeDeviceFolder(QStringLiteral("Pocket"), QStringLiteral("Zephyr")));
    ASSERT_TRUE(zephyr);
    HLDeviceRef zephyrRef = refFor(zephyr->identifier());
    ASSERT_TRUE(zephyrRef);
    openSession(zephyrRef);
    for (HLDeviceRef each : {ref, zephyrRef}) {
        for (const auto& entry : kDeviceKeys) {
            const QVariant value = HLDeviceCopyValue(each, QString(), QLatin1String(entry.key));  // no domain
            EXPECT_EQ(value.typeId(), int(entry.type)) << entry.key << ": " << (value.isValid() ? value.typeName() : "no value");
        }
    }
    closeSession(zephyrRef);
    EXPECT_EQ(device->count(QStringLiteral("get-value")), int(std::size(kDeviceKeys)));

    // The same folder name and seed make the same values.
    const QVariant all = HLDeviceCopyValue(ref, QString(), QString());  // no key: the whole domain
    ASSERT_EQ(all.typeId(), QMetaType::QVariantMap);
    const QVariantMap global = all.toMap();
    handlink::emu::MakeDeviceOptions options;
    options.name = QStringLiteral("Values Tamber");
    const QString again = root() + QStringLiteral("/again/") + QFileInfo(device->folder()).fileName();
    ASSERT_TRUE(handlink::emu::makeDevice(again, options));
    const auto plist = platform::plist::readFile(handlink::emu::folder::plistPath(again));
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->toMap().value(QStringLiteral("Values")).toMap(), global);

    EXPECT_EQ(global.value(QStringLiteral("DeviceName")).toString(), QStringLiteral("Values Tamber"));
    EXPECT_EQ(global.value(QStringLiteral("DeviceClass")).toString(), QStringLiteral("Tamber"));
    EXPECT_EQ(global.value(QStringLiteral("UniqueDeviceID")).toString(), device->identifier());
    EXPECT_GT(global.value(QStringLiteral("TotalSystemCapacity")).toLongLong(), qint64(1) << 31);
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
    options.deviceClass = QStringLiteral("Quillow");
    EXPECT_FALSE(handlink::emu::makeDevice(root() + QStringLiteral("/devices/bad"), options, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("Quillow")));
    EXPECT_FALSE(handlink::emu::makeDevice(folder, {}, &error));  // a device folder already
    // A folder that is not a device cannot be attached.
    EXPECT_FALSE(emulator->attach(root() + QStringLiteral("/devices/none"), &error));
    EXPECT_FALSE(error.isEmpty());
    // Nor can a device twice.
    EXPECT_FALSE(emulator->attach(folder, &error));
}

TEST_F(Values, TheComparisonTellsTypesApart) {
    // What the round trips below rely on: QVariant's own == would let these pass.
    ASSERT_EQ(QVariant(qint64(2)), QVariant(2.0));
    ::testing::TestPartResultArray failures;
    {
        ::testing::ScopedFakeTestPartResultReporter reporter(::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD,
                                                             &failures);
        expectSameTyped(QVariant(qint64(2)), QVariant(2.0), QStringLiteral("top"));
        expectSameTyped(QVariantList{QVariantMap{{QStringLiteral("k"), qint64(1)}}},
                        QVariantList{QVariantMap{{QStringLiteral("k"), true}}}, QStringLiteral("nested"));
        expectSameTyped(QVariantList{qint64(1)}, QVariantList{qint64(1), qint64(2)}, QStringLiteral("short"));
    }
    ASSERT_EQ(failures.size(), 3);
    EXPECT_NE(std::string(failures.GetTestPartResult(1).message()).find("nested[0].k"), std::string::npos);
}

TEST_F(Values, TypedValuesRoundTripThroughTheLibraryAndDevicePlist) {
    const QVariantMap values = sampleValues();
    for (auto it = values.begin(); it != values.end(); ++it) {
        ASSERT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example.types"), it.key(), it.value()), kHLDSuccess) << it.key().toStdString();
        ASSERT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("custom.") + it.key(), it.value()), kHLDSuccess);
    }
    for (auto it = values.begin(); it != values.end(); ++it) {
        expectSameTyped(HLDeviceCopyValue(ref, QStringLiteral("com.example.types"), it.key()), it.value(), it.key());
        expectSameTyped(HLDeviceCopyValue(ref, QString(), QStringLiteral("custom.") + it.key()), it.value(),
                        QStringLiteral("custom.") + it.key());
    }
    expectSameTyped(HLDeviceCopyValue(ref, QStringLiteral("com.example.types"), QString()), values, QStringLiteral("domain"));

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
    expectSameTyped(HLDeviceCopyValue(ref, QStringLiteral("com.example.types"), QString()), values,
                    QStringLiteral("after restart"));
    for (auto it = values.begin(); it != values.end(); ++it)
        expectSameTyped(HLDeviceCopyValue(ref, QString(), QStringLiteral("custom.") + it.key()), it.value(),
                        QStringLiteral("after restart: custom.") + it.key());
    const auto plist = platform::plist::readFile(handlink::emu::folder::plistPath(folder));
    ASSERT_TRUE(plist);
    expectSameTyped(plist->toMap().value(QStringLiteral("Domains")).toMap().value(QStringLiteral("com.example.types")), values,
                    QStringLiteral("device.plist"));
}

TEST_F(Values, DatesAreKeptToTheSecond) {
    // A fraction of a second is cut off when the device takes the value, also inside an array,
    // so the date reads back the same now and from device.plist.
    const QDateTime whole(QDate(2024, 2, 29), QTime(23, 59, 58), QTimeZone::utc());
    ASSERT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("custom.date"), whole.addMSecs(750)), kHLDSuccess);
    ASSERT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("custom.dates"), QVariantList{whole.addMSecs(1)}), kHLDSuccess);
    expectSameTyped(HLDeviceCopyValue(ref, QString(), QStringLiteral("custom.date")), whole, QStringLiteral("date"));
    expectSameTyped(HLDeviceCopyValue(ref, QString(), QStringLiteral("custom.dates")), QVariantList{whole}, QStringLiteral("dates"));
    const auto plist = platform::plist::readFile(handlink::emu::folder::plistPath(device->folder()));
    ASSERT_TRUE(plist);
    expectSameTyped(plist->toMap().value(QStringLiteral("Values")).toMap().value(QStringLiteral("custom.date")), whole,
                    QStringLiteral("device.plist"));
}

TEST_F(Values, AValueChangesOnlyOnceDevicePlistHoldsIt) {
    const QString domain = QStringLiteral("com.example.disk");
    ASSERT_EQ(HLDeviceSetValue(ref, domain, QStringLiteral("kept"), QStringLiteral("before")), kHLDSuccess);
    device->setPairing(QStringLiteral("forget"));

    // A folder where device.plist was: no write can succeed.
    const QString plist = handlink::emu::folder::plistPath(device->folder());
    ASSERT_TRUE(QFile::rename(plist, plist + QStringLiteral(".aside")));
    ASSERT_TRUE(QDir().mkpath(plist + QStringLiteral("/blocker")));
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Unsaved")), kHLDWriteError);
    EXPECT_EQ(HLDeviceSetValue(ref, domain, QStringLiteral("kept"), QStringLiteral("after")), kHLDWriteError);
    EXPECT_EQ(HLDeviceSetValue(ref, domain, QStringLiteral("new"), 1), kHLDWriteError);
    EXPECT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example.fresh"), QStringLiteral("k"), 1), kHLDWriteError);
    EXPECT_EQ(HLDevicePair(ref), kHLDWriteError);

    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Values Tamber"));
    EXPECT_EQ(device->value(domain, QStringLiteral("kept")).toString(), QStringLiteral("before"));
    EXPECT_FALSE(device->value(domain, QStringLiteral("new")).isValid());
    EXPECT_FALSE(HLDeviceCopyValue(ref, domain, QStringLiteral("new")).isValid());
    EXPECT_FALSE(device->value(QStringLiteral("com.example.fresh"), QStringLiteral("k")).isValid());
    EXPECT_FALSE(HLDeviceIsPaired(ref));

    // Once device.plist can be written again, the next change saves what the device holds:
    // none of the failed changes.
    ASSERT_TRUE(QDir(plist).removeRecursively());
    ASSERT_TRUE(QFile::rename(plist + QStringLiteral(".aside"), plist));
    ASSERT_EQ(HLDeviceSetValue(ref, domain, QStringLiteral("later"), true), kHLDSuccess);
    const auto saved = platform::plist::readFile(plist);
    ASSERT_TRUE(saved);
    const QVariantMap root = saved->toMap();
    EXPECT_EQ(root.value(QStringLiteral("Values")).toMap().value(QStringLiteral("DeviceName")).toString(), QStringLiteral("Values Tamber"));
    const QVariantMap domains = root.value(QStringLiteral("Domains")).toMap();
    EXPECT_FALSE(domains.contains(QStringLiteral("com.example.fresh")));
    QVariantMap expected;
    expected.insert(QStringLiteral("kept"), QStringLiteral("before"));
    expected.insert(QStringLiteral("later"), true);
    expectSameTyped(domains.value(domain), expected, domain);
    EXPECT_TRUE(root.value(QStringLiteral("PairingRecords")).toMap().isEmpty());
}

TEST_F(Values, IdentityKeysAreReadOnly) {
    const char* const readOnly[] = {"UniqueDeviceID", "SerialNumber", "DeviceClass", "ProductType", "ModelNumber",
                                    "InternationalMobileEquipmentIdentity", "WiFiAddress", "BluetoothAddress"};
    for (const char* key : readOnly) {
        const QString name = QLatin1String(key);
        const QVariant before = HLDeviceCopyValue(ref, QString(), name);
        ASSERT_TRUE(before.isValid()) << key;
        EXPECT_EQ(HLDeviceSetValue(ref, QString(), name, QStringLiteral("forged")), kHLDSetProhibitedError) << key;
        expectSameTyped(HLDeviceCopyValue(ref, QString(), name), before, name);
        expectSameTyped(device->value(QString(), name), before, name);
    }
    EXPECT_EQ(device->count(QStringLiteral("set-value")), int(std::size(readOnly)));
    // The same key in another domain is an ordinary key; the name is not read-only.
    EXPECT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example"), QStringLiteral("SerialNumber"), QStringLiteral("mine")), kHLDSuccess);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Renamed")), kHLDSuccess);
    EXPECT_EQ(device->value(QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Renamed"));
    // Neither an empty key nor "no value" can be set.
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QString(), QStringLiteral("x")), kHLDInvalidArgumentError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("Nothing"), QVariant()), kHLDInvalidArgumentError);
    EXPECT_FALSE(device->value(QString(), QStringLiteral("Nothing")).isValid());
}
