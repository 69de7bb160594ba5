#include "qfc_testbed.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <filesystem>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "handlink/emulator/Emulator.h"
#include "support/EmulatorTestbed.h"
#include "support/TestSupport.h"

#if defined(__SANITIZE_THREAD__)
// The lock tests start `flock` and `handlinkctl` with QProcess, which forks this threaded
// process and execs at once; ThreadSanitizer would otherwise stop at the fork.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

namespace qfctest {

namespace {

testsupport::EmulatorTestbed* g_testbed = nullptr;  // the emulator and the test root
HLDeviceNotificationRef g_subscription = nullptr;
std::map<QString, HLDeviceRef>* g_devices = nullptr;  // main thread only
int g_made = 0;

void onDeviceEvent(HLDeviceNotificationInfo* info, void*) {
    const QString identifier = HLDeviceCopyDeviceIdentifier(info->device);
    auto it = g_devices->find(identifier);
    if (it != g_devices->end()) {
        HLDeviceRelease(it->second);
        g_devices->erase(it);
    }
    if (info->msg == kHLDNotificationConnected) {
        HLDeviceRetain(info->device);
        (*g_devices)[identifier] = info->device;
    }
}

std::string digest(const std::filesystem::path& path) {
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) return "unreadable";
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(&file);
    return hash.result().toHex().toStdString();
}

}  // namespace

namespace {

// Paths below base/folder, relative to base; Media/ folders are skipped when skipMedia.
void snapshotInto(const std::filesystem::path& base, const std::filesystem::path& folder, bool skipMedia,
                  std::map<std::string, std::string>* out) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::recursive_directory_iterator it(folder, fs::directory_options::none, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const fs::path path = it->path();
        if (skipMedia && it->is_directory(ec) && !it->is_symlink(ec) && path.filename() == "Media") {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        std::string value = std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " " +
                            std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) value += " " + digest(path);
        (*out)[fs::relative(path, base).string()] = value;
    }
}

}  // namespace

std::map<std::string, std::string> snapshotOutside(const QString& root) {
    std::map<std::string, std::string> out;
    const std::filesystem::path base = root.toStdString();
    for (const char* folder : {"outside", "devices"}) snapshotInto(base, base / folder, true, &out);
    return out;
}

std::map<std::string, std::string> snapshotTree(const QString& folder) {
    std::map<std::string, std::string> out;
    const std::filesystem::path base = folder.toStdString();
    snapshotInto(base, base, false, &out);
    return out;
}

bool makeSocketFile(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

std::map<std::string, std::string> infoPairs(QFCConnectionRef connection, const char* path, HLDStatus* status) {
    std::map<std::string, std::string> pairs;
    QFCKeyValueRef iterator = nullptr;
    *status = QFCFileInfoOpen(connection, path, &iterator);
    if (*status != kQFCSuccess) return pairs;
    for (;;) {
        const char* key = nullptr;
        const char* value = nullptr;
        *status = QFCKeyValueRead(iterator, &key, &value);
        if (*status != kQFCSuccess || !key || !value) break;
        pairs[key] = value;
    }
    QFCKeyValueClose(iterator);
    return pairs;
}

std::vector<std::string> listNames(QFCConnectionRef connection, const char* path, HLDStatus* status) {
    std::vector<std::string> names;
    QFCDirectoryRef directory = 0;
    *status = QFCDirectoryOpen(connection, path, &directory);
    if (*status != kQFCSuccess) return names;
    for (;;) {
        const char* name = nullptr;
        *status = QFCDirectoryRead(connection, directory, &name);
        if (*status != kQFCSuccess || !name) break;
        names.emplace_back(name);
    }
    const HLDStatus closed = QFCDirectoryClose(connection, directory);
    if (*status == kQFCSuccess) *status = closed;
    return names;
}

void ConduitTest::SetUpTestSuite() {
    if (g_testbed) return;  // one emulator for the whole binary
    g_testbed = new testsupport::EmulatorTestbed(QStringLiteral("QFC"));
    QString error;
    ASSERT_TRUE(g_testbed->emulator().start(&error)) << error.toStdString();
    g_devices = new std::map<QString, HLDeviceRef>;
    ASSERT_EQ(HLDeviceNotificationSubscribe(&onDeviceEvent, 0, 0, nullptr, &g_subscription), 0);
    QDir(testRoot()).mkpath(QStringLiteral("outside/secrets"));
    QFile secret(testRoot() + QStringLiteral("/outside/secret.txt"));
    ASSERT_TRUE(secret.open(QIODevice::WriteOnly));
    secret.write("do not touch\n");
    QFile kept(testRoot() + QStringLiteral("/outside/secrets/keep.txt"));
    ASSERT_TRUE(kept.open(QIODevice::WriteOnly));
    kept.write("keep me\n");
}

void ConduitTest::TearDownTestSuite() {}

QString ConduitTest::testRoot() { return g_testbed->root(); }
handlink::emu::Emulator& ConduitTest::emulator() { return g_testbed->emulator(); }

void ConduitTest::SetUp() {
    ASSERT_TRUE(g_testbed);
    handlink::emu::MakeDeviceOptions options = deviceOptions();
    options.identifier = QStringLiteral("QFC-TEST-%1").arg(++g_made, 4, 10, QLatin1Char('0'));
    const QString folder = g_testbed->makeDeviceFolder(options);
    ASSERT_FALSE(folder.isEmpty());
    QString error;
    device = emulator().attach(folder, &error);
    ASSERT_TRUE(device) << error.toStdString();
    const QString identifier = device->identifier();
    ASSERT_TRUE(testsupport::runUntil([&] { return g_devices->count(identifier) > 0; }));
    ref = g_devices->at(identifier);
    HLDeviceRetain(ref);
    conduit = connect();
    ASSERT_TRUE(conduit.connection);
}

void ConduitTest::TearDown() {
    while (!_extra.empty()) {
        Conduit extra = _extra.back();
        _extra.pop_back();
        closeConduit(extra);
    }
    closeConduit(conduit);
    if (_notifyFd >= 0) ::close(_notifyFd);
    if (device) {
        const QString identifier = device->identifier();
        emulator().detach(identifier);
        EXPECT_TRUE(testsupport::runUntil([&] { return g_devices->count(identifier) == 0; }));
    }
    if (ref) HLDeviceRelease(ref);
}

int ConduitTest::startService(const QString& name) {
    int fd = -1;
    EXPECT_EQ(HLDeviceConnect(ref), 0);
    if (!HLDeviceIsPaired(ref)) {
        EXPECT_EQ(HLDevicePair(ref), 0);
    }
    EXPECT_EQ(HLDeviceStartSession(ref), 0);
    EXPECT_EQ(HLDeviceStartService(ref, name, &fd, nullptr), 0);
    EXPECT_EQ(HLDeviceStopSession(ref), 0);
    EXPECT_EQ(HLDeviceDisconnect(ref), 0);
    return fd;
}

Conduit ConduitTest::connect() {
    Conduit result;
    result.fd = startService(QStringLiteral("com.corvid.qfc"));
    if (result.fd >= 0) {
        EXPECT_EQ(QFCConnectionOpen(result.fd, 0, &result.connection), 0);
    }
    return result;
}

Conduit ConduitTest::openConduit() {
    Conduit result = connect();
    _extra.push_back(result);
    return result;
}

void ConduitTest::closeConduit(Conduit& c) {
    if (c.connection) QFCConnectionClose(c.connection);
    if (c.fd >= 0) {
        ::close(c.fd);
        for (Conduit& extra : _extra)
            if (extra.fd == c.fd) extra = Conduit{};
    }
    c = Conduit{};
}

HLDStatus ConduitTest::post(const QString& name) {
    if (_notifyFd < 0) _notifyFd = startService(QStringLiteral("com.corvid.mobile.notification_proxy"));
    return HLDPostNotification(_notifyFd, name, nullptr);
}

std::string ConduitTest::media(const std::string& relative) const {
    const std::string root = device->mediaRoot().toStdString();
    return relative.empty() ? root : root + "/" + relative;
}

std::string ConduitTest::outside(const std::string& relative) const {
    const std::string root = (testRoot() + QStringLiteral("/outside")).toStdString();
    return relative.empty() ? root : root + "/" + relative;
}

}  // namespace qfctest
