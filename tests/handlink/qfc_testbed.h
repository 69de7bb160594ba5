#pragma once
// The conduit tests' device: one in-process emulator per test binary on a temporary socket, a
// fresh device for every test, and conduit connections opened the way the device classes open
// them (connect, pair, session, StartService "com.corvid.qfc", QFCConnectionOpen).
#include <QString>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>

#include "handlink/Handlink.h"
#include "handlink/emulator/Emulator.h"

namespace qfctest {

struct Conduit {
    int fd = -1;
    QFCConnectionRef connection = nullptr;
};

// Everything below the test root that is not a device's Media/ folder: paths with size,
// modification time and a digest of the contents, for "nothing outside changed".
std::map<std::string, std::string> snapshotOutside(const QString& root);
// Every path below folder (relative) with its kind, size, modification time and digest.
std::map<std::string, std::string> snapshotTree(const QString& folder);

// Makes a Unix socket file at path (bound, then closed); false when it cannot.
bool makeSocketFile(const std::string& path);

// Reads the whole key/value list of a path (status through *status).
std::map<std::string, std::string> infoPairs(QFCConnectionRef connection, const char* path, HLDStatus* status);
// Every name of a directory listing, in the order the device gives them.
std::vector<std::string> listNames(QFCConnectionRef connection, const char* path, HLDStatus* status);

class ConduitTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override;

    // What the device is made with (a test fixture may change it before SetUp).
    virtual handlink::emu::MakeDeviceOptions deviceOptions() const { return {}; }

    // A new conduit connection to the test's device; closed by closeConduit or at the end.
    Conduit openConduit();
    void closeConduit(Conduit& conduit);
    // Starts a service on the device and returns its descriptor (-1 on failure).
    int startService(const QString& name);
    // Posts a notification on the device through the notification proxy, like the desktop.
    HLDStatus post(const QString& name);

    // Path inside the device's Media/ folder (UTF-8 bytes).
    std::string media(const std::string& relative = std::string()) const;
    // A folder beside the device folder, outside every Media/ folder.
    std::string outside(const std::string& relative = std::string()) const;
    static QString testRoot();

    static handlink::emu::Emulator& emulator();

    std::shared_ptr<handlink::emu::Device> device;
    HLDeviceRef ref = nullptr;
    Conduit conduit;  // opened in SetUp

private:
    Conduit connect();
    std::vector<Conduit> _extra;  // opened by openConduit, closed at the end unless closed before
    int _notifyFd = -1;
};

}  // namespace qfctest
