// Accounting of HLTaskStatus: phases, subtasks, failures, coalesced updates, identity of texts.
#include <gtest/gtest.h>

#include <QString>
#include <vector>

#include "platform/Assert.h"
#include "status/HLTaskStatus.h"

namespace {

// Records every notice with the counts the status had at that moment.
struct Snapshot {
    uint32_t done;
    uint32_t total;
    QString text;
};

class RecordingDelegate : public HLTaskStatusDelegate {
public:
    void taskStatusDidChange(HLTaskStatus* status) override
    {
        updates.push_back({status->bytesTransfered(), status->totalBytesToTransfer(), status->localizedStatusInfo()});
    }
    std::vector<Snapshot> updates;
};

class IgnoringDelegate : public RecordingDelegate {
public:
    bool respondsToShouldIgnoreError() const override { return true; }
    bool taskStatusShouldIgnoreError(HLTaskStatus* status, const platform::Error& error) override
    {
        asked.push_back(error);
        sawSubtask = status->subtask() != nullptr;
        return answer;
    }
    bool answer = true;
    bool sawSubtask = false;
    std::vector<platform::Error> asked;
};

// Implements the question but says it does not answer it: never asked.
class SilentDelegate : public RecordingDelegate {
public:
    bool taskStatusShouldIgnoreError(HLTaskStatus*, const platform::Error&) override
    {
        ++asked;
        return true;
    }
    int asked = 0;
};

class DeafDelegate : public RecordingDelegate {
public:
    bool respondsToTaskStatusDidChange() const override { return false; }
};

platform::Error notFound(const QString& path)
{
    return platform::Error(platform::kHLDErrorDomain, 8, QStringLiteral("not found: ") + path);
}

}  // namespace

TEST(HLTaskStatus, StartsInSizingPhaseWithNothingCounted)
{
    HLTaskStatus status;
    EXPECT_EQ(status.taskPhase(), kHLTaskPhaseSizing);
    EXPECT_EQ(status.bytesTransfered(), 0u);
    EXPECT_EQ(status.totalBytesToTransfer(), 0u);
    EXPECT_EQ(status.remainingBytesToTransfer(), 0u);
    EXPECT_TRUE(status.localizedStatusInfo().isNull());
    EXPECT_FALSE(status.error().has_value());
    EXPECT_EQ(status.subtask(), nullptr);
    EXPECT_EQ(status.delegate(), nullptr);
}

TEST(HLTaskStatus, InvalidDelegateRaisesWithFileAndLine)
{
    DeafDelegate deaf;
    try {
        HLTaskStatus status(&deaf);
        FAIL() << "a delegate without change notices was accepted";
    } catch (const platform::AssertionFailure& failure) {
        EXPECT_EQ(failure.file(), QStringLiteral("Vireo/HLTaskStatus"));
        EXPECT_EQ(failure.line(), 35);
        EXPECT_EQ(failure.message(), QStringLiteral("Invalid delegate"));
    }

    RecordingDelegate good;
    HLTaskStatus status(&good);
    EXPECT_THROW(status.setDelegate(&deaf), platform::AssertionFailure);
    EXPECT_EQ(status.delegate(), &good) << "a refused delegate must not be stored";
    status.setDelegate(nullptr);
    EXPECT_EQ(status.delegate(), nullptr);
    status.incrementBytesTransfered(5);  // no delegate: nothing to tell, no crash
    EXPECT_EQ(good.updates.size(), 0u);
}

TEST(HLTaskStatus, ZeroIncrementChangesAndPostsNothing)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    EXPECT_EQ(status.incrementBytesTransfered(0), 0u);
    EXPECT_TRUE(delegate.updates.empty());

    status.setTaskPhase(kHLTaskPhaseTransfer);
    status.willBeginSubtask(QStringLiteral("Uploading a"), 10);
    EXPECT_EQ(status.incrementBytesTransfered(0), 0u);
    EXPECT_EQ(status.subtask()->bytesTransfered(), 0u);
    EXPECT_EQ(status.bytesTransfered(), 0u);
    EXPECT_TRUE(delegate.updates.empty());
}

TEST(HLTaskStatus, SizingPassGrowsDoneAndTotalWithoutSubtasks)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.willBeginSubtask(QStringLiteral("Uploading Media/a"), 1000);
    EXPECT_EQ(status.bytesTransfered(), 1000u);
    EXPECT_EQ(status.totalBytesToTransfer(), 1000u);
    EXPECT_EQ(status.subtask(), nullptr);
    EXPECT_TRUE(status.localizedStatusInfo().isNull()) << "the text of a sizing subtask is not shown";
    status.didEndSubtask();  // nothing to end
    status.willBeginSubtask(QStringLiteral("Uploading Media/b"), 24);
    EXPECT_EQ(status.totalBytesToTransfer(), 1024u);
    ASSERT_EQ(delegate.updates.size(), 2u);
    EXPECT_EQ(delegate.updates[1].done, 1024u);
    EXPECT_EQ(delegate.updates[1].total, 1024u);

    // Phase 0 counts done only.
    status.setTaskPhase(kHLTaskPhaseNone);
    status.willBeginSubtask(QString(), 6);
    EXPECT_EQ(status.bytesTransfered(), 6u);
    EXPECT_EQ(status.totalBytesToTransfer(), 1024u);
}

TEST(HLTaskStatus, PhaseChangeZeroesDoneButKeepsTotal)
{
    HLTaskStatus status;
    status.incrementBytesTransfered(300);
    status.setTaskPhase(kHLTaskPhaseSizing);
    EXPECT_EQ(status.bytesTransfered(), 300u) << "the same phase again keeps the count";
    status.setTaskPhase(kHLTaskPhaseTransfer);
    EXPECT_EQ(status.bytesTransfered(), 0u);
    EXPECT_EQ(status.totalBytesToTransfer(), 300u);
    EXPECT_EQ(status.remainingBytesToTransfer(), 300u);
}

TEST(HLTaskStatus, TransferSubtaskCountsItsAnnouncedSize)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.willBeginSubtask(QString(), 1000);
    status.willBeginSubtask(QString(), 500);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    status._setLocalizedStatusInfo(QStringLiteral("Copying files"));
    delegate.updates.clear();

    const QString fileText = QStringLiteral("Uploading Media/iTunes_Control/iTunes/MediaLibrary.sqlitedb");
    status.willBeginSubtask(fileText, 1000);
    EXPECT_TRUE(delegate.updates.empty()) << "beginning a file posts nothing";
    ASSERT_NE(status.subtask(), nullptr);
    EXPECT_EQ(status.subtask()->taskPhase(), kHLTaskPhaseNone);
    EXPECT_EQ(status.subtask()->totalBytesToTransfer(), 1000u);
    EXPECT_EQ(status.localizedStatusInfo(), fileText);

    EXPECT_EQ(status.incrementBytesTransfered(300), 300u);
    EXPECT_EQ(status.subtask()->bytesTransfered(), 300u);
    EXPECT_EQ(status.bytesTransfered(), 300u);
    EXPECT_EQ(status.totalBytesToTransfer(), 1500u) << "the transfer pass does not grow the total";
    ASSERT_EQ(delegate.updates.size(), 1u);
    EXPECT_EQ(delegate.updates[0].done, 300u);
    EXPECT_EQ(delegate.updates[0].text, fileText);

    status.didEndSubtask();  // the file was shorter than announced: the rest counts anyway
    EXPECT_EQ(status.bytesTransfered(), 1000u);
    EXPECT_EQ(status.subtask(), nullptr);
    EXPECT_EQ(status.localizedStatusInfo(), QStringLiteral("Copying files"));
    ASSERT_EQ(delegate.updates.size(), 2u);
    EXPECT_EQ(delegate.updates[1].done, 1000u);

    // A file read in full: ending it counts nothing more and posts nothing.
    status.willBeginSubtask(QStringLiteral("Uploading b"), 500);
    status.incrementBytesTransfered(500);
    const size_t before = delegate.updates.size();
    status.didEndSubtask();
    EXPECT_EQ(delegate.updates.size(), before);
    EXPECT_EQ(status.bytesTransfered(), 1500u);
    EXPECT_EQ(status.remainingBytesToTransfer(), 0u);
}

TEST(HLTaskStatus, CountsWrapModulo32Bits)
{
    HLTaskStatus status;
    status.incrementBytesTransfered(0xFFFFFF00u);
    status.incrementBytesTransfered(0x200u);
    EXPECT_EQ(status.bytesTransfered(), 0x100u);
    EXPECT_EQ(status.totalBytesToTransfer(), 0x100u);

    // A 3 GiB job stays exact below the wrap.
    HLTaskStatus big;
    for (int i = 0; i < 3; ++i)
        big.willBeginSubtask(QString(), 1u << 30);
    EXPECT_EQ(big.totalBytesToTransfer(), 3u << 30);
}

TEST(HLTaskStatus, RemainingNeverGoesBelowZero)
{
    HLTaskStatus status;
    status.setTaskPhase(kHLTaskPhaseNone);
    status._setTotalBytesToTransfer(100);
    status.incrementBytesTransfered(40);
    EXPECT_EQ(status.remainingBytesToTransfer(), 60u);
    status.incrementBytesTransfered(100);
    EXPECT_EQ(status.bytesTransfered(), 140u);
    EXPECT_EQ(status.remainingBytesToTransfer(), 0u);
}

TEST(HLTaskStatus, TotalPostsOnlyWhenItChanges)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status._setTotalBytesToTransfer(0);
    EXPECT_TRUE(delegate.updates.empty());
    status._setTotalBytesToTransfer(7);
    status._setTotalBytesToTransfer(7);
    ASSERT_EQ(delegate.updates.size(), 1u);
    EXPECT_EQ(delegate.updates[0].total, 7u);
}

TEST(HLTaskStatus, StatusTextComparesByIdentity)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    const QString first = QString::fromUtf8("Copying \xe2\x80\xa6");
    status._setLocalizedStatusInfo(first);
    EXPECT_EQ(delegate.updates.size(), 1u);

    const QString shared = first;  // the same string object
    status._setLocalizedStatusInfo(shared);
    EXPECT_EQ(delegate.updates.size(), 1u);

    const QString equalCopy = QString::fromUtf8("Copying \xe2\x80\xa6");  // equal text, other object
    ASSERT_EQ(equalCopy, first);
    ASSERT_FALSE(equalCopy.isSharedWith(first));
    status._setLocalizedStatusInfo(equalCopy);
    EXPECT_EQ(delegate.updates.size(), 2u);

    // One literal handed twice is one object; absent text handed again is absent.
    const QString literal = QStringLiteral("Preparing");
    status._setLocalizedStatusInfo(literal);
    status._setLocalizedStatusInfo(literal);
    EXPECT_EQ(delegate.updates.size(), 3u);
    status._setLocalizedStatusInfo(QString());
    EXPECT_EQ(delegate.updates.size(), 4u);
    status._setLocalizedStatusInfo(QString());
    EXPECT_EQ(delegate.updates.size(), 4u);
    EXPECT_TRUE(status.localizedStatusInfo().isNull());
}

TEST(HLTaskStatus, DisabledNoticesCoalesceIntoOne)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.disableChangeNotifications();
    status.disableChangeNotifications();
    status.incrementBytesTransfered(1);
    status.incrementBytesTransfered(2);
    status._setLocalizedStatusInfo(QStringLiteral("three"));
    status.enableChangeNotifications();
    EXPECT_TRUE(delegate.updates.empty());
    status.enableChangeNotifications();
    ASSERT_EQ(delegate.updates.size(), 1u);
    EXPECT_EQ(delegate.updates[0].done, 3u);
    EXPECT_EQ(delegate.updates[0].text, QStringLiteral("three"));

    // Nothing changed while disabled: no notice owed.
    status.disableChangeNotifications();
    status.enableChangeNotifications();
    EXPECT_EQ(delegate.updates.size(), 1u);

    // The owed notice is paid once, not again on a later pairing.
    status.disableChangeNotifications();
    status.incrementBytesTransfered(1);
    status.enableChangeNotifications();
    status.disableChangeNotifications();
    status.enableChangeNotifications();
    EXPECT_EQ(delegate.updates.size(), 2u);
}

TEST(HLTaskStatus, UnpairedEnableWithholdsEveryLaterNotice)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.enableChangeNotifications();  // depth wraps to 4,294,967,295
    status.incrementBytesTransfered(10);
    status._setTotalBytesToTransfer(99);
    EXPECT_TRUE(delegate.updates.empty());
    EXPECT_EQ(status.bytesTransfered(), 10u) << "counting goes on, only the notices stop";
    status.disableChangeNotifications();  // back to 0, and the owed notice is still owed
    status.incrementBytesTransfered(1);
    EXPECT_EQ(delegate.updates.size(), 1u);
}

TEST(HLTaskStatus, FailureWithoutIgnoringStoresErrorAndDropsSubtask)
{
    RecordingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.willBeginSubtask(QString(), 800);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    status.willBeginSubtask(QStringLiteral("Uploading a"), 800);
    status.incrementBytesTransfered(100);
    const size_t before = delegate.updates.size();

    status.didFailWithError(notFound(QStringLiteral("a")));
    EXPECT_EQ(delegate.updates.size(), before) << "a failure posts nothing";
    ASSERT_TRUE(status.error().has_value());
    EXPECT_EQ(status.error()->code(), 8);
    EXPECT_EQ(status.subtask(), nullptr);
    EXPECT_EQ(status.bytesTransfered(), 100u) << "the failed file's rest is not counted";

    // A later failure replaces the stored one; a copy read before stays intact.
    const std::optional<platform::Error> firstRead = status.error();
    status.didFailWithError(platform::Error(platform::kHLDErrorDomain, 0xE800000B, QStringLiteral("gone")));
    EXPECT_EQ(status.error()->code(), 0xE800000B);
    EXPECT_EQ(firstRead->localizedDescription(), QStringLiteral("not found: a"));
}

TEST(HLTaskStatus, DelegateMayIgnoreFailures)
{
    IgnoringDelegate delegate;
    HLTaskStatus status(&delegate);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    status.willBeginSubtask(QStringLiteral("Uploading a"), 10);

    status.didFailWithError(notFound(QStringLiteral("a")));
    ASSERT_EQ(delegate.asked.size(), 1u);
    EXPECT_EQ(delegate.asked[0].localizedDescription(), QStringLiteral("not found: a"));
    EXPECT_TRUE(delegate.sawSubtask);
    EXPECT_FALSE(status.error().has_value());
    EXPECT_NE(status.subtask(), nullptr) << "an ignored failure leaves the subtask in place";

    delegate.answer = false;
    status.didFailWithError(notFound(QStringLiteral("b")));
    EXPECT_EQ(delegate.asked.size(), 2u);
    ASSERT_TRUE(status.error().has_value());
    EXPECT_EQ(status.error()->localizedDescription(), QStringLiteral("not found: b"));
    EXPECT_EQ(status.subtask(), nullptr);
}

TEST(HLTaskStatus, QuestionIsAskedOnlyOfDelegatesThatAnswerIt)
{
    SilentDelegate delegate;
    HLTaskStatus status(&delegate);
    status.didFailWithError(notFound(QStringLiteral("a")));
    EXPECT_EQ(delegate.asked, 0);
    EXPECT_TRUE(status.error().has_value());

    HLTaskStatus orphan;
    orphan.didFailWithError(notFound(QStringLiteral("c")));
    EXPECT_TRUE(orphan.error().has_value());
}

TEST(HLTaskStatus, NestedSubtaskCountsThroughEveryLevel)
{
    HLTaskStatus status;
    status.setTaskPhase(kHLTaskPhaseTransfer);
    status._setTotalBytesToTransfer(100);
    status.willBeginSubtask(QStringLiteral("outer"), 100);
    HLTaskStatus* outer = status.subtask();
    outer->setTaskPhase(kHLTaskPhaseTransfer);
    outer->willBeginSubtask(QStringLiteral("inner"), 40);
    EXPECT_EQ(status.localizedStatusInfo(), QStringLiteral("inner"));
    status.incrementBytesTransfered(15);
    EXPECT_EQ(outer->subtask()->bytesTransfered(), 15u);
    EXPECT_EQ(outer->bytesTransfered(), 15u);
    EXPECT_EQ(status.bytesTransfered(), 15u);
}
