#include "handlink/client/HostId.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUuid>
#include <mutex>

namespace handlink::client {

namespace {
std::mutex gHostIdMutex;  // guards making the file, so two threads never make two identifiers
}

QString hostIdFilePath() {
    const QString explicitPath = qEnvironmentVariable("HANDLINK_HOST_ID_FILE");
    if (!explicitPath.isEmpty()) return explicitPath;
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/handlink/hostid");
}

QString hostIdentifier() {
    std::lock_guard lock(gHostIdMutex);
    const QString path = hostIdFilePath();
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        const QString text = QString::fromUtf8(file.readAll()).trimmed();
        if (!text.isEmpty()) return text;
    }
    const QString identifier = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly)) return QString();
    out.write(identifier.toUtf8() + '\n');
    if (!out.commit()) return QString();
    return identifier;
}

}  // namespace handlink::client
