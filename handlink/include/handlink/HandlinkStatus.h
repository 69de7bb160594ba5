#pragma once
// Status codes of the Handlink library: 0 is success; file-conduit codes are small positive
// numbers, device-layer codes lie from 0xE8000001 upward (negative as int32_t).
#include <cstdint>

typedef int32_t HLDStatus;

enum : int32_t {
    kQFCSuccess = 0,
    kQFCUndefinedError = 1,
    kQFCBadHeaderError = 2,
    kQFCNoResourcesError = 3,
    kQFCReadError = 4,
    kQFCWriteError = 5,
    kQFCUnknownPacketError = 6,
    kQFCInvalidArgumentError = 7,
    kQFCNotFoundError = 8,
    kQFCIsDirectoryError = 9,
    kQFCPermissionError = 10,
    kQFCNotConnectedError = 11,
    kQFCTimeOutError = 12,
    kQFCOverrunError = 13,
    kQFCEOFError = 14,
    kQFCFileExistsError = 16,
    kQFCBusyError = 17,
    kQFCNoSpaceError = 18,
    kQFCWouldBlockError = 19,
};

#define HLD_STATUS(n) static_cast<int32_t>(0xE8000000u + (n))
enum : int32_t {
    kHLDSuccess = 0,
    kHLDUndefinedError = HLD_STATUS(0x01),
    kHLDBadHeaderError = HLD_STATUS(0x02),
    kHLDNoResourcesError = HLD_STATUS(0x03),
    kHLDReadError = HLD_STATUS(0x04),
    kHLDWriteError = HLD_STATUS(0x05),
    kHLDUnknownPacketError = HLD_STATUS(0x06),
    kHLDInvalidArgumentError = HLD_STATUS(0x07),
    kHLDNotFoundError = HLD_STATUS(0x08),
    kHLDIsDirectoryError = HLD_STATUS(0x09),
    kHLDPermissionError = HLD_STATUS(0x0A),
    kHLDNotConnectedError = HLD_STATUS(0x0B),
    kHLDTimeOutError = HLD_STATUS(0x0C),
    kHLDOverrunError = HLD_STATUS(0x0D),
    kHLDEOFError = HLD_STATUS(0x0E),
    kHLDUnsupportedError = HLD_STATUS(0x0F),
    kHLDFileExistsError = HLD_STATUS(0x10),
    kHLDBusyError = HLD_STATUS(0x11),
    kHLDCryptoError = HLD_STATUS(0x12),
    kHLDInvalidResponseError = HLD_STATUS(0x13),
    kHLDMissingKeyError = HLD_STATUS(0x14),
    kHLDMissingValueError = HLD_STATUS(0x15),
    kHLDGetProhibitedError = HLD_STATUS(0x16),
    kHLDSetProhibitedError = HLD_STATUS(0x17),
    kHLDRemoveProhibitedError = HLD_STATUS(0x18),
    kHLDImmutableValueError = HLD_STATUS(0x19),
    kHLDPasswordProtectedError = HLD_STATUS(0x1A),
    kHLDMissingHostIDError = HLD_STATUS(0x1B),
    kHLDInvalidHostIDError = HLD_STATUS(0x1C),
    kHLDSessionActiveError = HLD_STATUS(0x1D),
    kHLDSessionInactiveError = HLD_STATUS(0x1E),
    kHLDMissingSessionIDError = HLD_STATUS(0x1F),
    kHLDInvalidSessionIDError = HLD_STATUS(0x20),
    kHLDMissingServiceError = HLD_STATUS(0x21),
    kHLDInvalidServiceError = HLD_STATUS(0x22),
    kHLDInvalidCheckinError = HLD_STATUS(0x23),
    kHLDCheckinTimeoutError = HLD_STATUS(0x24),
    kHLDMissingPairRecordError = HLD_STATUS(0x25),
    kHLDWrongDroidError = HLD_STATUS(0x28),
};
#undef HLD_STATUS
