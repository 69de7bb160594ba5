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

class SyncConsoleTest : public DeviceTest {};

TEST_F(SyncConsoleTest, EachNotificationWaitsForALine)
{
    const QByteArray first = "Found a device.\nPress return to post 'com.corvid.lumen-linkdev.syncWillStart': ";
    StatusRecorder recorder;
    QByteArray shown;
    QStringList postedAfterEachPrompt;
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
        for (const QString& next : {kHSUnblocked, kDidStart, kDidFinish}) {
            in.write("  go on \n");
            expected += prompt(next);
            out.readUntilEndsWith(expected);
            postedAfterEachPrompt << device->postedNotifications().join(',');
        }
        in.write("\n");
        runner.join();
        shown = out.readUntilEndsWith(expected);
    }
    EXPECT_EQ(shown, first + prompt(kHSUnblocked) + prompt(kDidStart) + prompt(kDidFinish));
    EXPECT_EQ(postedAfterEachPrompt,
              QStringList({QString(), kWillStart, kWillStart + ',' + kHSUnblocked,
                           QStringList({kWillStart, kHSUnblocked, kDidStart}).join(',')}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kHSUnblocked, kDidStart, kDidFinish}));
    EXPECT_EQ(recorder.summary().last(), QStringLiteral("3:Done."));
}

TEST(SyncConsole, PromptReadsOneTrimmedLineAndReturnsAtEndOfInput)
{
    QByteArray shown;
    QString first, second, atEnd;
    {
        PipedDescriptor in(STDIN_FILENO);
        PipedDescriptor out(STDOUT_FILENO);
        in.write("  first answer \r\n\tsecond\n");
        in.closeOurs();
        first = syncsim::promptForLine(QStringLiteral("One:"));
        second = syncsim::promptForLine(QStringLiteral("Two:"));
        atEnd = syncsim::promptForLine(QStringLiteral("Three:"));
        shown = out.readUntilEndsWith("Three: ");
    }
    EXPECT_EQ(first, QStringLiteral("first answer"));
    EXPECT_EQ(second, QStringLiteral("second"));
    EXPECT_EQ(atEnd, QString());
    EXPECT_EQ(shown, QByteArray("One: Two: Three: "));
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

TEST_F(SyncExitTest, ExitsWithZeroAlsoAfterAFailure)
{
    EXPECT_EXIT(runAndExpectExit(true), ::testing::ExitedWithCode(0),
                "failure to: post kLumenWillStartSyncLinkDevNotificationName.*"
                "com\\.corvid\\.lumen-linkdev\\.syncFailedToStart");
}

}  // namespace
