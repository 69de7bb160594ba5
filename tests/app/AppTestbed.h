#pragma once
// The app tests' world: one in-process emulator on one socket for the whole binary (the
// device registry subscribes once per process), a fresh defaults file per test, and an alert
// presenter that answers from a script.
#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "handlink/emulator/Emulator.h"
#include "support/EmulatorTestbed.h"
#include "support/ScriptedAlertPresenter.h"

namespace apptest {

class Testbed : public testsupport::EmulatorTestbed {
public:
    static Testbed& instance();

    Testbed() : EmulatorTestbed(QStringLiteral("APPTEST")) {}

    // Makes a device with this DeviceName, attaches it and waits until the registry lists it.
    std::shared_ptr<handlink::emu::Device> attachNewDevice(const QString& name,
                                                           const QString& pairing = QStringLiteral("accept"));
    void detachAll();

    // Points the standard defaults store at a new, empty file and returns its path.
    QString freshDefaultsFile();

private:
    int _defaultsFiles = 0;
};

void installEnvironment();

// Every test starts with no device and a fresh defaults file, and detaches what it attached.
class AppTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    QString defaultsPath;
};

using ScriptedAlertPresenter = testsupport::ScriptedAlertPresenter;

// Keys written to the store, in order, while alive; entries() also has the value each key
// held when its change was announced ("key=value").
class WriteRecorder {
public:
    WriteRecorder();
    ~WriteRecorder();
    QStringList keys() const { return _keys; }
    QStringList entries() const { return _entries; }
    // Adds an event that is not a write (say, a field changing) to both lists, in its place.
    void mark(const QString& event)
    {
        _keys << event;
        _entries << event;
    }

private:
    QStringList _keys;
    QStringList _entries;
    QMetaObject::Connection _connection;
};

// A real worker thread that runs one step at a time while the main thread's event loop runs,
// so the code under test hands over to the main thread exactly as it does in a command.
class Worker {
public:
    Worker();
    ~Worker();
    // Runs step on the worker and keeps the main loop going until it has returned; false if
    // it never did (a hang).
    bool run(std::function<void()> step);
    // Starts step on the worker and returns at once; finished() tells when it is over.
    void start(std::function<void()> step);
    bool finished() const;
    // Blocks this thread, without running the main loop, until the step has returned; false
    // if it did not within timeoutMs (a guard against a hang, not a timing check).
    bool waitWithoutEventLoop(int timeoutMs);

private:
    void loop();

    mutable std::mutex _mutex;  // guards the three fields below
    std::condition_variable _wake;
    std::condition_variable _stepEnded;
    std::function<void()> _step;
    bool _busy = false;
    bool _quit = false;
    std::thread _thread;
};

}  // namespace apptest
