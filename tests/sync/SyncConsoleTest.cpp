// The simulator's console mode: prompts on standard output, lines from standard input, and
// leaving the process when done.
#include <QFile>
#include <cstdlib>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdio_ext.h>
#include <thread>
#include <unistd.h>

#include "SyncTestbed.h"
#include "sync/SyncSimulator.h"

using namespace synctest;

// The exit tests fork this multi-threaded process; under ThreadSanitizer the child must be
// allowed to go on after the fork.
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

// Puts a pipe in place of one standard descriptor while alive; restores it after.
class PipedDescriptor {
public:
    explicit PipedDescriptor(int target) : _target(target)
    {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("pipe");
        _saved = dup(target);
        if (target == STDIN_FILENO) {
            dup2(ends[0], target);
            close(ends[0]);
            _ours = ends[1];  // the test writes here
        } else {
            dup2(ends[1], target);
            close(ends[1]);
            _ours = ends[0];  // the test reads here
        }
        clearerr(stdin);
    }
    ~PipedDescriptor()
    {
        if (_target == STDIN_FILENO) __fpurge(stdin);
        else fflush(stdout);
        dup2(_saved, _target);
        close(_saved);
        closeOurs();
        clearerr(stdin);
    }
    void write(const QByteArray& bytes) { ASSERT_EQ(::write(_ours, bytes.constData(), bytes.size()), bytes.size()); }
    void closeOurs()
    {
        if (_ours >= 0) close(_ours);
        _ours = -1;
    }
    // Reads until the text read so far ends with suffix (or 30 s pass without data).
    QByteArray readUntilEndsWith(const QByteArray& suffix)
    {
        while (!_read.endsWith(suffix)) {
            pollfd p{_ours, POLLIN, 0};
            if (poll(&p, 1, 30000) <= 0) break;
            char buffer[512];
            const ssize_t n = ::read(_ours, buffer, sizeof buffer);
            if (n <= 0) break;
            _read.append(buffer, n);
        }
        return _read;
    }

private:
    int _target;
    int _saved = -1;
    int _ours = -1;
    QByteArray _read;
};

QByteArray prompt(const QString& notification)
{
    return QStringLiteral("Press return to post '%1': ").arg(notification).toUtf8();
}

class SyncConsoleTest : public DeviceTest {
protected:
    bool failureFileExists() const { return QFile::exists(mediaPath(kFailureFile)); }
};

TEST_F(SyncConsoleTest, EachNotificationWaitsForALine)
{
    const QByteArray first = "Found a device.\nPress return to post 'com.corvid.lumen-linkdev.syncWillStart': ";
    StatusRecorder recorder;
    QByteArray shown;
    QStringList postedAfterEachPrompt;
    QList<bool> failureFileAtEachPrompt;
    {
        PipedDescriptor in(STDIN_FILENO);
        PipedDescriptor out(STDOUT_FILENO);
        auto simulator = SyncSimulator::create(dev, 0.0f, true, true, false);
        simulator->setDelegate(&recorder);
        std::thread runner([&] { simulator->runSimulationForFirstAttachedDevice(); });

        // At each prompt the device has seen only what came before it; a line lets it go on.
        QByteArray expected = first;
        out.readUntilEndsWith(expected);
        postedAfterEachPrompt << device->postedNotifications().join(',');
        failureFileAtEachPrompt << failureFileExists();
        for (const QString& next : {kHSUnblocked, kDidStart, kDidFinish}) {
            in.write("  go on \n");
            expected += prompt(next);
            out.readUntilEndsWith(expected);
            postedAfterEachPrompt << device->postedNotifications().join(',');
            failureFileAtEachPrompt << failureFileExists();
        }
        in.write("\n");
        in.closeOurs();  // a prompt too many returns at once instead of waiting for ever
        runner.join();
        shown = out.readUntilEndsWith(expected);
    }
    EXPECT_EQ(shown, first + prompt(kHSUnblocked) + prompt(kDidStart) + prompt(kDidFinish));
    EXPECT_EQ(postedAfterEachPrompt,
              QStringList({QString(), kWillStart, kWillStart + ',' + kHSUnblocked,
                           QStringList({kWillStart, kHSUnblocked, kDidStart}).join(',')}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kHSUnblocked, kDidStart, kDidFinish}));
    // The did-finish prompt comes while the failure-indication file is still there; it is
    // removed once the line has come.
    EXPECT_EQ(failureFileAtEachPrompt, QList<bool>({false, false, false, true}));
    EXPECT_FALSE(failureFileExists());
    EXPECT_EQ(recorder.summary().last(), QStringLiteral("3:Done."));
}

TEST_F(SyncConsoleTest, NoPromptForTheHomeScreenWhenItsFlagIsOff)
{
    const QByteArray first = "Found a device.\nPress return to post 'com.corvid.lumen-linkdev.syncWillStart': ";
    QByteArray shown;
    QStringList postedAfterEachPrompt;
    {
        PipedDescriptor in(STDIN_FILENO);
        PipedDescriptor out(STDOUT_FILENO);
        auto simulator = SyncSimulator::create(dev, 0.0f, true, false, false);
        std::thread runner([&] { simulator->runSimulationForFirstAttachedDevice(); });
        QByteArray expected = first;
        out.readUntilEndsWith(expected);
        postedAfterEachPrompt << device->postedNotifications().join(',');
        for (const QString& next : {kDidStart, kDidFinish}) {
            in.write("\n");
            expected += prompt(next);
            out.readUntilEndsWith(expected);
            postedAfterEachPrompt << device->postedNotifications().join(',');
        }
        in.write("\n");
        in.closeOurs();  // a prompt too many returns at once instead of waiting for ever
        runner.join();
        shown = out.readUntilEndsWith(expected);
    }
    EXPECT_EQ(shown, first + prompt(kDidStart) + prompt(kDidFinish));
    EXPECT_EQ(postedAfterEachPrompt, QStringList({QString(), kWillStart, kWillStart + ',' + kDidStart}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
}

TEST(SyncConsole, PromptReadsOneTrimmedLineAndReturnsAtEndOfInput)
{
    QByteArray shown;
    QString first, second, atEnd, stillAtEnd;
    {
        PipedDescriptor in(STDIN_FILENO);
        PipedDescriptor out(STDOUT_FILENO);
        in.write("  first answer \r\n\tsecond\n");
        in.closeOurs();
        first = syncsim::promptForLine(QStringLiteral("One:"));
        second = syncsim::promptForLine(QStringLiteral("Two:"));
        atEnd = syncsim::promptForLine(QStringLiteral("Three:"));
        stillAtEnd = syncsim::promptForLine(QStringLiteral("Four:"));
        shown = out.readUntilEndsWith("Four: ");
    }
    EXPECT_EQ(first, QStringLiteral("first answer"));
    EXPECT_EQ(second, QStringLiteral("second"));
    // End of input is not examined: the read returns at once and the shared buffer still
    // holds the line before.
    EXPECT_EQ(atEnd, QStringLiteral("second"));
    EXPECT_EQ(stillAtEnd, QStringLiteral("second"));
    EXPECT_EQ(shown, QByteArray("One: Two: Three: Four: "));
}

TEST(SyncConsole, PromptReadsAtMost1023Characters)
{
    const QByteArray longLine = QByteArray(1000, 'a') + QByteArray(23, 'b') + QByteArray(477, 'c');
    QString head, rest, next;
    {
        PipedDescriptor in(STDIN_FILENO);
        PipedDescriptor out(STDOUT_FILENO);
        in.write(longLine + "\nnext\n");
        in.closeOurs();  // reads past what was written return at once
        head = syncsim::promptForLine(QStringLiteral("One:"));
        // The rest of the long line is what the following prompt reads.
        rest = syncsim::promptForLine(QStringLiteral("Two:"));
        next = syncsim::promptForLine(QStringLiteral("Three:"));
        out.readUntilEndsWith("Three: ");
    }
    EXPECT_EQ(head, QString::fromLatin1(longLine.left(1023)));
    EXPECT_EQ(rest, QString::fromLatin1(longLine.mid(1023)));
    EXPECT_EQ(next, QStringLiteral("next"));
}

// Leaving the process: checked in a child process (a death test), whose own emulator prints
// the device's posts to standard error.
class SyncExitTest : public DeviceTest {
protected:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        DeviceTest::SetUp();
    }
    [[noreturn]] void runAndExpectExit(bool failWillStart)
    {
        Testbed::instance().emulator().setPrinter([](const QString& line) {
            fprintf(stderr, "emulator: %s\n", line.toUtf8().constData());
        });
        if (failWillStart)
            device->addFault(handlink::emu::Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kWillStart});
        // The in-process emulator's threads end with the process: stopped (and joined) on the
        // way out, and its temporary folder removed.
        std::atexit([] { Testbed::destroyInstance(); });
        auto simulator = SyncSimulator::create(dev, 0.0f, false, false, true);
        simulator->runSimulationForFirstAttachedDevice();
        fprintf(stderr, "still running\n");
        std::abort();
    }
};

TEST_F(SyncExitTest, ExitsWithZeroAfterTheFinishingNotification)
{
    EXPECT_EXIT(runAndExpectExit(false), ::testing::ExitedWithCode(0),
                "Done\\..*com\\.corvid\\.lumen-linkdev\\.syncDidFinish");
}

// The lock at the exit, seen by the device: the child is forked without a new program, so its
// device connection reaches this process's emulator, whose counters outlive the child.
class SyncExitLockTest : public DeviceTest {
protected:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "fast");
        DeviceTest::SetUp();
    }
};

TEST_F(SyncExitLockTest, TheLockIsLeftToTheConnectionGoingAway)
{
    EXPECT_EXIT(
        {
            auto simulator = SyncSimulator::create(dev, 0.0f, false, false, true);
            simulator->runSimulationForFirstAttachedDevice();
            std::abort();  // not reached: the run ends the process
        },
        ::testing::ExitedWithCode(0), "");

    // The whole run reached the device, but nothing gave the lock back before the exit.
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 1);
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0) << "the lock was released before the exit";
    EXPECT_FALSE(QFile::exists(mediaPath(kFailureFile)));
    // The child's connection went away with it, and the lock with the connection.
    EXPECT_TRUE(waitFor([&] { return syncLockIsFree(); }));
}

TEST_F(SyncExitTest, ExitsWithZeroAlsoAfterAFailure)
{
    EXPECT_EXIT(runAndExpectExit(true), ::testing::ExitedWithCode(0),
                "failure to: post kLumenWillStartSyncLinkDevNotificationName.*"
                "com\\.corvid\\.lumen-linkdev\\.syncFailedToStart");
}

}  // namespace
