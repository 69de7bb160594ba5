// Assertions, system log, descriptions, application information and the revealer.
#include <QDateTime>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <thread>

#include "platform/AppInfo.h"
#include "platform/Assert.h"
#include "platform/Describe.h"
#include "platform/ErrorRecord.h"
#include "platform/PropertyList.h"
#include "platform/Revealer.h"
#include "platform/SystemLog.h"

TEST(Assertions, TextNamesFileLineAndMessage) {
    platform::LogCapture log;
    try {
        VR_ASSERT(1 + 1 == 3, "-[HLLockdownSession _nts_lockdownSessionStart]", "Source/Tools/HLLockdownSession", 86,
                  "expected _sessionOpenCount to be == 0.");
        FAIL() << "no exception";
    } catch (const platform::AssertionFailure& failure) {
        const std::string text = failure.what();
        EXPECT_NE(text.find("Source/Tools/HLLockdownSession:86"), std::string::npos) << text;
        EXPECT_NE(text.find("expected _sessionOpenCount to be == 0."), std::string::npos) << text;
        EXPECT_NE(text.find("_nts_lockdownSessionStart"), std::string::npos) << text;
        EXPECT_EQ(failure.line(), 86);
    }
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines()[0].contains("Source/Tools/HLLockdownSession:86"));
    VR_ASSERT(true, "m", "f", 1, "never");  // a holding condition does nothing
}

TEST(SystemLog, CaptureKeepsLinesInOrderFromAnyThread) {
    platform::LogCapture log;
    platform::logMessage("ERROR: first");
    std::thread worker([] { platform::logMessage("NOTICE: second"); });
    worker.join();
    EXPECT_EQ(log.lines(), (QStringList{"ERROR: first", "NOTICE: second"}));
    EXPECT_EQ(log.linesStartingWith("ERROR: "), QStringList{"ERROR: first"});
}

TEST(SystemLog, StandardErrorCaptureSeesExactText) {
    platform::StderrCapture err;
    platform::writeStandardError(QStringLiteral("Unknown action: %1\n").arg(4));
    EXPECT_EQ(err.text(), QStringLiteral("Unknown action: 4\n"));
}

TEST(Describe, ValuesAsAPropertyListDumpShowsThem) {
    EXPECT_EQ(platform::describe(QVariant()), "(null)");
    EXPECT_EQ(platform::describeString(QString()), "(null)");
    EXPECT_EQ(platform::describeString(""), "");
    EXPECT_EQ(platform::describe(true), "1");
    EXPECT_EQ(platform::describe(qint64(-7)), "-7");
    EXPECT_EQ(platform::describe(QStringLiteral("a b")), "a b");
    EXPECT_EQ(platform::describe(QByteArray("\x01\x02\x03\x04\x05", 5)), "<01020304 05>");
    EXPECT_EQ(platform::describe(QDateTime(QDate(2009, 2, 13), QTime(23, 31, 30), QTimeZone::utc())),
              "2009-02-13 23:31:30 +0000");
    EXPECT_EQ(platform::describe(QVariantList{1, QStringLiteral("a b")}), "(\n    1,\n    \"a b\"\n)");
    EXPECT_EQ(platform::describe(QVariantMap{{"k", 1}}), "{\n    k = 1;\n}");
}

TEST(ErrorRecord, DescriptionFallsBackForPosixRecords) {
    const platform::ErrorRecord hld(platform::kHLDErrorDomain, -402653177, "HLDError: 'x', hld_error = -402653177 (y).");
    EXPECT_EQ(hld.description(), "HLDError: 'x', hld_error = -402653177 (y).");
    const platform::ErrorRecord posix(platform::kPOSIXErrorDomain, 2, QString(), QStringLiteral("/tmp/x"));
    EXPECT_TRUE(posix.description().contains("Code=2"));
    EXPECT_TRUE(posix.description().contains("/tmp/x"));
}

TEST(AppInfo, VersionsAndInfoDictionary) {
    EXPECT_EQ(platform::appinfo::shortVersion(), "1.0");
    bool numeric = false;
    platform::appinfo::buildVersion().toInt(&numeric);
    EXPECT_TRUE(numeric);
    const QVariantMap info = platform::appinfo::infoDictionary();
    EXPECT_EQ(info.value("BXBundleShortVersionString").toString(), "1.0");
    EXPECT_EQ(info.value("BXBundleIdentifier").toString(), "com.corvid.vireo");
    EXPECT_TRUE(info.value("BXBundleExecutablePath").toString().endsWith("platform_tests"));
}

namespace {
class RecordingRevealer : public platform::Revealer {
public:
    QStringList revealed;
    void reveal(const QString& path) override { revealed << path; }
};
}  // namespace

TEST(Revealer, ReplaceableForTests) {
    auto recording = std::make_unique<RecordingRevealer>();
    RecordingRevealer* seen = recording.get();
    auto previous = platform::Revealer::setCurrent(std::move(recording));
    platform::Revealer::current().reveal("/tmp/DeviceContents.zip");
    EXPECT_EQ(seen->revealed, QStringList{"/tmp/DeviceContents.zip"});
    platform::Revealer::setCurrent(std::move(previous));
}
