// Locks of the conduit: flock locks on each reference's own open file, conflicting across
// references, connections and processes (the flock command), released by unlock, close and a
// dropped connection; and the device's own lock holders.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QProcess>
#include <fstream>

#include "handlink/emulator/qfc/LockHolders.h"
#include "qfc_testbed.h"
#include "support/TestSupport.h"

namespace qfctest {
namespace {

constexpr const char* kLock = "com.corvid.lumen.lock_sync";

class LocksTest : public ConduitTest {
protected:
    QFCFileRef open(QFCConnectionRef connection, const char* path = kLock) {
        QFCFileRef ref = kQFCInvalidFileRef;
        EXPECT_EQ(QFCFileRefOpen(connection, path, 2, &ref), kQFCSuccess);
        return ref;
    }
    // `flock -n` on the file in Media/: 0 when it got the lock, 1 when it is held.
    int flockCommand(const char* mode) {
        QProcess process;
        process.start(QStringLiteral("flock"), {QLatin1String(mode), QStringLiteral("-n"),
                                                QString::fromStdString(media(kLock)), QStringLiteral("true")});
        EXPECT_TRUE(process.waitForFinished(30000));
        return process.exitCode();
    }
};

TEST_F(LocksTest, TwoReferencesSharedAndExclusive) {
    const QFCFileRef first = open(conduit.connection);
    const QFCFileRef second = open(conduit.connection);
    ASSERT_NE(first, second);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, first, 0), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, second, 0), kQFCSuccess);  // shared + shared
    const QFCFileRef third = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, third, 1), kQFCWouldBlockError);
    EXPECT_EQ(QFCFileRefUnlock(conduit.connection, first), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, third, 1), kQFCWouldBlockError);  // second still shares
    EXPECT_EQ(QFCFileRefUnlock(conduit.connection, second), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, third, 1), kQFCSuccess);
    // Exclusive conflicts with either kind.
    EXPECT_EQ(QFCFileRefLock(conduit.connection, first, 0), kQFCWouldBlockError);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, second, 1), kQFCWouldBlockError);
    EXPECT_EQ(device->count("qfc-lock"), 7);
    EXPECT_EQ(device->count("qfc-unlock"), 2);
}

TEST_F(LocksTest, ConflictsAcrossConnections) {
    Conduit other = openConduit();
    const QFCFileRef mine = open(conduit.connection);
    const QFCFileRef theirs = open(other.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, mine, 1), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(other.connection, theirs, 0), kQFCWouldBlockError);
    EXPECT_EQ(QFCFileRefLock(other.connection, theirs, 1), kQFCWouldBlockError);
    // Closing the reference lets the lock go.
    EXPECT_EQ(QFCFileRefClose(conduit.connection, mine), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(other.connection, theirs, 1), kQFCSuccess);
}

TEST_F(LocksTest, AConversionToExclusiveThatFailsKeepsTheSharedLock) {
    const QFCFileRef first = open(conduit.connection);
    const QFCFileRef second = open(conduit.connection);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, first, 0), kQFCSuccess);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, second, 0), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, first, 1), kQFCWouldBlockError);  // second shares
    ASSERT_EQ(QFCFileRefUnlock(conduit.connection, second), kQFCSuccess);
    // first still holds its shared lock: nobody gets the exclusive one.
    const QFCFileRef third = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, third, 1), kQFCWouldBlockError);
    EXPECT_EQ(flockCommand("-x"), 1);
    EXPECT_EQ(flockCommand("-s"), 0);
    // And it can convert now that it is alone.
    EXPECT_EQ(QFCFileRefLock(conduit.connection, first, 1), kQFCSuccess);
    EXPECT_EQ(flockCommand("-s"), 1);
}

TEST_F(LocksTest, TheFlockCommandSeesConduitLocks) {
    const QFCFileRef ref = open(conduit.connection);
    EXPECT_EQ(flockCommand("-s"), 0);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCSuccess);
    EXPECT_EQ(flockCommand("-s"), 0);  // shared with shared
    EXPECT_EQ(flockCommand("-x"), 1);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);  // upgrade
    EXPECT_EQ(flockCommand("-s"), 1);
    ASSERT_EQ(QFCFileRefUnlock(conduit.connection, ref), kQFCSuccess);
    EXPECT_EQ(flockCommand("-x"), 0);
}

TEST_F(LocksTest, TheConduitSeesLocksOfTheFlockCommand) {
    // flock holds the lock while `read` waits for a line; "held" says it has it.
    QProcess holder;
    holder.start(QStringLiteral("flock"), {QStringLiteral("-x"), QString::fromStdString(media(kLock)), QStringLiteral("-c"),
                                           QStringLiteral("echo held; read line")});
    ASSERT_TRUE(holder.waitForStarted());
    ASSERT_TRUE(testsupport::runUntil([&] { return holder.canReadLine() || holder.waitForReadyRead(50); }));
    EXPECT_EQ(holder.readLine().trimmed(), "held");

    const QFCFileRef ref = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCWouldBlockError);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCWouldBlockError);
    holder.write("go\n");
    holder.closeWriteChannel();
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);
}

TEST_F(LocksTest, ADroppedConnectionFreesItsLocks) {
    Conduit other = openConduit();
    const QFCFileRef theirs = open(other.connection);
    ASSERT_EQ(QFCFileRefLock(other.connection, theirs, 1), kQFCSuccess);
    const QFCFileRef mine = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, mine, 1), kQFCWouldBlockError);
    // The other side goes away without closing anything.
    ::shutdown(other.fd, SHUT_RDWR);
    closeConduit(other);
    EXPECT_TRUE(testsupport::runUntil([&] { return QFCFileRefLock(conduit.connection, mine, 1) == kQFCSuccess; }));
    EXPECT_EQ(flockCommand("-s"), 1);  // and now this connection holds it
}

TEST_F(LocksTest, LocksOfAnInvalidReferenceOrAfterCloseAreRefused) {
    const QFCFileRef ref = open(conduit.connection);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);
    ASSERT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCInvalidArgumentError);
    EXPECT_EQ(QFCFileRefUnlock(conduit.connection, ref), kQFCInvalidArgumentError);
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCInvalidArgumentError);
    EXPECT_EQ(flockCommand("-x"), 0);
}

TEST_F(LocksTest, ALockFaultMatchesItsPath) {
    std::ofstream(media("other.lock")) << "";
    handlink::emu::Fault fault;
    fault.operation = "qfc-lock";
    fault.status = kQFCWouldBlockError;
    fault.match = kLock;
    device->addFault(fault);
    const QFCFileRef other = open(conduit.connection, "other.lock");
    EXPECT_EQ(QFCFileRefLock(conduit.connection, other, 1), kQFCSuccess);
    const QFCFileRef ref = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCWouldBlockError);
    EXPECT_EQ(flockCommand("-x"), 0);  // the fault took no lock
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);
}

// ---- the device's own lock holders ----

TEST_F(LocksTest, AHolderYieldsOnTheKthRequestAndOnlyThen) {
    handlink::emu::HoldLockOptions options;
    options.exclusive = true;
    options.yieldOn = "com.corvid.lumen-linkdev.syncWillStart";
    options.afterRequests = 3;
    QString error;
    auto holder = device->holdLock(kLock, options, &error);
    ASSERT_TRUE(holder) << error.toStdString();
    EXPECT_TRUE(holder->holding());
    const QFCFileRef ref = open(conduit.connection);
    EXPECT_EQ(flockCommand("-s"), 1);  // a real lock on the file in Media/

    for (int request = 1; request <= 2; ++request) {
        EXPECT_EQ(post("com.corvid.lumen-linkdev.syncWillStart"), 0);
        EXPECT_EQ(post("some.other.notification"), 0);  // other names do not count
        EXPECT_TRUE(holder->holding()) << request;
        EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCWouldBlockError) << request;
        EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCWouldBlockError) << request;
    }
    EXPECT_EQ(post("com.corvid.lumen-linkdev.syncWillStart"), 0);
    // Let go before the post was answered.
    EXPECT_FALSE(holder->holding());
    EXPECT_TRUE(holder->waitReleased(0));
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);
}

TEST_F(LocksTest, ASharedHolderLetsOtherReadersIn) {
    handlink::emu::HoldLockOptions options;
    options.exclusive = false;
    auto holder = device->holdLock(kLock, options);
    ASSERT_TRUE(holder);
    const QFCFileRef ref = open(conduit.connection);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 0), kQFCSuccess);
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCWouldBlockError);
    holder->release();
    holder->release();  // idempotent
    EXPECT_FALSE(holder->holding());
    EXPECT_EQ(QFCFileRefLock(conduit.connection, ref, 1), kQFCSuccess);
    // The holder cannot take what the conduit holds now.
    QString error;
    EXPECT_FALSE(device->holdLock(kLock, options, &error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(LocksTest, AHolderWithADelayOrADeadlineLetsGoByItself) {
    handlink::emu::HoldLockOptions options;
    options.yieldOn = "please.yield";
    options.afterRequests = 1;
    options.afterMs = 50;
    auto delayed = device->holdLock(kLock, options);
    ASSERT_TRUE(delayed);
    EXPECT_FALSE(delayed->waitReleased(0));
    EXPECT_EQ(post("please.yield"), 0);
    EXPECT_TRUE(delayed->waitReleased(30000));

    handlink::emu::HoldLockOptions deadline;
    deadline.seconds = 1;
    auto timed = device->holdLock(kLock, deadline);
    ASSERT_TRUE(timed);
    EXPECT_TRUE(timed->waitReleased(30000));
    EXPECT_EQ(flockCommand("-x"), 0);
}

TEST_F(LocksTest, HoldersRefuseEscapesFoldersAndSpecialFilesAndCreateNothingOutside) {
    ASSERT_EQ(::mkdir(media("Folder").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("../../outside/holder.lock", media("out.lock").c_str()), 0);
    ASSERT_EQ(::symlink(outside("holder-abs.lock").c_str(), media("abs.lock").c_str()), 0);
    ASSERT_EQ(::mkfifo(media("fifo.lock").c_str(), 0644), 0);
    ASSERT_TRUE(makeSocketFile(media("socket.lock")));
    const auto before = snapshotOutside(testRoot());
    const struct {
        const char* path;
        int32_t status;
    } cases[] = {
        {"../outside.lock", kQFCPermissionError}, {"out.lock", kQFCPermissionError},
        {"abs.lock", kQFCPermissionError},        {"Folder/../../x.lock", kQFCPermissionError},
        {"/", kQFCIsDirectoryError},              {"Folder", kQFCIsDirectoryError},
        {"Missing/x.lock", kQFCNotFoundError},    {"fifo.lock", kQFCPermissionError},
        {"socket.lock", kQFCPermissionError},     {"Missing/../x.lock", kQFCPermissionError},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        QString error;
        EXPECT_FALSE(device->holdLock(QString::fromUtf8(c.path), {}, &error));
        EXPECT_FALSE(error.isEmpty());
        EXPECT_EQ(handlink::emu::lastLockHolderFailure(), c.status);
    }
    EXPECT_EQ(snapshotOutside(testRoot()), before);
    EXPECT_NE(::access(outside("holder.lock").c_str(), F_OK), 0);
    EXPECT_NE(::access(outside("holder-abs.lock").c_str(), F_OK), 0);
    // A good path clears the last failure.
    auto holder = device->holdLock(kLock, {});
    ASSERT_TRUE(holder);
    EXPECT_EQ(handlink::emu::lastLockHolderFailure(), 0);
}

}  // namespace
}  // namespace qfctest
