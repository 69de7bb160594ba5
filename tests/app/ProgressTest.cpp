// The progress hand-back: a real worker thread counts into an HLTaskStatus whose delegate is
// the controller, while the main loop runs.
#include <QLabel>
#include <QProgressBar>
#include <QThread>
#include <atomic>
#include <vector>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "status/HLTaskStatus.h"

using apptest::AppTest;
using platform::Defaults;

namespace {

struct Progress {
    AppInterface interface{Defaults::standard()};
    VRAppController& controller = interface.controller();
    QProgressBar* bar = interface.mainWindow().progressBar();
    QLabel* text = interface.mainWindow().opStatusText();
    apptest::Worker worker;
    std::vector<bool> barChangesOnMainThread;
    // The bar's value as the main thread last set it; the worker reads it.
    std::atomic<int> barValueSeen{-1};

    Progress()
    {
        interface.show();
        QObject::connect(bar, &QProgressBar::valueChanged, bar, [this](int value) {
            barChangesOnMainThread.push_back(QThread::currentThread() == bar->thread());
            barValueSeen = value;
        }, Qt::DirectConnection);
        bar->setRange(0, 0);
        text->setText(QStringLiteral("Before"));
    }
    bool indeterminate() const { return bar->minimum() == 0 && bar->maximum() == 0; }
};

}  // namespace

TEST_F(AppTest, ProgressFollowsTheTransferPassOnly)
{
    Progress p;
    HLTaskStatus status(&p.controller);

    // Sizing pass: every change is posted, none reaches the window.
    ASSERT_TRUE(p.worker.run([&] {
        status.setTaskPhase(kHLTaskPhaseSizing);
        status.willBeginSubtask(QStringLiteral("Uploading a"), 1000);
        status.willBeginSubtask(QStringLiteral("Uploading b"), 3000);
        status._setLocalizedStatusInfo(QStringLiteral("Sizing"));
    }));
    EXPECT_EQ(status.totalBytesToTransfer(), 4000u);
    EXPECT_TRUE(p.indeterminate());
    EXPECT_EQ(p.text->text(), QStringLiteral("Before"));

    // Transfer pass: the bar turns determinate and counts thousandths of the total.
    ASSERT_TRUE(p.worker.run([&] {
        status.setTaskPhase(kHLTaskPhaseTransfer);
        status._setLocalizedStatusInfo(QStringLiteral("Copying files"));
    }));
    EXPECT_FALSE(p.indeterminate());
    EXPECT_EQ(p.bar->maximum(), 1000);
    EXPECT_EQ(p.bar->value(), 0);
    EXPECT_TRUE(p.text->isVisible());
    EXPECT_EQ(p.text->text(), QStringLiteral("Copying files"));

    ASSERT_TRUE(p.worker.run([&] {
        status.willBeginSubtask(QStringLiteral("Uploading a"), 1000);
        status.incrementBytesTransfered(600);
    }));
    EXPECT_EQ(p.bar->value(), 150);
    EXPECT_EQ(p.text->text(), QStringLiteral("Uploading a"));

    // Ending the file posts its remaining bytes while the file is still current: the line
    // keeps the file's text until the next update.
    ASSERT_TRUE(p.worker.run([&] { status.didEndSubtask(); }));
    EXPECT_EQ(p.bar->value(), 250);
    EXPECT_EQ(p.text->text(), QStringLiteral("Uploading a"));
    EXPECT_EQ(status.localizedStatusInfo(), QStringLiteral("Copying files"));

    // An empty text hides the line; the next text shows it again.
    ASSERT_TRUE(p.worker.run([&] { status._setLocalizedStatusInfo(QStringLiteral("")); }));
    EXPECT_FALSE(p.text->isVisible());
    EXPECT_EQ(p.bar->value(), 250);
    ASSERT_TRUE(p.worker.run([&] {
        status.willBeginSubtask(QStringLiteral("Uploading b"), 3000);
        status.incrementBytesTransfered(3000);
    }));
    EXPECT_TRUE(p.text->isVisible());
    EXPECT_EQ(p.text->text(), QStringLiteral("Uploading b"));
    EXPECT_EQ(p.bar->value(), 1000);

    ASSERT_FALSE(p.barChangesOnMainThread.empty());
    for (bool onMain : p.barChangesOnMainThread)
        EXPECT_TRUE(onMain) << "the bar was changed off the main thread";
}

TEST_F(AppTest, ProgressIgnoresPlainCounting)
{
    Progress p;
    HLTaskStatus status(&p.controller);
    // Phase 0 posts for every change too; none reaches the window.
    ASSERT_TRUE(p.worker.run([&] {
        status.setTaskPhase(kHLTaskPhaseNone);
        status._setTotalBytesToTransfer(1000);
        status.incrementBytesTransfered(400);
        status._setLocalizedStatusInfo(QStringLiteral("Counting"));
        status._setLocalizedStatusInfo(QString());
    }));
    EXPECT_EQ(status.bytesTransfered(), 400u);
    EXPECT_TRUE(p.indeterminate());
    EXPECT_EQ(p.barValueSeen, -1);
    EXPECT_TRUE(p.text->isVisible());
    EXPECT_EQ(p.text->text(), QStringLiteral("Before"));
}

TEST_F(AppTest, ProgressUpdateWaitsForTheMainThread)
{
    Progress p;
    HLTaskStatus status(&p.controller);
    constexpr int kUpdates = 1000;
    std::vector<int> seenAfterReturn;
    // Each update in the transfer pass moves the bar by one thousandth. Right after
    // taskStatusDidChange returns on the worker, the main thread must already have set it.
    ASSERT_TRUE(p.worker.run([&] {
        status.willBeginSubtask(QString(), kUpdates);
        status.setTaskPhase(kHLTaskPhaseTransfer);
        for (int i = 1; i <= kUpdates; ++i) {
            status.incrementBytesTransfered(1);
            seenAfterReturn.push_back(p.barValueSeen.load());
        }
    }));
    ASSERT_EQ(seenAfterReturn.size(), size_t(kUpdates));
    int early = 0;
    for (int i = 0; i < kUpdates; ++i)
        early += seenAfterReturn[i] != i + 1;
    EXPECT_EQ(early, 0) << "updates returned before the main thread had shown them";
    EXPECT_EQ(p.bar->value(), kUpdates);
}

TEST_F(AppTest, ProgressIgnoresAJobWithoutATotal)
{
    Progress p;
    HLTaskStatus status(&p.controller);
    ASSERT_TRUE(p.worker.run([&] {
        status.setTaskPhase(kHLTaskPhaseTransfer);
        status.incrementBytesTransfered(10);
        status._setLocalizedStatusInfo(QStringLiteral("Nothing to count"));
    }));
    EXPECT_EQ(status.bytesTransfered(), 10u);
    EXPECT_TRUE(p.indeterminate());
    EXPECT_EQ(p.text->text(), QStringLiteral("Before"));
}

TEST_F(AppTest, ProgressShowsJobsOfTwoToFourGibibytes)
{
    Progress p;
    HLTaskStatus status(&p.controller);
    ASSERT_TRUE(p.worker.run([&] {
        status.willBeginSubtask(QString(), 3u << 30);  // 3 GiB: more than an int holds
        status.setTaskPhase(kHLTaskPhaseTransfer);
        status._setLocalizedStatusInfo(QStringLiteral("Copying"));
        status.incrementBytesTransfered(3u << 29);  // half of it
    }));
    EXPECT_EQ(p.bar->maximum(), 1000);
    EXPECT_EQ(p.bar->value(), 500);

    HLTaskStatus largest(&p.controller);
    ASSERT_TRUE(p.worker.run([&] {
        largest.willBeginSubtask(QString(), 0xFFFFFFFFu);
        largest.setTaskPhase(kHLTaskPhaseTransfer);
        largest.incrementBytesTransfered(0xFFFFFFFFu / 4);
    }));
    EXPECT_EQ(p.bar->value(), 250);
}
