// makeDevice(): a new device folder with the values a real device of its class reports.
#include "handlink/emulator/DeviceFolder.h"
#include "handlink/emulator/Emulator.h"
#include "platform/PropertyList.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QTimeZone>

#ifdef VIREO_HANDLINK_HAVE_SAMPLE_MEDIA
#include "handlink/emulator/sample/SampleMedia.h"
#endif

namespace handlink::emu {

namespace {

// Deterministic bytes for identifiers and serial numbers: a hash of the folder name and seed.
QByteArray seedHash(const QString& salt, const QString& folderName, uint32_t seed) {
    return QCryptographicHash::hash((salt + QLatin1Char(':') + folderName + QLatin1Char(':') + QString::number(seed)).toUtf8(),
                                    QCryptographicHash::Sha1);
}

QString digits(const QByteArray& hash, int count) {
    QString out;
    for (int i = 0; out.size() < count; ++i) out.append(QChar(u'0' + static_cast<unsigned char>(hash[i % hash.size()]) % 10));
    return out;
}

QString macAddress(const QByteArray& hash) {
    QStringList parts;
    for (int i = 0; i < 6; ++i) parts << QString::asprintf("%02x", static_cast<unsigned char>(hash[i]));
    return parts.join(QLatin1Char(':'));
}

// The global domain: every key of the device key table of the metadata file, each with a value
// of the type a device of its class reports, the same for the same folder name and seed; plus
// a few more keys that carry the remaining property-list types (date, data, array, dict).
QVariantMap globalValues(const QString& identifier, const MakeDeviceOptions& options, const QString& folderName) {
    const bool zephyr = options.deviceClass == QLatin1String("Zephyr");
    const QByteArray h = seedHash(QStringLiteral("device"), folderName, options.seed);
    const qint64 gb = 1000LL * 1000 * 1000;
    const qint64 diskCapacity = zephyr ? 16 * gb : 32 * gb;
    const qint64 systemCapacity = 2684354560LL;  // 2.5 GiB: more than 2^31 on purpose
    const qint64 dataCapacity = diskCapacity - systemCapacity;
    const qint64 dataAvailable = dataCapacity / 3;
    // The device's clock when the folder was made: 2023-05-14 10:15 UTC and up to a day more.
    const double clock = 1684059300.0 + double(static_cast<unsigned char>(h[7]) * 337) + 0.25;
    QVariantMap v;
    v.insert(QStringLiteral("DeviceClass"), options.deviceClass);
    v.insert(QStringLiteral("UniqueDeviceID"), identifier);
    v.insert(QStringLiteral("DeviceName"), options.name);
    v.insert(QStringLiteral("BuildVersion"), QStringLiteral("3.1.2-b412"));
    v.insert(QStringLiteral("ProductVersion"), QStringLiteral("3.1.2"));
    v.insert(QStringLiteral("ProductType"), zephyr ? QStringLiteral("Zephyr-2") : QStringLiteral("Tamber-3"));
    v.insert(QStringLiteral("SerialNumber"),
             QStringLiteral("%1%2").arg(zephyr ? QStringLiteral("ZP") : QStringLiteral("TB"), QString::fromLatin1(h.toHex().toUpper().left(9))));
    v.insert(QStringLiteral("InternationalMobileEquipmentIdentity"), QStringLiteral("35%1").arg(digits(h, 13)));
    v.insert(QStringLiteral("InternationalMobileSubscriberIdentity"), QStringLiteral("001010%1").arg(digits(h.mid(3), 9)));
    v.insert(QStringLiteral("IntegratedCircuitCardIdentity"), QStringLiteral("8900101%1").arg(digits(h.mid(5), 12)));
    v.insert(QStringLiteral("SIMStatus"), zephyr ? QStringLiteral("SIMReady") : QStringLiteral("SIMNotInserted"));
    v.insert(QStringLiteral("BasebandVersion"), zephyr ? QStringLiteral("04.26.08") : QStringLiteral("none"));
    v.insert(QStringLiteral("FirmwareVersion"), QStringLiteral("TamberBoot-412.66"));
    v.insert(QStringLiteral("WiFiAddress"), macAddress(h));
    v.insert(QStringLiteral("BluetoothAddress"), macAddress(h.mid(6)));
    v.insert(QStringLiteral("LumenHasConnected"), true);
    v.insert(QStringLiteral("TotalDiskCapacity"), diskCapacity);
    v.insert(QStringLiteral("TotalSystemCapacity"), systemCapacity);
    v.insert(QStringLiteral("TotalSystemAvailable"), systemCapacity / 5);
    v.insert(QStringLiteral("TotalDataCapacity"), dataCapacity);
    v.insert(QStringLiteral("TotalDataAvailable"), dataAvailable);
    v.insert(QStringLiteral("AmountDataReserved"), qint64(209715200));
    v.insert(QStringLiteral("AmountDataAvailable"), dataAvailable - 209715200);
    v.insert(QStringLiteral("PhotoUsage"), qint64(734003200));
    v.insert(QStringLiteral("CameraUsage"), qint64(268435456));
    v.insert(QStringLiteral("CalendarUsage"), qint64(1048576));
    v.insert(QStringLiteral("VoicemailUsage"), qint64(zephyr ? 5242880 : 0));
    v.insert(QStringLiteral("NotesUsage"), qint64(65536));
    v.insert(QStringLiteral("MediaCacheUsage"), qint64(52428800));
    v.insert(QStringLiteral("CalculateDiskUsage"), true);  // the usage figures above are up to date
    v.insert(QStringLiteral("AmountCameraAvailable"), qint64(1073741824));
    v.insert(QStringLiteral("TimeZoneOffsetFromUTC"), -25200.0);
    v.insert(QStringLiteral("Language"), QStringLiteral("en"));
    v.insert(QStringLiteral("Locale"), QStringLiteral("en_US"));
    v.insert(QStringLiteral("TimeIntervalSince1970"), clock);
    v.insert(QStringLiteral("TimeZone"), QStringLiteral("America/Los_Angeles"));
    v.insert(QStringLiteral("Uses24HourClock"), false);
    v.insert(QStringLiteral("IsInternal"), false);
    v.insert(QStringLiteral("Internal"), false);
    v.insert(QStringLiteral("Standard"), true);
    v.insert(QStringLiteral("ModelNumber"), zephyr ? QStringLiteral("ZPH-216") : QStringLiteral("TMB-332"));
    // Not in the key table, but a device has them; they carry the other value types.
    const QDateTime activated = QDateTime(QDate(2023, 2, 6), QTime(9, 30, 0), QTimeZone::utc());
    v.insert(QStringLiteral("ActivationDate"), activated);
    v.insert(QStringLiteral("DevicePublicKey"), seedHash(QStringLiteral("key"), folderName, options.seed));
    v.insert(QStringLiteral("SupportedDeviceFamilies"), QVariantList{qint64(1), qint64(zephyr ? 2 : 3)});
    QVariantMap battery;
    battery.insert(QStringLiteral("BatteryCurrentCapacity"), qint64(87));
    battery.insert(QStringLiteral("BatteryIsCharging"), true);
    v.insert(QStringLiteral("BatteryInfo"), battery);
    return v;
}

QVariantMap mediaDomain() {
    QVariantMap tamber;
    tamber.insert(QStringLiteral("syncDebug.enabled_v2"), false);
    tamber.insert(QStringLiteral("syncDebug.dataNeedsRemoval"), false);
    QVariantMap domains;
    domains.insert(QStringLiteral("com.corvid.mobiletamber"), tamber);
    return domains;
}

}  // namespace

bool makeDevice(const QString& folderPath, const MakeDeviceOptions& options, QString* error) {
    auto fail = [error](const QString& message) {
        if (error) *error = message;
        return false;
    };
    if (options.deviceClass != QLatin1String("Tamber") && options.deviceClass != QLatin1String("Zephyr"))
        return fail(QStringLiteral("unknown device class \"%1\" (Tamber or Zephyr)").arg(options.deviceClass));
    const QString folder = QFileInfo(folderPath).absoluteFilePath();
    if (QFileInfo::exists(folder::plistPath(folder)))
        return fail(QStringLiteral("%1 is a device folder already").arg(folder));
    if (!QDir().mkpath(folder::mediaPath(folder))) return fail(QStringLiteral("cannot create %1").arg(folder::mediaPath(folder)));

    const QString folderName = QFileInfo(folder).fileName();
    const QString identifier = options.identifier.isEmpty()
                                   ? QString::fromLatin1(seedHash(QStringLiteral("udid"), folderName, options.seed).toHex())
                                   : options.identifier;
    QVariantMap emulation;
    emulation.insert(folder::kPairing, QStringLiteral("accept"));
    QVariantMap root;
    root.insert(folder::kIdentifier, identifier);
    root.insert(folder::kValues, globalValues(identifier, options, folderName));
    root.insert(folder::kDomains, mediaDomain());
    root.insert(folder::kPairingRecords, QVariantMap());
    root.insert(folder::kEmulation, emulation);
    QString writeError;
    if (!platform::plist::writeFile(folder::plistPath(folder), root, &writeError))
        return fail(QStringLiteral("cannot write %1: %2").arg(folder::plistPath(folder), writeError));

    if (!options.sample.isEmpty()) {
#ifdef VIREO_HANDLINK_HAVE_SAMPLE_MEDIA
        return fillSampleMedia(folder::mediaPath(folder), options, error);
#else
        return fail(QStringLiteral("this build has no sample media"));
#endif
    }
    return true;
}

}  // namespace handlink::emu
