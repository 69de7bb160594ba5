#include <QObject>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

#include "platform/NotificationCenter.h"

using platform::Notification;
using platform::NotificationCenter;

TEST(NotificationCenter, DeliversByNameWithSenderAndUserInfo) {
    NotificationCenter center;
    QObject observer;
    int senderA = 0, senderB = 0;
    QList<Notification> all, onlyA;
    center.addObserver(&observer, "changed", nullptr, [&](const Notification& n) { all << n; });
    center.addObserver(&observer, "changed", &senderA, [&](const Notification& n) { onlyA << n; });

    center.post("changed", &senderA, {{"keys", QStringList{"k1"}}});
    center.post("changed", &senderB, {{"keys", QStringList{"k2"}}});
    center.post("other", &senderA);

    ASSERT_EQ(all.size(), 2);
    EXPECT_EQ(all[0].sender, &senderA);
    EXPECT_EQ(all[1].userInfo.value("keys").toStringList(), QStringList{"k2"});
    ASSERT_EQ(onlyA.size(), 1);  // the sender filter ignores senderB
    EXPECT_EQ(onlyA[0].userInfo.value("keys").toStringList(), QStringList{"k1"});
}

TEST(NotificationCenter, RemovedAndDestroyedObserversAreNotCalled) {
    NotificationCenter center;
    int calls = 0;
    auto doomed = std::make_unique<QObject>();
    QObject removed;
    center.addObserver(doomed.get(), "n", nullptr, [&](const Notification&) { ++calls; });
    center.addObserver(&removed, "n", nullptr, [&](const Notification&) { ++calls; });
    center.post("n", nullptr);
    EXPECT_EQ(calls, 2);

    doomed.reset();
    center.removeObserver(&removed);
    center.post("n", nullptr);
    EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, DeliversOnThePostingThread) {
    NotificationCenter center;
    QObject observer;
    std::thread::id seen;
    center.addObserver(&observer, "n", nullptr, [&](const Notification&) { seen = std::this_thread::get_id(); });
    std::thread::id posting;
    std::thread worker([&] {
        posting = std::this_thread::get_id();
        center.post("n", nullptr);
    });
    worker.join();
    EXPECT_EQ(seen, posting);
}

TEST(NotificationCenter, ObserverMayRemoveItselfWhileBeingCalled) {
    NotificationCenter center;
    QObject a, b;
    int aCalls = 0, bCalls = 0;
    center.addObserver(&a, "n", nullptr, [&](const Notification&) {
        ++aCalls;
        center.removeObserver(&b);  // b is skipped in this very post
    });
    center.addObserver(&b, "n", nullptr, [&](const Notification&) { ++bCalls; });
    center.post("n", nullptr);
    EXPECT_EQ(aCalls, 1);
    EXPECT_EQ(bCalls, 0);
}
