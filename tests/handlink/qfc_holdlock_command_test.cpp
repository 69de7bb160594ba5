// `handlinkctl hold-lock`: the device's own software holding a lock file, driven from another
// process against the emulator; one line when it holds, one when it lets go.
#include <signal.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QCborMap>
#include <QProcess>

#include "handlink/client/ControlClient.h"
#include "qfc_testbed.h"
#include "support/TestSupport.h"

namespace qfctest {
namespace {

constexpr const char* kLock = "com.corvid.lumen.lock_sync";
const QString kWillStart = QStringLiteral("com.corvid.lumen-linkdev.syncWillStart");

class HoldLockCommandTest : public ConduitTest {
protected:
    void startHolder(QProcess& process, const QStringList& options) {
        process.setProgram(QStringLiteral(HANDLINK_BIN_DIR "/handlinkctl"));
        process.setArguments(QStringList{QStringLiteral("--socket"), emulator().socketPath(), QStringLiteral("hold-lock"),
                                         device->identifier(), QString::fromLatin1(kLock)} + options);
        process.start();
        ASSERT_TRUE(process.waitForStarted());
    }
    // The next line of standard output (empty when the process ended without one).
    QString nextLine(QProcess& process) {
        testsupport::runUntil([&] {
            return process.canReadLine() || process.state() == QProcess::NotRunning || process.waitForReadyRead(20);
        });
        return QString::fromLocal8Bit(process.readLine()).trimmed();
    }
    HLDStatus tryLock(int exclusive) {
        QFCFileRef ref = kQFCInvalidFileRef;
        EXPECT_EQ(QFCFileRefOpen(conduit.connection, kLock, 2, &ref), kQFCSuccess);
        const HLDStatus status = QFCFileRefLock(conduit.connection, ref, exclusive);
        QFCFileRefClose(conduit.connection, ref);
        return status;
    }
    QString line(const char* verb, const char* kind) const {
        return QStringLiteral("%1 %2 lock on %3 of %4").arg(QLatin1String(verb), QLatin1String(kind), QLatin1String(kLock), device->identifier());
    }
};

TEST_F(HoldLockCommandTest, LetsGoOnTheKthPostOfTheNotificationAndOnlyThen) {
    QProcess holder;
    startHolder(holder, {QStringLiteral("--exclusive"), QStringLiteral("--yield-on"), kWillStart,
                         QStringLiteral("--after-requests"), QStringLiteral("3")});
    EXPECT_EQ(nextLine(holder), line("holding", "exclusive"));
    for (int request = 1; request <= 2; ++request) {
        EXPECT_EQ(post(kWillStart), 0);
        EXPECT_EQ(post(QStringLiteral("com.corvid.homeshell.syncingUnblocked")), 0);
        EXPECT_EQ(tryLock(0), kQFCWouldBlockError) << request;
        EXPECT_EQ(holder.state(), QProcess::Running);
    }
    EXPECT_EQ(post(kWillStart), 0);
    EXPECT_EQ(tryLock(1), kQFCSuccess);  // the device let go before it answered the post
    EXPECT_EQ(nextLine(holder), line("released", "exclusive"));
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitCode(), 0);
}

TEST_F(HoldLockCommandTest, LetsGoOnTheFirstPostByDefault) {
    QProcess holder;
    startHolder(holder, {QStringLiteral("--exclusive"), QStringLiteral("--yield-on"), kWillStart});
    EXPECT_EQ(nextLine(holder), line("holding", "exclusive"));
    EXPECT_EQ(post(QStringLiteral("com.corvid.homeshell.syncingUnblocked")), 0);  // another name
    EXPECT_EQ(tryLock(0), kQFCWouldBlockError);
    EXPECT_EQ(post(kWillStart), 0);
    EXPECT_EQ(tryLock(1), kQFCSuccess);
    EXPECT_EQ(nextLine(holder), line("released", "exclusive"));
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitCode(), 0);
}

TEST_F(HoldLockCommandTest, WithAfterItStillHoldsOnceThePostIsAnsweredThenLetsGo) {
    QProcess holder;
    startHolder(holder, {QStringLiteral("--shared"), QStringLiteral("--yield-on"), kWillStart, QStringLiteral("--after"),
                         QStringLiteral("3")});
    EXPECT_EQ(nextLine(holder), line("holding", "shared"));
    EXPECT_EQ(post(kWillStart), 0);
    // Right after the post is answered the holder has not let go: the delay runs.
    EXPECT_EQ(tryLock(1), kQFCWouldBlockError);
    EXPECT_EQ(holder.state(), QProcess::Running);
    EXPECT_EQ(nextLine(holder), line("released", "shared"));
    EXPECT_EQ(tryLock(1), kQFCSuccess);
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitCode(), 0);
}

TEST_F(HoldLockCommandTest, LetsGoWhenInterrupted) {
    QProcess holder;
    startHolder(holder, {QStringLiteral("--shared")});
    EXPECT_EQ(nextLine(holder), line("holding", "shared"));
    EXPECT_EQ(tryLock(1), kQFCWouldBlockError);
    EXPECT_EQ(tryLock(0), kQFCSuccess);
    ::kill(static_cast<pid_t>(holder.processId()), SIGINT);
    EXPECT_EQ(nextLine(holder), line("released", "shared"));
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(holder.exitCode(), 0);
    EXPECT_EQ(tryLock(1), kQFCSuccess);
}

TEST_F(HoldLockCommandTest, LetsGoAfterItsSeconds) {
    QProcess holder;
    startHolder(holder, {QStringLiteral("--exclusive"), QStringLiteral("--seconds"), QStringLiteral("1")});
    EXPECT_EQ(nextLine(holder), line("holding", "exclusive"));
    EXPECT_EQ(nextLine(holder), line("released", "exclusive"));
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(tryLock(1), kQFCSuccess);
}

TEST_F(HoldLockCommandTest, FailsWhenTheLockIsHeldElsewhereOrTheWordsAreWrong) {
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, kLock, 2, &ref), kQFCSuccess);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCSuccess);
    QProcess holder;
    startHolder(holder, {QStringLiteral("--exclusive")});
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitCode(), 1);
    EXPECT_TRUE(holder.readAllStandardOutput().isEmpty());
    EXPECT_TRUE(holder.readAllStandardError().contains("held elsewhere"));

    QProcess wrong;
    startHolder(wrong, {QStringLiteral("--shared"), QStringLiteral("--exclusive")});
    ASSERT_TRUE(wrong.waitForFinished(30000));
    EXPECT_EQ(wrong.exitCode(), 2);
    QProcess afterWithoutYield;
    startHolder(afterWithoutYield, {QStringLiteral("--shared"), QStringLiteral("--after"), QStringLiteral("1")});
    ASSERT_TRUE(afterWithoutYield.waitForFinished(30000));
    EXPECT_EQ(afterWithoutYield.exitCode(), 2);
}

// The control request behind the command answers the status of what went wrong.
TEST_F(HoldLockCommandTest, TheControlRequestAnswersTheRealStatus) {
    ASSERT_EQ(::mkdir(media("Folder").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("../../outside/holder.lock", media("out.lock").c_str()), 0);
    const auto before = snapshotOutside(testRoot());
    handlink::client::ControlClient control;
    QString error;
    ASSERT_TRUE(control.open(emulator().socketPath(), &error)) << error.toStdString();
    const auto status = [&](const QString& path, bool wait) {
        QCborMap request;
        request.insert(QStringLiteral("op"), QStringLiteral("hold-lock"));
        request.insert(QStringLiteral("id"), device->identifier());
        request.insert(QStringLiteral("path"), path);
        request.insert(QStringLiteral("exclusive"), true);
        if (wait) request.insert(QStringLiteral("wait"), true);
        int32_t answered = 0;
        QString message;
        EXPECT_FALSE(control.call(request, nullptr, &message, &answered)) << path.toStdString();
        EXPECT_FALSE(message.isEmpty());
        return answered;
    };
    for (bool wait : {false, true}) {
        SCOPED_TRACE(wait);
        EXPECT_EQ(status(QStringLiteral("../escape.lock"), wait), kQFCPermissionError);
        EXPECT_EQ(status(QStringLiteral("out.lock"), wait), kQFCPermissionError);
        EXPECT_EQ(status(QStringLiteral("Folder"), wait), kQFCIsDirectoryError);
        EXPECT_EQ(status(QStringLiteral("/"), wait), kQFCIsDirectoryError);
        EXPECT_EQ(status(QStringLiteral("Missing/x.lock"), wait), kQFCNotFoundError);
        EXPECT_EQ(status(QString::fromUtf8("a\0b", 3), wait), kQFCInvalidArgumentError);
    }
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, kLock, 2, &ref), kQFCSuccess);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCSuccess);
    EXPECT_EQ(status(QString::fromLatin1(kLock), false), kQFCWouldBlockError);
    EXPECT_EQ(status(QString::fromLatin1(kLock), true), kQFCWouldBlockError);
    EXPECT_EQ(snapshotOutside(testRoot()), before);
    EXPECT_NE(::access(outside("holder.lock").c_str(), F_OK), 0);
}

// make-device through the command: the same seed gives the same media area.
TEST(MakeDeviceCommandTest, SampleSmallWithTheSameSeedMakesTheSameTreeTwice) {
    QTemporaryDir root;
    const auto make = [&](const QString& name, const QString& seed) {
        QProcess process;
        process.start(QStringLiteral(HANDLINK_BIN_DIR "/handlinkctl"),
                      {QStringLiteral("make-device"), root.filePath(name), QStringLiteral("--sample"), QStringLiteral("small"),
                       QStringLiteral("--seed"), seed});
        EXPECT_TRUE(process.waitForFinished(120000));
        EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
        return snapshotTree(root.filePath(name + QStringLiteral("/Media")));
    };
    const auto first = make(QStringLiteral("one"), QStringLiteral("11"));
    const auto second = make(QStringLiteral("two"), QStringLiteral("11"));
    EXPECT_GT(first.size(), 200u);
    EXPECT_EQ(first, second);
    EXPECT_NE(make(QStringLiteral("three"), QStringLiteral("12")), first);
}

}  // namespace
}  // namespace qfctest
