#include <QThread>
#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/MainThread.h"
#include "support/TestSupport.h"

namespace mainthread = platform::mainthread;

TEST(MainThread, PostAndWaitRunsOnMainThreadWhileWorkerWaits) {
    QThread* mainThread = QThread::currentThread();
    std::atomic<bool> done{false};
    QThread* ranOn = nullptr;
    int value = 0;
    std::thread worker([&] {
        EXPECT_FALSE(mainthread::isMainThread());
        mainthread::postAndWait([&] {
            ranOn = QThread::currentThread();
            value = 41;
        });
        value += 1;  // ordered after the main thread's write by the wait
        done = true;
    });
    ASSERT_TRUE(testsupport::runUntil([&] { return done.load(); }));
    worker.join();
    EXPECT_EQ(ranOn, mainThread);
    EXPECT_EQ(value, 42);
}

TEST(MainThread, PostAndWaitOnMainThreadRunsAtOnce) {
    int ran = 0;
    mainthread::postAndWait([&] { ++ran; });
    EXPECT_EQ(ran, 1);
}

TEST(MainThread, PostKeepsOrderAndDoesNotWait) {
    std::vector<int> order;
    std::thread worker([&] {
        for (int i = 0; i < 5; ++i) mainthread::post([&order, i] { order.push_back(i); });
    });
    worker.join();
    EXPECT_TRUE(order.empty());
    ASSERT_TRUE(testsupport::runUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(MainThread, ExceptionReachesTheWaitingWorker) {
    std::atomic<bool> caught{false}, done{false};
    std::thread worker([&] {
        try {
            mainthread::postAndWait([] { throw std::runtime_error("boom"); });
        } catch (const std::runtime_error& e) {
            caught = std::string(e.what()) == "boom";
        }
        done = true;
    });
    ASSERT_TRUE(testsupport::runUntil([&] { return done.load(); }));
    worker.join();
    EXPECT_TRUE(caught);
}
