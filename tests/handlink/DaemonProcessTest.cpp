// The real handlinkd, driven with the real handlinkctl: the command-line contract of both.
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "HandlinkTestbed.h"
#include "support/TestSupport.h"

using namespace hltest;

namespace {

const QString kBin = QStringLiteral(HANDLINK_BIN_DIR);

struct Result {
    int exitCode = -1;
    QString out, err;
};

class DaemonProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_root.isValid());
        socket = _root.path() + QStringLiteral("/run/handlinkd.sock");
        qputenv("HANDLINK_SOCKET", socket.toUtf8());
        qputenv("HANDLINK_HOST_ID_FILE", (_root.path() + QStringLiteral("/config/hostid")).toUtf8());
    }
    void TearDown() override {
        recorder.reset();
        if (daemon.state() != QProcess::NotRunning) {
            daemon.terminate();
            daemon.waitForFinished(30000);
        }
    }

    QString path(const QString& relative) const { return _root.path() + QLatin1Char('/') + relative; }

    Result ctl(const QStringList& arguments) {
        QProcess process;
        process.start(kBin + QStringLiteral("/handlinkctl"), QStringList{QStringLiteral("--socket"), socket} + arguments);
        EXPECT_TRUE(process.waitForFinished(60000)) << arguments.join(' ').toStdString();
        return Result{process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                      QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
    }

    // Starts handlinkd with the device folders and waits until it listens with all attached.
    void startDaemon(const QStringList& folders) {
        QStringList arguments{QStringLiteral("--socket"), socket};
        for (const QString& folder : folders) arguments << QStringLiteral("--device") << folder;
        daemonOut.clear();
        daemon.start(kBin + QStringLiteral("/handlinkd"), arguments);
        ASSERT_TRUE(daemon.waitForStarted(30000));
        ASSERT_TRUE(waitForDaemonLines(QStringLiteral("attached"), int(folders.size())));
    }

    // Runs the event loop until the daemon printed at least n lines starting with prefix.
    bool waitForDaemonLines(const QString& prefix, int n) {
        return testsupport::runUntil([&] {
            daemonOut += QString::fromUtf8(daemon.readAllStandardOutput());
            return daemonLines(prefix).size() >= n;
        });
    }
    QStringList daemonLines(const QString& prefix) const {
        QStringList lines;
        for (const QString& line : daemonOut.split(QLatin1Char('\n')))
            if (line.startsWith(prefix)) lines << line;
        return lines;
    }

    QString socket;
    QProcess daemon;
    QString daemonOut;
    std::unique_ptr<EventRecorder> recorder;

private:
    QTemporaryDir _root;
};

QString identifierIn(const QString& listOutput, const QString& name) {
    for (const QString& line : listOutput.split(QLatin1Char('\n'))) {
        const QStringList fields = line.split(QLatin1Char('\t'));
        if (fields.size() == 2 && fields[1] == name) return fields[0];
    }
    return QString();
}

}  // namespace

TEST_F(DaemonProcess, MakeDeviceChecksItsArguments) {
    Result r = ctl({QStringLiteral("make-device"), path(QStringLiteral("kitchen")), QStringLiteral("--name"),
                    QStringLiteral("Kitchen Tamber"), QStringLiteral("--class"), QStringLiteral("Zephyr")});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(QFile::exists(path(QStringLiteral("kitchen/device.plist"))));
    EXPECT_TRUE(QFileInfo(path(QStringLiteral("kitchen/Media"))).isDir());

    r = ctl({QStringLiteral("make-device"), path(QStringLiteral("kitchen"))});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("already"))) << r.err.toStdString();

    r = ctl({QStringLiteral("make-device"), path(QStringLiteral("odd")), QStringLiteral("--class"), QStringLiteral("Banana")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("Banana")));

    r = ctl({QStringLiteral("make-device")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(r.err.contains(QStringLiteral("usage:")));

    r = ctl({QStringLiteral("make-device"), path(QStringLiteral("x")), QStringLiteral("--colour"), QStringLiteral("red")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("--colour")));

    r = ctl({QStringLiteral("reticulate")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("unknown command")));

    // No daemon yet: a person learns why.
    r = ctl({QStringLiteral("list")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("cannot reach the daemon"))) << r.err.toStdString();
}

TEST_F(DaemonProcess, ASessionWithTheDaemon) {
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("one")), QStringLiteral("--name"), QStringLiteral("First One")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("two")), QStringLiteral("--name"), QStringLiteral("Second")}).exitCode, 0);
    startDaemon({path(QStringLiteral("one"))});
    recorder = std::make_unique<EventRecorder>();  // this process subscribes to the daemon too
    ASSERT_TRUE(recorder->waitForCount(1));

    Result r = ctl({QStringLiteral("list")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QString one = identifierIn(r.out, QStringLiteral("First One"));
    ASSERT_FALSE(one.isEmpty()) << r.out.toStdString();
    EXPECT_EQ(recorder->events()[0].identifier, one);

    // Attach at run time: subscribers see it.
    r = ctl({QStringLiteral("attach"), path(QStringLiteral("two"))});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    ASSERT_TRUE(recorder->waitForCount(2));
    const QString two = recorder->events()[1].identifier;
    EXPECT_EQ(identifierIn(ctl({QStringLiteral("list")}).out, QStringLiteral("Second")), two);
    EXPECT_EQ(ctl({QStringLiteral("attach"), path(QStringLiteral("two"))}).exitCode, 1);  // attached already

    // Watch one device while posting on both.
    QProcess watch;
    watch.start(kBin + QStringLiteral("/handlinkctl"), {QStringLiteral("--socket"), socket, QStringLiteral("watch"), one});
    ASSERT_TRUE(watch.waitForStarted(30000));
    // It says on standard error once the daemon has registered it.
    QString watchErr;
    ASSERT_TRUE(testsupport::runUntil([&] {
        watchErr += QString::fromUtf8(watch.readAllStandardError());
        return watchErr.contains(QStringLiteral("watching"));
    }));
    QString watched;
    ASSERT_EQ(ctl({QStringLiteral("post"), one, QStringLiteral("com.example.first")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.other")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("post"), one, QStringLiteral("com.example.last")}).exitCode, 0);
    ASSERT_TRUE(testsupport::runUntil([&] {
        watched += QString::fromUtf8(watch.readAllStandardOutput());
        return watched.contains(QStringLiteral("com.example.last"));
    }));
    EXPECT_FALSE(watched.contains(QStringLiteral("com.example.other")));
    EXPECT_EQ(watched, QStringLiteral("%1\tcom.example.first\n%1\tcom.example.last\n").arg(one));
    watch.kill();
    watch.waitForFinished(30000);
    ASSERT_TRUE(waitForDaemonLines(QStringLiteral("posted %1 com.example.last").arg(one), 1));
    EXPECT_EQ(daemonLines(QStringLiteral("posted %1 com.example.other").arg(two)).size(), 1);

    // Counters.
    r = ctl({QStringLiteral("stats"), two});
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.contains(QStringLiteral("connect\t1\n")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("pair\t1\n")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("post-notification\t1\n")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("posted com.example.other\t1\n")));

    // Faults: the next post fails and says so; then posts work again.
    ASSERT_EQ(ctl({QStringLiteral("fail"), two, QStringLiteral("post-notification"), QStringLiteral("0xE8000011")}).exitCode, 0);
    r = ctl({QStringLiteral("post"), two, QStringLiteral("com.example.struck")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("HLDPostNotification() answered -402653167"))) << r.err.toStdString();
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.struck")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("fail"), two, QStringLiteral("connect"), QStringLiteral("-402653173"), QStringLiteral("--times"),
                   QStringLiteral("3")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("fail"), two, QStringLiteral("--clear")}).exitCode, 0);
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.cleared")}).exitCode, 0);
    r = ctl({QStringLiteral("fail"), two, QStringLiteral("explode"), QStringLiteral("1")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("unknown operation \"explode\"")));
    r = ctl({QStringLiteral("fail"), QStringLiteral("nobody"), QStringLiteral("connect"), QStringLiteral("1")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("no device nobody")));
    EXPECT_EQ(ctl({QStringLiteral("fail"), two, QStringLiteral("connect"), QStringLiteral("lots")}).exitCode, 1);
    EXPECT_EQ(ctl({QStringLiteral("delay"), two, QStringLiteral("get-value"), QStringLiteral("5"), QStringLiteral("--times"),
                   QStringLiteral("2")}).exitCode, 0);

    // Pairing: refused, then forgotten and accepted again.
    ASSERT_EQ(ctl({QStringLiteral("pairing"), two, QStringLiteral("forget")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("pairing"), two, QStringLiteral("refuse")}).exitCode, 0);
    r = ctl({QStringLiteral("post"), two, QStringLiteral("com.example.refused")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("HLDevicePair() answered -402653158"))) << r.err.toStdString();
    ASSERT_EQ(ctl({QStringLiteral("pairing"), two, QStringLiteral("accept")}).exitCode, 0);
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.accepted")}).exitCode, 0);
    EXPECT_EQ(ctl({QStringLiteral("pairing"), two, QStringLiteral("maybe")}).exitCode, 1);

    // Values as an XML property list.
    r = ctl({QStringLiteral("values"), one});
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.contains(QStringLiteral("<key>DeviceName</key>")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("<string>First One</string>")));
    r = ctl({QStringLiteral("values"), one, QStringLiteral("com.corvid.mobiletamber")});
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.contains(QStringLiteral("<key>syncDebug.enabled_v2</key>")));

    // Detach at run time: subscribers see it, the daemon says so.
    ASSERT_EQ(ctl({QStringLiteral("detach"), one}).exitCode, 0);
    ASSERT_TRUE(recorder->waitForCount(3));
    EXPECT_EQ(recorder->events()[2].msg, kHLDNotificationDisconnected);
    EXPECT_EQ(recorder->events()[2].identifier, one);
    r = ctl({QStringLiteral("detach"), one});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_FALSE(r.err.isEmpty());
    EXPECT_TRUE(identifierIn(ctl({QStringLiteral("list")}).out, QStringLiteral("First One")).isEmpty());
    ASSERT_TRUE(waitForDaemonLines(QStringLiteral("detached %1").arg(one), 1));

    // SIGTERM: the daemon stops cleanly; the subscription reports the remaining device with 3.
    daemon.terminate();
    ASSERT_TRUE(daemon.waitForFinished(30000));
    EXPECT_EQ(daemon.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(daemon.exitCode(), 0);
    ASSERT_TRUE(recorder->waitForCount(4));
    EXPECT_EQ(recorder->events()[3].msg, kHLDNotificationUnsubscribed);
    EXPECT_EQ(recorder->events()[3].identifier, two);

    // A new daemon with the same folders: reported again, and pairing was kept.
    startDaemon({path(QStringLiteral("two"))});
    ASSERT_TRUE(recorder->waitForCount(5));
    HLDeviceRef again = recorder->events()[4].device;
    EXPECT_EQ(recorder->events()[4].identifier, two);
    ASSERT_EQ(HLDeviceConnect(again), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(again));
    EXPECT_EQ(HLDeviceDisconnect(again), kHLDSuccess);
}

TEST_F(DaemonProcess, DaemonRefusesASecondInstanceAndBadArguments) {
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("one"))}).exitCode, 0);
    startDaemon({path(QStringLiteral("one"))});
    QProcess second;
    second.start(kBin + QStringLiteral("/handlinkd"), {QStringLiteral("--socket"), socket});
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_NE(second.exitCode(), 0);
    EXPECT_TRUE(QString::fromUtf8(second.readAllStandardError()).contains(QStringLiteral("already listening")));

    QProcess bad;
    bad.start(kBin + QStringLiteral("/handlinkd"), {QStringLiteral("--socket"), path(QStringLiteral("b.sock")),
                                                    QStringLiteral("--device"), path(QStringLiteral("missing"))});
    ASSERT_TRUE(bad.waitForFinished(30000));
    EXPECT_NE(bad.exitCode(), 0);
    EXPECT_TRUE(QString::fromUtf8(bad.readAllStandardError()).contains(QStringLiteral("not a device folder")));

    // The first daemon is unharmed.
    EXPECT_EQ(ctl({QStringLiteral("list")}).exitCode, 0);
}
