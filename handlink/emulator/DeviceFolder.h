#pragma once
// The layout of a device folder: device.plist and Media/. Keys of device.plist:
//   "Identifier"      string  the device identifier (also "UniqueDeviceID")
//   "Values"          dict    the global domain: key -> property-list value
//   "Domains"         dict    other domains: domain -> dict of key -> value
//   "PairingRecords"  dict    host identifier -> dict ("HostID", "PairingDate")
//   "Emulation"       dict    settings of the emulation: "Pairing" = "accept" | "refuse"
#include <QString>

namespace handlink::emu::folder {

inline const QString kPlistName = QStringLiteral("device.plist");
inline const QString kMediaName = QStringLiteral("Media");
inline const QString kIdentifier = QStringLiteral("Identifier");
inline const QString kValues = QStringLiteral("Values");
inline const QString kDomains = QStringLiteral("Domains");
inline const QString kPairingRecords = QStringLiteral("PairingRecords");
inline const QString kEmulation = QStringLiteral("Emulation");
inline const QString kPairing = QStringLiteral("Pairing");

inline QString plistPath(const QString& deviceFolder) { return deviceFolder + QLatin1Char('/') + kPlistName; }
inline QString mediaPath(const QString& deviceFolder) { return deviceFolder + QLatin1Char('/') + kMediaName; }

}  // namespace handlink::emu::folder
