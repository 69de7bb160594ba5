#pragma once
// The application's own information: versions and identity from the build.
#include <QString>
#include <QVariantMap>

namespace platform::appinfo {

QString shortVersion();      // "1.0"
QString buildVersion();      // the build number set at configure time
QString bundleIdentifier();  // "com.corvid.vireo"
QString executablePath();    // the running executable (empty before QCoreApplication exists)
// The information dictionary: "BXBundleExecutablePath", "BXBundleIdentifier",
// "BXBundleVersion", "BXBundleShortVersionString".
QVariantMap infoDictionary();

}  // namespace platform::appinfo
