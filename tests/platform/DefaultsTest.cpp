#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>
#include <thread>

#include "platform/Defaults.h"
#include "platform/DefaultsBinding.h"
#include "support/TestSupport.h"

using platform::Defaults;

namespace {

class DefaultsTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString file() const { return dir.filePath(QStringLiteral("defaults.ini")); }
};

TEST_F(DefaultsTest, UnsetKeysReadEmptyAndAreDistinctFromFalse) {
    Defaults store(file());
    EXPECT_FALSE(store.hasValue("flag"));
    EXPECT_FALSE(store.boolForKey("flag"));
    EXPECT_EQ(store.integerForKey("n"), 0);
    EXPECT_EQ(store.floatForKey("f"), 0.0f);
    EXPECT_TRUE(store.stringForKey("s").isEmpty());

    store.setBool("flag", false);
    EXPECT_TRUE(store.hasValue("flag"));
    EXPECT_FALSE(store.boolForKey("flag"));
    store.removeValue("flag");
    EXPECT_FALSE(store.hasValue("flag"));
}

TEST_F(DefaultsTest, TypedValuesSurviveAReopen) {
    {
        Defaults store(file());
        store.setBool("flag", true);
        store.setInteger("n", -42);
        store.setFloat("f", 2.5f);
        store.setString("s", QStringLiteral("Tämber 1"));
    }
    Defaults again(file());
    EXPECT_TRUE(again.boolForKey("flag"));
    EXPECT_EQ(again.integerForKey("n"), -42);
    EXPECT_FLOAT_EQ(again.floatForKey("f"), 2.5f);
    EXPECT_EQ(again.stringForKey("s"), QStringLiteral("Tämber 1"));
}

TEST_F(DefaultsTest, WrongTypesAndBrokenFilesReadAsUnset) {
    QFile f(file());
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("[General]\nflag=banana\nn=abc\nf=1.5x\n\x01\x02garbage\n[[[\n");
    f.close();
    Defaults store(file());
    EXPECT_FALSE(store.boolForKey("flag"));
    EXPECT_EQ(store.integerForKey("n"), 0);
    EXPECT_EQ(store.floatForKey("f"), 0.0f);
    store.setInteger("n", 7);  // still writable
    EXPECT_EQ(store.integerForKey("n"), 7);
}

TEST_F(DefaultsTest, WorkerWriteReachesBoundWidgetOnMainThread) {
    Defaults store(file());
    QCheckBox box;
    QPushButton button;
    platform::bindChecked(&box, store, "flag");
    platform::bindEnabled(&button, store, {"appInactive", "connected"});
    EXPECT_FALSE(box.isChecked());
    EXPECT_FALSE(button.isEnabled());

    QThread* seenOn = nullptr;
    QObject::connect(&store, &Defaults::valueChanged, &box, [&](const QString&) { seenOn = QThread::currentThread(); });
    std::thread worker([&] {
        store.setBool("flag", true);
        store.setBool("appInactive", true);
        store.setBool("connected", true);
    });
    worker.join();
    // Written, but not yet announced: announcements happen on the main thread.
    EXPECT_TRUE(store.boolForKey("flag"));
    ASSERT_TRUE(testsupport::runUntil([&] { return box.isChecked() && button.isEnabled(); }));
    EXPECT_EQ(seenOn, QThread::currentThread());
}

TEST_F(DefaultsTest, TwoWayBindingsWriteUserEdits) {
    Defaults store(file());
    QCheckBox box;
    QComboBox combo;
    combo.addItems({"Get Files", "Simulate Sync", "Check Status"});
    store.setInteger("linkDevAction", 2);
    platform::bindChecked(&box, store, "getFiles.splat");
    platform::bindCurrentIndex(&combo, store, "linkDevAction");
    EXPECT_EQ(combo.currentIndex(), 2);

    box.click();
    EXPECT_TRUE(store.boolForKey("getFiles.splat"));
    combo.setCurrentIndex(1);
    EXPECT_EQ(store.integerForKey("linkDevAction"), 1);

    store.setInteger("linkDevAction", 7);  // out of range: no selection, no crash
    EXPECT_EQ(combo.currentIndex(), -1);
}

TEST_F(DefaultsTest, NegatedEnabledBindingAndLabelText) {
    Defaults store(file());
    QPushButton button;
    QLabel label;
    platform::bindEnabled(&button, store, {"!busy"});
    platform::bindText(&label, store, "name");
    EXPECT_TRUE(button.isEnabled());
    store.setBool("busy", true);
    EXPECT_FALSE(button.isEnabled());
    store.setString("name", QStringLiteral("Zephyr"));
    EXPECT_EQ(label.text(), QStringLiteral("Zephyr"));
}

}  // namespace
