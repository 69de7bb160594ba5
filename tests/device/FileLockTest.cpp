// The counted file-conduit connection, file locks and the simple file operations.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <gtest/gtest.h>
#include <thread>

#include "DeviceTestbed.h"
#include "device/HLFileConduitProxy.h"
#include "platform/SystemLog.h"

using devicetest::DeviceTest;
using handlink::emu::Fault;
using handlink::emu::HoldLockOptions;
using handlink::emu::LockHolder;

namespace {

const QString kLock = QStringLiteral("com.corvid.lumen.lock_sync");
const QString kRequest = QStringLiteral("com.corvid.lumen-linkdev.syncWillStart");

Fault fault(const QString& operation, int32_t status)
{
    Fault f;
    f.operation = operation;
    f.status = status;
    return f;
}

HoldLockOptions holding(bool exclusive)
{
    HoldLockOptions options;
    options.exclusive = exclusive;
    return options;
}

}  // namespace

class FileLocks : public DeviceTest {
protected:
    // The file-conduit uses held by the device object now (0 when it has no connection).
    int connectionUses() const
    {
        std::shared_ptr<HLFileConduitProxy> service = dev->activeFileCounduitService();
        return service ? service->sessionConnectionOpenCount() : 0;
    }
    std::unique_ptr<LockHolder> holdOnDevice(const HoldLockOptions& options)
    {
        QString error;
        std::unique_ptr<LockHolder> holder = device->holdLock(kLock, options, &error);
        EXPECT_TRUE(holder) << error.toStdString();
        return holder;
    }
    QString mediaFile(const QString& path) const { return QDir(device->mediaRoot()).filePath(path); }
};

TEST_F(FileLocks, CountedConnectionOpensOnceAndGoesAwayWithTheLastUse)
{
    EXPECT_TRUE(dev->_qfcConnectionOpen());
    std::shared_ptr<HLFileConduitProxy> service = dev->activeFileCounduitService();
    ASSERT_TRUE(service);
    EXPECT_NE(dev->qfcConnectionRef(), nullptr);
    EXPECT_TRUE(dev->_qfcConnectionOpen());
    EXPECT_EQ(dev->activeFileCounduitService(), service);
    EXPECT_EQ(dev->activeServiceSessions().count(service), 1u);
    dev->_qfcConnectionClose();
    EXPECT_EQ(connectionUses(), 1);
    dev->_qfcConnectionClose();
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(dev->activeServiceSessions().count(service), 0u);
    EXPECT_EQ(dev->qfcConnectionRef(), nullptr);
    EXPECT_EQ(device->count("start-service"), 1);
    EXPECT_EQ(device->count("qfc-connect"), 1);
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    dev->_qfcConnectionClose();  // nothing left to close
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
}

TEST_F(FileLocks, ExclusiveAgainstAnExclusiveOrSharedHolder)
{
    platform::LogCapture log;
    for (bool holderExclusive : {true, false}) {
        std::unique_ptr<LockHolder> holder = holdOnDevice(holding(holderExclusive));
        ASSERT_TRUE(holder);
        EXPECT_EQ(dev->acquireExclusiveFilelockAtRelativePath(kLock), -1);
        EXPECT_EQ(connectionUses(), 0);
        EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
        EXPECT_TRUE(dev->qfcLockedFiles().empty());
        holder->release();
    }
    EXPECT_TRUE(log.lines().isEmpty());  // a failed attempt is silent
    EXPECT_EQ(device->count("qfc-lock"), 2);
    EXPECT_EQ(device->count("qfc-close"), 2);  // each failed attempt closed its file
    EXPECT_EQ(device->count("qfc-connect"), device->count("qfc-disconnect"));

    // With the holders gone the lock is free; a shared holder and a shared lock coexist.
    std::unique_ptr<LockHolder> shared = holdOnDevice(holding(false));
    const int32_t handle = dev->acquireSharedFilelockAtRelativePath(kLock);
    EXPECT_GE(handle, 0);
    EXPECT_EQ(connectionUses(), 1);
    dev->releaseFilelock(handle);
    EXPECT_EQ(connectionUses(), 0);
}

TEST_F(FileLocks, ExclusiveLockKeepsTheDeviceOut)
{
    const int32_t handle = dev->acquireExclusiveFilelockAtRelativePath(kLock);
    ASSERT_GE(handle, 0);
    EXPECT_TRUE(QFile::exists(mediaFile(kLock)));  // the lock file was made
    EXPECT_EQ(dev->qfcLockedFiles(), std::set<QFCFileRef>{static_cast<QFCFileRef>(handle)});
    QString error;
    EXPECT_EQ(device->holdLock(kLock, holding(false), &error), nullptr);
    dev->releaseFilelock(handle);
    EXPECT_EQ(device->count("qfc-unlock"), 1);
    std::unique_ptr<LockHolder> after = device->holdLock(kLock, holding(true), &error);
    EXPECT_TRUE(after) << error.toStdString();
}

TEST_F(FileLocks, TwoSharedHandlesAndReleasingBothClosesTheConnection)
{
    const int32_t first = dev->acquireSharedFilelockAtRelativePath(kLock);
    const int32_t second = dev->acquireSharedFilelockAtRelativePath(kLock);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(dev->qfcLockedFiles(),
              (std::set<QFCFileRef>{static_cast<QFCFileRef>(first), static_cast<QFCFileRef>(second)}));
    EXPECT_EQ(connectionUses(), 2);
    EXPECT_EQ(device->count("qfc-connect"), 1);

    dev->releaseFilelock(first);
    EXPECT_EQ(connectionUses(), 1);
    dev->releaseFilelock(second);
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    EXPECT_EQ(device->count("qfc-unlock"), 2);
    EXPECT_EQ(device->count("qfc-close"), 2);
}

TEST_F(FileLocks, ReleasingAnUnknownHandleGivesBackOneUse)
{
    const int32_t handle = dev->acquireExclusiveFilelockAtRelativePath(kLock);
    ASSERT_GE(handle, 0);
    ASSERT_TRUE(dev->_qfcConnectionOpen());
    EXPECT_EQ(connectionUses(), 2);
    platform::LogCapture log;
    dev->releaseFilelock(handle + 1000);
    EXPECT_EQ(connectionUses(), 1);
    EXPECT_EQ(device->count("qfc-unlock"), 0);
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(dev->qfcLockedFiles().size(), 1u);
    dev->releaseFilelock(handle);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(device->count("qfc-unlock"), 1);
}

TEST_F(FileLocks, LockFileInAMissingFolder)
{
    platform::LogCapture log;
    EXPECT_EQ(dev->acquireExclusiveFilelockAtRelativePath("NoSuchFolder/lock_sync"), -1);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Attempt to attain file lock failed.  Could not create file "
                                       "'NoSuchFolder/lock_sync' on device. error = HLDError: 'HL_QFCFileRefOpen()', "
                                       "hld_error = 8 (kQFCNotFoundError)."});
    EXPECT_EQ(device->count("qfc-lock"), 0);
    EXPECT_EQ(device->count("qfc-close"), 0);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_FALSE(QDir(mediaFile("NoSuchFolder")).exists());
}

TEST_F(FileLocks, NoConnectionNoLock)
{
    device->addFault(fault("start-service", kHLDInvalidServiceError));
    EXPECT_EQ(dev->acquireSharedFilelockAtRelativePath(kLock), -1);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);  // the failed proxy was discarded
    EXPECT_TRUE(dev->activeServiceSessions().empty());
    EXPECT_EQ(device->count("qfc-open"), 0);
}

TEST_F(FileLocks, FailedUnlockIsLoggedAndTheFileStillClosed)
{
    const int32_t handle = dev->acquireExclusiveFilelockAtRelativePath(kLock);
    ASSERT_GE(handle, 0);
    device->addFault(fault("qfc-unlock", kQFCInvalidArgumentError));
    platform::LogCapture log;
    dev->releaseFilelock(handle);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Attempt to -- unlock file lock failed.  Could not unlock file device. "
                                       "error = HLDError: 'QFCFileRefUnlock()', hld_error = 7 (kQFCInvalidArgumentError)."});
    EXPECT_EQ(device->count("qfc-close"), 1);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
}

TEST_F(FileLocks, BlockingCoreLogsAFailedLock)
{
    ASSERT_TRUE(dev->_qfcConnectionOpen());
    device->addFault(fault("qfc-lock", kQFCBusyError));
    platform::LogCapture log;
    EXPECT_EQ(dev->_qfcAcquireFilelockAtRelativePath(kLock, true, false), kQFCInvalidFileRef);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Attempt to ++ attain file lock failed.  Could not lock file "
                                       "'com.corvid.lumen.lock_sync' on device. error = HLDError: 'QFCFileRefLock()', "
                                       "hld_error = 17 (kQFCBusyError)."});
    EXPECT_EQ(device->count("qfc-close"), 1);
    dev->_qfcConnectionClose();
}

TEST_F(FileLocks, WaitingWithTimeoutZeroMakesOneAttemptAndPostsNothing)
{
    std::unique_ptr<LockHolder> holder = holdOnDevice(holding(true));
    EXPECT_EQ(dev->blockingAquireExclusiveFilelockAtRelativePath(kLock, kRequest, 0.0), -1);
    EXPECT_EQ(device->count("qfc-lock"), 1);
    EXPECT_EQ(device->count("post-notification"), 0);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(device->count("qfc-connect"), 1);  // the waiting use kept one connection
}

TEST_F(FileLocks, WaitingAcquiresAfterTheHolderYieldsToKRequests)
{
    constexpr int K = 3;
    HoldLockOptions options = holding(true);
    options.yieldOn = kRequest;
    options.afterRequests = K;
    std::unique_ptr<LockHolder> holder = holdOnDevice(options);
    const int32_t handle = dev->blockingAquireExclusiveFilelockAtRelativePath(kLock, kRequest, 60.0);
    ASSERT_GE(handle, 0);
    EXPECT_EQ(device->count("qfc-lock"), K + 1);
    EXPECT_EQ(device->postCount(kRequest), K);
    EXPECT_EQ(device->postedNotifications(), QStringList(K, kRequest));
    EXPECT_EQ(connectionUses(), 1);  // the lock's own use; the waiting use was given back
    EXPECT_EQ(device->count("qfc-connect"), 1);
    dev->releaseFilelock(handle);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
}

TEST_F(FileLocks, WaitingSharedAcquisitionWithoutANotificationPostsNothing)
{
    std::unique_ptr<LockHolder> holder = holdOnDevice(holding(true));
    // Lets go once the device has refused three attempts.
    std::thread releaser([&] {
        while (device->count("qfc-lock") < 3) QThread::yieldCurrentThread();
        holder->release();
    });
    const int32_t handle = dev->blockingAquireSharedFilelockAtRelativePath(kLock, QString(), 60.0);
    releaser.join();
    ASSERT_GE(handle, 0);
    // The holder lets go once the device has counted the third attempt, which may then
    // already succeed: at least two refused attempts, so the loop kept polling.
    EXPECT_GE(device->count("qfc-lock"), 3);
    EXPECT_EQ(device->count("post-notification"), 0);
    EXPECT_EQ(device->count("start-service"), 1);  // no notification service was started
    dev->releaseFilelock(handle);
}

TEST_F(FileLocks, WaitingThatTimesOutPostsBeforeEveryPause)
{
    std::unique_ptr<LockHolder> holder = holdOnDevice(holding(false));
    EXPECT_EQ(dev->blockingAquireExclusiveFilelockAtRelativePath(kLock, kRequest, 0.25), -1);
    const int attempts = device->count("qfc-lock");
    EXPECT_GE(attempts, 2);
    EXPECT_EQ(device->postCount(kRequest), attempts - 1);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
}

TEST_F(FileLocks, WaitingWithoutAConnectionAnswersAtOnce)
{
    device->addFault(fault("qfc-connect", kQFCNoResourcesError));
    EXPECT_EQ(dev->blockingAquireExclusiveFilelockAtRelativePath(kLock, kRequest, 60.0), -1);
    EXPECT_EQ(device->count("qfc-lock"), 0);
    EXPECT_EQ(device->count("post-notification"), 0);
}

TEST_F(FileLocks, MakeEmptyFileKeepsContentAndCreatesMissingFiles)
{
    QFile existing(mediaFile("com.corvid.lumen.syncing"));
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("keep me");
    existing.close();
    EXPECT_TRUE(dev->makeEmptyFileOnDevice("com.corvid.lumen.syncing", nullptr));
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), QByteArray("keep me"));

    std::optional<Error> error;
    EXPECT_TRUE(dev->makeEmptyFileOnDevice("fresh-file", &error));
    EXPECT_FALSE(error.has_value());
    EXPECT_TRUE(QFile::exists(mediaFile("fresh-file")));
    EXPECT_EQ(QFileInfo(mediaFile("fresh-file")).size(), 0);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);

    EXPECT_FALSE(dev->makeEmptyFileOnDevice("NoSuchFolder/file", &error));
    EXPECT_FALSE(error.has_value());  // the slot is never written
}

TEST_F(FileLocks, RemoveAnswersItsDeliberateResults)
{
    QFile file(mediaFile("to-remove"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    std::optional<Error> error;
    EXPECT_TRUE(dev->removeFileFromDevice("to-remove", &error));
    EXPECT_FALSE(QFile::exists(mediaFile("to-remove")));
    EXPECT_FALSE(dev->removeFileFromDevice("to-remove", &error));  // missing now
    EXPECT_FALSE(error.has_value());
    EXPECT_EQ(device->count("qfc-remove"), 2);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);

    // Without a connection: YES, and nothing is removed.
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    device->addFault(fault("start-service", kHLDInvalidServiceError));
    EXPECT_TRUE(dev->removeFileFromDevice("to-remove", &error));
    EXPECT_TRUE(QFile::exists(mediaFile("to-remove")));
    EXPECT_EQ(device->count("qfc-remove"), 2);
}

TEST_F(FileLocks, CheckedOpenLeavesNoHalfOpenReference)
{
    ASSERT_TRUE(dev->_qfcConnectionOpen());
    QFCConnectionRef connection = dev->qfcConnectionRef();
    QFCFileRef ref = kQFCInvalidFileRef;
    EXPECT_EQ(QFCFileRefOpenChecked(connection, "NoSuchFolder/x", 2, &ref), kQFCNotFoundError);
    EXPECT_EQ(ref, kQFCInvalidFileRef);
    EXPECT_EQ(device->count("qfc-close"), 0);

    EXPECT_EQ(QFCFileRefOpenChecked(connection, "opened", 2, &ref), 0);
    EXPECT_NE(ref, kQFCInvalidFileRef);
    EXPECT_LT(ref, QFCFileRef(1) << 31);
    EXPECT_EQ(QFCFileRefClose(connection, ref), 0);

    QFCFileRef directory = kQFCInvalidFileRef;
    ASSERT_TRUE(QDir(device->mediaRoot()).mkpath("a-folder"));
    EXPECT_EQ(QFCFileRefOpenChecked(connection, "a-folder", 2, &directory), kQFCIsDirectoryError);
    EXPECT_EQ(directory, kQFCInvalidFileRef);
    dev->_qfcConnectionClose();
}
