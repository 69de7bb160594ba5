// Status names, error records and their descriptions.
#include <gtest/gtest.h>

#include "device/HLDError.h"

TEST(StatusNames, FileConduitTableWithItsDoubledName)
{
    EXPECT_EQ(QFCStatusName(0), "kQFCSuccess");
    EXPECT_EQ(QFCStatusName(7), "kQFCInvalidArgumentError");
    EXPECT_EQ(QFCStatusName(8), "kQFCNotFoundError");
    EXPECT_EQ(QFCStatusName(14), "kQFCEOFError");
    EXPECT_EQ(QFCStatusName(15), "kQFCFileExistsError");
    EXPECT_EQ(QFCStatusName(16), "kQFCFileExistsError");
    EXPECT_EQ(QFCStatusName(17), "kQFCBusyError");
    EXPECT_EQ(QFCStatusName(19), "kQFCWouldBlockError");
    EXPECT_TRUE(QFCStatusName(20).isNull());
    EXPECT_TRUE(QFCStatusName(-1).isNull());
    EXPECT_TRUE(QFCStatusName(kHLDUndefinedError).isNull());
}

TEST(StatusNames, DeviceLayerTableByOffset)
{
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000001u)), "kHLDUndefinedError");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE800000Bu)), "kHLDNotConnectedError");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE800001Eu)), "kHLDSessionInactiveError");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000024u)), "kHLDCheckinTimeoutError");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000025u)), "kHLDMissingPairRecordError");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000028u)), "kHLDWrongDroidError");
    // Offsets inside the range without a row, and both ends just outside it.
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000026u)), "Unknown Error (-402653146)");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000027u)), "Unknown Error (-402653145)");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000000u)), "Unknown Error (-402653184)");
    EXPECT_EQ(HLDStatusName(static_cast<HLDStatus>(0xE8000029u)), "Unknown Error (-402653143)");
}

TEST(StatusNames, FileConduitNamesComeFirstThenDeviceLayerThenUnknown)
{
    EXPECT_EQ(HLDStatusName(0), "kQFCSuccess");
    EXPECT_EQ(HLDStatusName(8), "kQFCNotFoundError");
    EXPECT_EQ(HLDStatusName(15), "kQFCFileExistsError");
    EXPECT_EQ(HLDStatusName(19), "kQFCWouldBlockError");
    EXPECT_EQ(HLDStatusName(20), "Unknown Error (20)");
    EXPECT_EQ(HLDStatusName(-1), "Unknown Error (-1)");
    EXPECT_EQ(HLDStatusName(kHLDSetProhibitedError), "kHLDSetProhibitedError");
}

TEST(ErrorRecords, DescriptionNamesCallCodeAndName)
{
    const Error error = ErrorFromHLDError(static_cast<HLDStatus>(0xE8000007u), QStringLiteral("HLDeviceSetValue()"));
    EXPECT_EQ(error.domain(), "HLDError");
    EXPECT_EQ(error.code(), -402653177);
    EXPECT_LT(error.code(), 0);
    EXPECT_EQ(error.localizedDescription(),
              "HLDError: 'HLDeviceSetValue()', hld_error = -402653177 (kHLDInvalidArgumentError).");
    EXPECT_EQ(error.description(), error.localizedDescription());
    EXPECT_FALSE(error.filePath().has_value());

    EXPECT_EQ(ErrorCopyFromHLDError(8, QStringLiteral("QFCFileRefOpen()")).description(),
              "HLDError: 'QFCFileRefOpen()', hld_error = 8 (kQFCNotFoundError).");
    EXPECT_EQ(ErrorCopyFromHLDError(20, QStringLiteral("HLDeviceConnect()")).description(),
              "HLDError: 'HLDeviceConnect()', hld_error = 20 (Unknown Error (20)).");
    // A message with format characters is taken as it is.
    EXPECT_EQ(ErrorFromHLDError(19, QStringLiteral("%1 %@()")).description(),
              "HLDError: '%1 %@()', hld_error = 19 (kQFCWouldBlockError).");
    EXPECT_EQ(ErrorCopyFromHLDError(kHLDMissingPairRecordError, QStringLiteral("x")),
              ErrorFromHLDError(kHLDMissingPairRecordError, QStringLiteral("x")));
}

TEST(ErrorRecords, PosixRecordCarriesPathAndNumberButNoDescription)
{
    errno = ENOENT;
    const Error error = ErrorFromPOSIXError(QStringLiteral("/tmp/missing/folder"));
    EXPECT_EQ(error.domain(), platform::kPOSIXErrorDomain);
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_TRUE(error.localizedDescription().isEmpty());
    ASSERT_TRUE(error.filePath().has_value());
    EXPECT_EQ(*error.filePath(), "/tmp/missing/folder");
    EXPECT_TRUE(error.description().contains("/tmp/missing/folder"));
    EXPECT_EQ(ErrorFromPOSIXError(QStringLiteral("p"), EACCES).code(), EACCES);
}
