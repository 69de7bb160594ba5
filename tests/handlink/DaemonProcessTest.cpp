// The real handlinkd, driven with the real handlinkctl: the command-line contract of both.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thread>

#include "HandlinkTestbed.h"
#include "handlink/client/ControlClient.h"
#include "handlink/client/DaemonSocket.h"
#include "handlink/wire/Frame.h"
#include "support/TestSupport.h"

using namespace hltest;

// The tests start handlinkd and handlinkctl with QProcess, which forks this threaded process
// and execs at once, and start threads of their own afterwards; ThreadSanitizer would otherwise
// stop at the first thread after a fork.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

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

    // Watch all devices (the plain form), and one device, while posting on both.
    QProcess watchAll, watch;
    watchAll.start(kBin + QStringLiteral("/handlinkctl"), {QStringLiteral("--socket"), socket, QStringLiteral("watch")});
    watch.start(kBin + QStringLiteral("/handlinkctl"), {QStringLiteral("--socket"), socket, QStringLiteral("watch"), one});
    ASSERT_TRUE(watchAll.waitForStarted(30000));
    ASSERT_TRUE(watch.waitForStarted(30000));
    // Each says on standard error once the daemon has registered it.
    QString watchAllErr, watchErr;
    ASSERT_TRUE(testsupport::runUntil([&] {
        watchAllErr += QString::fromUtf8(watchAll.readAllStandardError());
        watchErr += QString::fromUtf8(watch.readAllStandardError());
        return watchAllErr.contains(QStringLiteral("watching")) && watchErr.contains(QStringLiteral("watching"));
    }));
    EXPECT_TRUE(watchAllErr.contains(QStringLiteral("watching all devices"))) << watchAllErr.toStdString();
    QString watchedAll, watched;
    ASSERT_EQ(ctl({QStringLiteral("post"), one, QStringLiteral("com.example.first")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.other")}).exitCode, 0);
    ASSERT_EQ(ctl({QStringLiteral("post"), one, QStringLiteral("com.example.last")}).exitCode, 0);
    ASSERT_TRUE(testsupport::runUntil([&] {
        watchedAll += QString::fromUtf8(watchAll.readAllStandardOutput());
        watched += QString::fromUtf8(watch.readAllStandardOutput());
        return watchedAll.contains(QStringLiteral("com.example.last")) && watched.contains(QStringLiteral("com.example.last"));
    }));
    EXPECT_EQ(watchedAll, QStringLiteral("%1\tcom.example.first\n%2\tcom.example.other\n%1\tcom.example.last\n").arg(one, two));
    EXPECT_EQ(watched, QStringLiteral("%1\tcom.example.first\n%1\tcom.example.last\n").arg(one));
    // Interrupted, as a person stops it.
    ::kill(pid_t(watchAll.processId()), SIGINT);
    ASSERT_TRUE(watchAll.waitForFinished(30000));
    EXPECT_EQ(watchAll.exitStatus(), QProcess::CrashExit);  // ended by the signal
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

    // --after and --match: only the second post of one name fails.
    ASSERT_EQ(ctl({QStringLiteral("fail"), two, QStringLiteral("post-notification"), QStringLiteral("0xE8000011"),
                   QStringLiteral("--after"), QStringLiteral("1"), QStringLiteral("--match"), QStringLiteral("com.example.m")})
                  .exitCode,
              0);
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.m")}).exitCode, 0);
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.n")}).exitCode, 0);  // no match
    r = ctl({QStringLiteral("post"), two, QStringLiteral("com.example.m")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("HLDPostNotification() answered -402653167"))) << r.err.toStdString();
    EXPECT_EQ(ctl({QStringLiteral("post"), two, QStringLiteral("com.example.m")}).exitCode, 0);
    r = ctl({QStringLiteral("stats"), two});
    EXPECT_TRUE(r.out.contains(QStringLiteral("posted com.example.m\t2\n"))) << r.out.toStdString();

    // Numbers the daemon cannot keep are refused, not wrapped around.
    r = ctl({QStringLiteral("delay"), two, QStringLiteral("get-value"), QStringLiteral("3000000000")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("2147483647"))) << r.err.toStdString();
    r = ctl({QStringLiteral("fail"), two, QStringLiteral("get-value"), QStringLiteral("1"), QStringLiteral("--times"),
             QStringLiteral("4294967296")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("2147483647"))) << r.err.toStdString();

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

    // A delayed value read, seen by the counters: it reached the device and is still held
    // there when the device detaches, which ends it at once.
    ASSERT_EQ(ctl({QStringLiteral("delay"), one, QStringLiteral("get-value"), QStringLiteral("600000")}).exitCode, 0);
    HLDeviceRef refOne = recorder->events()[0].device;
    ASSERT_EQ(HLDeviceConnect(refOne), kHLDSuccess);
    ASSERT_EQ(HLDevicePair(refOne), kHLDSuccess);
    ASSERT_EQ(HLDeviceStartSession(refOne), kHLDSuccess);
    std::atomic<bool> returned{false};
    QVariant late;
    std::thread reader([&] {
        late = HLDeviceCopyValue(refOne, QString(), QStringLiteral("DeviceName"));
        returned = true;
    });
    const bool reached = testsupport::runUntil([&] { return ctl({QStringLiteral("stats"), one}).out.contains(QStringLiteral("get-value\t1\n")); });
    EXPECT_TRUE(reached);
    EXPECT_FALSE(returned.load());  // held back by the delay, not answered

    // Detach at run time: subscribers see it, the daemon says so.
    ASSERT_EQ(ctl({QStringLiteral("detach"), one}).exitCode, 0);
    reader.join();
    EXPECT_FALSE(late.isValid());
    EXPECT_EQ(HLDeviceStopSession(refOne), kHLDNotConnectedError);
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

    // SIGINT (Ctrl-C) stops it cleanly too.
    ASSERT_EQ(::kill(pid_t(daemon.processId()), SIGINT), 0);
    ASSERT_TRUE(daemon.waitForFinished(30000));
    EXPECT_EQ(daemon.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(daemon.exitCode(), 0);
    daemonOut += QString::fromUtf8(daemon.readAllStandardOutput());
    EXPECT_TRUE(daemonOut.endsWith(QStringLiteral("stopped\n"))) << daemonOut.toStdString();
    ASSERT_TRUE(recorder->waitForCount(6));
    EXPECT_EQ(recorder->events()[5].msg, kHLDNotificationUnsubscribed);
    EXPECT_EQ(recorder->events()[5].device, again);
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

namespace {

// The daemon's address space now, from /proc (bytes); 0 when it cannot be read.
qint64 addressSpaceOf(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmSize:")) return line.mid(7).trimmed().split(' ').value(0).toLongLong() * 1024;
    return 0;
}

// How many descriptors the daemon has open now.
int descriptorsOf(qint64 pid) {
    std::error_code error;
    int count = 0;
    for (auto it = std::filesystem::directory_iterator(QStringLiteral("/proc/%1/fd").arg(pid).toStdString(), error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error))
        ++count;
    return error ? -1 : count;
}

// The lowest descriptor number the daemon does not use: with its limit of open files there,
// the next descriptor it opens fails.
int lowestFreeDescriptorOf(qint64 pid) {
    const QStringList entries = QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::NoDotAndDotDot | QDir::AllEntries);
    QSet<int> used;
    for (const QString& entry : entries) used.insert(entry.toInt());
    int fd = 0;
    while (used.contains(fd)) ++fd;
    return fd;
}

}  // namespace

TEST_F(DaemonProcess, AConnectionWithoutAThreadIsClosedAndTheDaemonGoesOn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "an address-space limit does not suit a sanitizer's shadow memory";
#endif
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("one")), QStringLiteral("--name"), QStringLiteral("Solo")}).exitCode, 0);
    startDaemon({path(QStringLiteral("one"))});
    const pid_t pid = pid_t(daemon.processId());

    // Limit the daemon's address space to what it uses now and half a thread stack more: no new
    // thread's stack fits (and none of a finished thread is there to reuse: no connection yet).
    rlimit stack{}, before{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_STACK, nullptr, &stack), 0);
    ASSERT_EQ(::prlimit(pid, RLIMIT_AS, nullptr, &before), 0);
    const qint64 used = addressSpaceOf(pid);
    ASSERT_GT(used, 0);
    ASSERT_NE(stack.rlim_cur, RLIM_INFINITY);
    rlimit tight = before;
    tight.rlim_cur = rlim_t(used) + stack.rlim_cur / 2;
    ASSERT_EQ(::prlimit(pid, RLIMIT_AS, &tight, nullptr), 0);

    Result r = ctl({QStringLiteral("list")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("closed the connection"))) << r.err.toStdString();
    ASSERT_TRUE(waitForDaemonLines(QStringLiteral("cannot start a thread for a new connection"), 1));

    // The limit lifted, the same daemon serves again.
    ASSERT_EQ(::prlimit(pid, RLIMIT_AS, &before, nullptr), 0);
    r = ctl({QStringLiteral("list")});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("\tSolo\n")));
    EXPECT_EQ(daemon.state(), QProcess::Running);
}

TEST_F(DaemonProcess, OutOfDescriptorsTheDaemonWaitsAndServesTheConnectionLater) {
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("one")), QStringLiteral("--name"), QStringLiteral("Solo")}).exitCode, 0);
    startDaemon({path(QStringLiteral("one"))});
    const pid_t pid = pid_t(daemon.processId());
    rlimit before{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, nullptr, &before), 0);
    rlimit tight = before;
    tight.rlim_cur = rlim_t(lowestFreeDescriptorOf(pid));
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);

    // The connection waits in the backlog while the daemon cannot accept it; the daemon says so
    // once (not once per attempt).
    QProcess list;
    list.start(kBin + QStringLiteral("/handlinkctl"), {QStringLiteral("--socket"), socket, QStringLiteral("list")});
    ASSERT_TRUE(list.waitForStarted(30000));
    ASSERT_TRUE(waitForDaemonLines(QStringLiteral("cannot accept connections"), 1));
    EXPECT_EQ(list.state(), QProcess::Running);

    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &before, nullptr), 0);
    ASSERT_TRUE(list.waitForFinished(60000));
    EXPECT_EQ(list.exitCode(), 0) << list.readAllStandardError().toStdString();
    EXPECT_TRUE(QString::fromUtf8(list.readAllStandardOutput()).contains(QStringLiteral("\tSolo\n")));
    daemonOut += QString::fromUtf8(daemon.readAllStandardOutput());
    EXPECT_EQ(daemonLines(QStringLiteral("cannot accept connections")).size(), 1);
}

TEST_F(DaemonProcess, AClosedConnectionGivesItsDescriptorBackAtOnce) {
    ASSERT_EQ(ctl({QStringLiteral("make-device"), path(QStringLiteral("one")), QStringLiteral("--name"), QStringLiteral("Solo")}).exitCode, 0);
    startDaemon({path(QStringLiteral("one"))});
    const qint64 pid = daemon.processId();
    const int baseline = descriptorsOf(pid);  // no connection yet
    ASSERT_GT(baseline, 0);

    // 200 connections of every kind the device classes open, each closed by this side: a control
    // connection, a lockdown connection with a session, and its notification and conduit services.
    QString error;
    HLDeviceRef ref = handlink::client::copyDeviceForIdentifier(socket, identifierIn(ctl({QStringLiteral("list")}).out, QStringLiteral("Solo")), &error);
    ASSERT_TRUE(ref) << error.toStdString();
    for (int round = 0; round < 50; ++round) {
        handlink::client::ControlClient control;
        ASSERT_TRUE(control.open(socket, &error)) << error.toStdString();
        ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
        if (!HLDeviceIsPaired(ref)) {
            ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
        }
        ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
        int proxy = -1, conduit = -1;
        ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &proxy, nullptr), kHLDSuccess);
        ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.qfc"), &conduit, nullptr), kHLDSuccess);
        QFCConnectionRef connection = nullptr;
        ASSERT_EQ(QFCConnectionOpen(conduit, 0, &connection), kQFCSuccess);
        EXPECT_EQ(QFCConnectionClose(connection), kQFCSuccess);
        ::close(conduit);
        ::close(proxy);
        EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
        EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    }
    HLDeviceRelease(ref);
    // Each of them closed its descriptor when it ended, without waiting for a next connection
    // (the wait is a bound against hangs; the count is what is checked).
    testsupport::runUntil([&] { return descriptorsOf(pid) == baseline; }, 60000);
    EXPECT_EQ(descriptorsOf(pid), baseline);
}
