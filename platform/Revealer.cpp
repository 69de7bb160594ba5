#include "platform/Revealer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>
#include <mutex>

#include "platform/SystemLog.h"

namespace platform {

namespace {
std::mutex g_mutex;  // guards g_current
std::unique_ptr<Revealer> g_current;
}  // namespace

Revealer& Revealer::current() {
    std::lock_guard lock(g_mutex);
    if (!g_current) g_current = std::make_unique<DesktopRevealer>();
    return *g_current;
}

std::unique_ptr<Revealer> Revealer::setCurrent(std::unique_ptr<Revealer> revealer) {
    std::lock_guard lock(g_mutex);
    std::swap(g_current, revealer);
    return revealer;
}

void DesktopRevealer::reveal(const QString& path) {
    const QUrl item = QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath());
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{item.toString()} << QString();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        const QDBusMessage reply = bus.call(call, QDBus::Block, 3000);
        if (reply.type() == QDBusMessage::ReplyMessage) return;
    }
    // No file manager answers on the bus: open the folder that holds the item.
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).absolutePath());
    if (!QDesktopServices::openUrl(folder)) logMessage(QStringLiteral("Could not reveal %1").arg(path));
}

}  // namespace platform
