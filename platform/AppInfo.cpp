#include "platform/AppInfo.h"

#include <QCoreApplication>

#include "AppInfoConfig.h"

namespace platform::appinfo {

QString shortVersion() { return QStringLiteral(VIREO_SHORT_VERSION); }
QString buildVersion() { return QStringLiteral(VIREO_BUILD_VERSION); }
QString bundleIdentifier() { return QStringLiteral(VIREO_BUNDLE_IDENTIFIER); }

QString executablePath() {
    return QCoreApplication::instance() ? QCoreApplication::applicationFilePath() : QString();
}

QVariantMap infoDictionary() {
    QVariantMap info{{QStringLiteral("BXBundleIdentifier"), bundleIdentifier()},
                     {QStringLiteral("BXBundleVersion"), buildVersion()},
                     {QStringLiteral("BXBundleShortVersionString"), shortVersion()}};
    const QString path = executablePath();
    if (!path.isEmpty()) info.insert(QStringLiteral("BXBundleExecutablePath"), path);
    return info;
}

}  // namespace platform::appinfo
