// The error policy: not-found failures skipped while ignored, the Stop / Continue Anyways
// question asked on the main thread while the worker waits, and plain alerts posted.
#include <QPushButton>
#include <QTimer>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/VRAppController.h"
#include "app/WarningPanel.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"
#include "status/HLTaskStatus.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using platform::Defaults;
using platform::Error;

namespace {

Error notFound()
{
    return Error(platform::kHLDErrorDomain, 8,
                 QStringLiteral("HLDError: 'QFCFileRefOpen()', hld_error = 8 (kQFCNotFoundError)."));
}

Error notConnected()
{
    return Error(platform::kHLDErrorDomain, static_cast<qint32>(0xE800000B),
                 QStringLiteral("HLDError: 'QFCFileRefRead()', hld_error = -402653173 (kHLDNotConnectedError)."));
}

struct Policy {
    VRAppController controller{Defaults::standard()};
    apptest::ScriptedAlertPresenter presenter;
    apptest::Worker worker;
    HLTaskStatus status{&controller};

    Policy()
    {
        controller.setAlertPresenter(&presenter);
        status.setTaskPhase(kHLTaskPhaseTransfer);
        status._setTotalBytesToTransfer(100);
    }
    // Fails the current file on the worker, as the copy routines do.
    bool failOnWorker(const Error& error)
    {
        return worker.run([this, error] {
            status.willBeginSubtask(QStringLiteral("Uploading iTunes_Control/Artwork"), 100);
            status.didFailWithError(error);
        });
    }
};

}  // namespace

TEST_F(AppTest, NotFoundIsSkippedSilentlyWhileIgnored)
{
    Policy p;
    p.controller.setIgnoreFileNotFoundErrors(true);
    ASSERT_TRUE(p.failOnWorker(notFound()));
    EXPECT_TRUE(p.presenter.shown().empty());
    EXPECT_FALSE(p.status.error().has_value());
    EXPECT_NE(p.status.subtask(), nullptr) << "the job goes on with this file's status";
    EXPECT_FALSE(p.controller.userCancelledForError());

    // Only the code counts, not the domain.
    p.status.didEndSubtask();
    ASSERT_TRUE(p.failOnWorker(Error(platform::kPOSIXErrorDomain, 8, QString())));
    EXPECT_TRUE(p.presenter.shown().empty());
}

TEST_F(AppTest, StopRecordsTheErrorAndLeavesTheUserCancelled)
{
    Policy p;
    p.controller.setIgnoreFileNotFoundErrors(true);
    p.presenter.answer(kAlertFirstButtonReturn);
    ASSERT_TRUE(p.failOnWorker(notConnected()));

    const auto shown = p.presenter.shown();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_TRUE(shown[0].onMainThread);
    EXPECT_EQ(shown[0].alert.messageText, notConnected().localizedDescription());
    EXPECT_EQ(shown[0].alert.buttons, (QStringList{QStringLiteral("Stop"), QStringLiteral("Continue Anyways")}));
    ASSERT_TRUE(p.status.error().has_value());
    EXPECT_EQ(p.status.error()->code(), notConnected().code());
    EXPECT_EQ(p.status.subtask(), nullptr);
    EXPECT_TRUE(p.controller.userCancelledForError());

    // A skipped failure later does not clear it; only the next question does.
    ASSERT_TRUE(p.worker.run([&] { EXPECT_TRUE(p.controller.taskStatusShouldIgnoreError(&p.status, notFound())); }));
    EXPECT_TRUE(p.controller.userCancelledForError());
    p.presenter.answer(kAlertSecondButtonReturn);
    ASSERT_TRUE(p.worker.run([&] { EXPECT_TRUE(p.controller.taskStatusShouldIgnoreError(&p.status, notConnected())); }));
    EXPECT_FALSE(p.controller.userCancelledForError());
    EXPECT_EQ(p.presenter.shown().size(), 2u);
}

TEST_F(AppTest, UserCountsAsCancelledWhileTheQuestionIsOpen)
{
    Policy p;
    std::vector<bool> cancelledWhileOpen;  // main thread only
    p.presenter.whileOpen([&] { cancelledWhileOpen.push_back(p.controller.userCancelledForError()); });

    // From a clear start, answered "Continue Anyways"; then again, answered "Stop".
    EXPECT_FALSE(p.controller.userCancelledForError());
    p.presenter.answer(kAlertSecondButtonReturn);
    ASSERT_TRUE(p.worker.run([&] { EXPECT_TRUE(p.controller.taskStatusShouldIgnoreError(&p.status, notConnected())); }));
    EXPECT_FALSE(p.controller.userCancelledForError());
    p.presenter.answer(kAlertFirstButtonReturn);
    ASSERT_TRUE(p.worker.run([&] { EXPECT_FALSE(p.controller.taskStatusShouldIgnoreError(&p.status, notConnected())); }));
    EXPECT_TRUE(p.controller.userCancelledForError());

    EXPECT_EQ(cancelledWhileOpen, (std::vector<bool>{true, true}));
}

TEST_F(AppTest, ContinueAnywaysLetsTheJobGoOn)
{
    Policy p;
    p.presenter.answer(kAlertSecondButtonReturn);
    ASSERT_TRUE(p.failOnWorker(notFound())) << "not ignoring: even a missing file asks";

    ASSERT_EQ(p.presenter.shown().size(), 1u);
    EXPECT_EQ(p.presenter.shown()[0].alert.buttons.value(1), QStringLiteral("Continue Anyways"));
    EXPECT_FALSE(p.status.error().has_value());
    EXPECT_NE(p.status.subtask(), nullptr);
    EXPECT_FALSE(p.controller.userCancelledForError());

    // Counting goes on with the next item.
    ASSERT_TRUE(p.worker.run([&] {
        p.status.didEndSubtask();
        p.status.willBeginSubtask(QStringLiteral("Uploading next"), 50);
        p.status.incrementBytesTransfered(50);
    }));
    EXPECT_EQ(p.status.bytesTransfered(), 150u);
}

TEST_F(AppTest, PlainAlertIsPostedWithoutWaiting)
{
    Policy p;
    const Error posix(platform::kPOSIXErrorDomain, 28, QString(), QStringLiteral("/tmp/Vireo/Media"));
    // The main thread runs no events until the worker has returned, so a call that waited for
    // the alert would never return: the bounded wait then fails the test instead of hanging.
    p.worker.start([&] { p.controller._presentAlertForError(posix); });
    const bool returnedAlone = p.worker.waitWithoutEventLoop(10000);
    EXPECT_TRUE(returnedAlone) << "_presentAlertForError waited for the main thread";
    EXPECT_TRUE(p.presenter.shown().empty());
    if (!returnedAlone) {
        ASSERT_TRUE(testsupport::runUntil([&] { return p.worker.finished(); }));
    }

    ASSERT_TRUE(testsupport::runUntil([&] { return !p.presenter.shown().empty(); }));
    const auto shown = p.presenter.shown();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_TRUE(shown[0].onMainThread);
    EXPECT_TRUE(shown[0].alert.buttons.isEmpty()) << "a plain alert has its one default button";
    EXPECT_EQ(shown[0].alert.messageText, posix.description()) << "a record without a text of its own";
    EXPECT_TRUE(shown[0].alert.messageText.contains(QStringLiteral("/tmp/Vireo/Media")));
}

TEST_F(AppTest, WarningPanelAnswersWithTheButtonPressed)
{
    AppInterface interface(Defaults::standard());
    WarningPanel& panel = interface.warningPanel();
    Alert alert = Alert::fromError(notConnected());
    alert.buttons = {QStringLiteral("Stop"), QStringLiteral("Continue Anyways")};

    auto press = [&](const QString& name) {
        QTimer::singleShot(0, &panel, [&panel, name] {
            auto* button = panel.findChild<QPushButton*>(name);
            ASSERT_NE(button, nullptr);
            button->click();
        });
    };
    press(QStringLiteral("alertButton1"));
    EXPECT_EQ(panel.runModal(alert), kAlertSecondButtonReturn);
    press(QStringLiteral("alertButton0"));
    EXPECT_EQ(panel.runModal(alert), kAlertFirstButtonReturn);
    QTimer::singleShot(0, &panel, [&panel] { panel.reject(); });
    EXPECT_EQ(panel.runModal(alert), kAlertFirstButtonReturn) << "closing the panel answers Stop";

    const QList<QPushButton*> buttons = panel.setAlert(alert);
    ASSERT_EQ(buttons.size(), 2);
    EXPECT_EQ(buttons[0]->text(), QStringLiteral("Stop"));
    EXPECT_TRUE(buttons[0]->isDefault());
    EXPECT_EQ(buttons[1]->text(), QStringLiteral("Continue Anyways"));
    EXPECT_EQ(panel.findChildren<QPushButton*>().size(), 2) << "buttons of earlier alerts are gone";
    interface.show();
    panel.show();
    EXPECT_GT(buttons[0]->geometry().x(), buttons[1]->geometry().x()) << "the default button sits rightmost";
    panel.hide();

    EXPECT_EQ(panel.setAlert(Alert::fromError(notFound())).value(0)->text(), QStringLiteral("OK"));
}

TEST_F(AppTest, ErrorAlertThroughTheRealPanelFromAWorker)
{
    AppInterface interface(Defaults::standard());
    interface.show();
    VRAppController& controller = interface.controller();
    WarningPanel& panel = interface.warningPanel();
    HLTaskStatus status(&controller);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    apptest::Worker worker;

    // The panel runs its own modal loop; a timer inside that loop answers it.
    bool workerWaited = false;
    QString pressed;
    QTimer answerer;
    answerer.setInterval(5);
    QObject::connect(&answerer, &QTimer::timeout, &panel, [&] {
        if (!panel.isVisible())
            return;
        answerer.stop();
        workerWaited = !worker.finished();
        EXPECT_TRUE(panel.isModal());
        if (auto* stop = panel.findChild<QPushButton*>(QStringLiteral("alertButton0"))) {
            pressed = stop->text();
            stop->click();
        }
    });
    answerer.start();
    worker.start([&] {
        status.willBeginSubtask(QStringLiteral("Uploading a"), 10);
        status.didFailWithError(notConnected());
    });
    ASSERT_TRUE(testsupport::runUntil([&] { return worker.finished(); }));
    EXPECT_TRUE(workerWaited) << "the worker waits for the answer";
    EXPECT_EQ(pressed, QStringLiteral("Stop"));
    EXPECT_TRUE(status.error().has_value());
    EXPECT_TRUE(controller.userCancelledForError());
}
