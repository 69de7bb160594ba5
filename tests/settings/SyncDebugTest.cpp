// The sync-debug functions against the emulator, and the observer of their change
// notification on the session bus (with a bus of the test's own, and without one).
#include <QDBusConnection>
#include <QDBusMessage>
#include <functional>
#include <gtest/gtest.h>

#include "SettingsTestbed.h"
#include "platform/SystemLog.h"
#include "settings/LMSyncDebug.h"
#include "support/TestSupport.h"

using namespace settingstest;
using handlink::emu::Fault;

namespace {

const QString kEnabled = QStringLiteral("syncDebug.enabled_v2");
const QString kRemoval = QStringLiteral("syncDebug.dataNeedsRemoval");
const QString kChange = QStringLiteral("com.corvid.mobiletamber.syncDebugChange");

QString writeLine(const QString& key, bool value)
{
    return QStringLiteral("setting lockdown value domain=com.corvid.mobiletamber, key=%1, value=%2")
        .arg(key, value ? QStringLiteral("1") : QStringLiteral("0"));
}

}  // namespace

TEST_F(SettingsTest, SyncDebugWritesBothValuesThenPostsOnce)
{
    using Write = std::function<void(const std::shared_ptr<LinkDev>&)>;
    const struct {
        const char* name;
        Write write;
        bool enabled;
        bool removal;
    } cases[] = {
        {"on", [](const auto& d) { setLMSyncDebugEnabled(d); }, true, false},
        {"off, keep the data", [](const auto& d) { setLMSyncDebugDisabled(d, false); }, false, false},
        {"off, remove the data", [](const auto& d) { setLMSyncDebugDisabled(d, true); }, false, true},
        {"both at once", [](const auto& d) { setLMSyncDebugEnabledAndScheduleDataRemoval(d, true, true); }, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        device->resetCounters();
        platform::LogCapture log;
        c.write(dev);
        EXPECT_EQ(log.lines(), (QStringList{writeLine(kEnabled, c.enabled), writeLine(kRemoval, c.removal)}));
        EXPECT_EQ(device->value(kDomain, kEnabled), QVariant(qint64(c.enabled)));
        EXPECT_EQ(device->value(kDomain, kRemoval), QVariant(qint64(c.removal)));
        EXPECT_EQ(writes(), 2);
        EXPECT_EQ(device->postedNotifications(), QStringList{kChange});
        EXPECT_EQ(LMSyncDebugEnabled(dev), c.enabled);
    }
}

TEST_F(SettingsTest, SyncDebugPostsWhateverTheWritesGave)
{
    setLMSyncDebugEnabled(dev);
    device->addFault(Fault{QStringLiteral("set-value"), kHLDBusyError, 1, 0, kEnabled});
    device->resetCounters();
    setLMSyncDebugDisabled(dev, true);
    EXPECT_EQ(device->value(kDomain, kEnabled), QVariant(qint64(1))) << "the failed write";
    EXPECT_EQ(device->value(kDomain, kRemoval), QVariant(qint64(1))) << "the second write is made all the same";
    EXPECT_EQ(device->postedNotifications(), QStringList{kChange});
    EXPECT_TRUE(LMSyncDebugEnabled(dev));

    // No value to read (here, a read that answers nothing) is off; no device is off and
    // writes nothing.
    device->addFault(Fault{QStringLiteral("get-value"), kHLDBusyError, 1, 0, QString()});
    EXPECT_FALSE(LMSyncDebugEnabled(dev));
    EXPECT_FALSE(LMSyncDebugEnabled(nullptr));
    device->resetCounters();
    setLMSyncDebugEnabled(nullptr);
    EXPECT_EQ(writes(), 0);
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 0);
}

// Runs in a process of its own whose session bus address leads nowhere: the first write of
// the process finds no bus.
using SyncDebugNoSessionBus = SettingsTest;

TEST_F(SyncDebugNoSessionBus, FirstWriteSkipsTheObserverQuietly)
{
    std::vector<QString> messages;
    static std::vector<QString>* sink = nullptr;
    sink = &messages;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& message) { sink->push_back(message); });
    platform::LogCapture log;
    platform::StderrCapture standardError;
    setLMSyncDebugEnabled(dev);
    qInstallMessageHandler(previous);

    EXPECT_FALSE(LMSyncDebugObservingSystemWide());
    EXPECT_TRUE(messages.empty()) << messages.front().toStdString();
    EXPECT_TRUE(log.linesStartingWith(QStringLiteral("ERROR: ")).isEmpty());
    EXPECT_TRUE(standardError.text().isEmpty());
    EXPECT_EQ(device->value(kDomain, kEnabled), QVariant(qint64(1)));
    EXPECT_EQ(device->postedNotifications(), QStringList{kChange});
}

// Runs under a session bus of its own (dbus-run-session), in a process of its own: the
// observer is set up by the first write of the process.
TEST(SyncDebugSessionBus, FirstWriteObservesTheChangeNotification)
{
    ASSERT_TRUE(QDBusConnection::sessionBus().isConnected()) << "run under dbus-run-session";
    EXPECT_FALSE(LMSyncDebugObservingSystemWide()) << "nothing is set up before the first write";

    setLMSyncDebugEnabled(nullptr);
    ASSERT_TRUE(LMSyncDebugObservingSystemWide());

    // Another program on the bus announces the change: interface and member are the name
    // split at its last dot.
    QDBusConnection other = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("other"));
    ASSERT_TRUE(other.isConnected());
    ASSERT_TRUE(other.send(QDBusMessage::createSignal(QStringLiteral("/com/corvid/mobiletamber"),
                                                      QStringLiteral("com.corvid.mobiletamber"),
                                                      QStringLiteral("syncDebugChange"))));
    EXPECT_TRUE(testsupport::runUntil([] { return LMSyncDebugSystemWideChangesReceived() == 1; }));
    QDBusConnection::disconnectFromBus(QStringLiteral("other"));
}
