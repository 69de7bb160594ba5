#pragma once
// Status names and error records for Handlink status codes.
//
// A failing library call becomes an "HLDError" record whose description names the call, the
// number and the symbolic name of its status. Records are immutable values
// (platform::ErrorRecord); std::optional<Error> stands for "no record". All functions here are
// pure and may be called from any thread.
#include <QString>
#include <cerrno>
#include <optional>

#include "handlink/Handlink.h"
#include "platform/ErrorRecord.h"

using Error = platform::ErrorRecord;

// The file-conduit name of a status (codes 0 to 19; 15 and 16 are both kQFCFileExistsError),
// or a null QString when the code has none. Negative codes have none.
QString QFCStatusName(HLDStatus status);

// The name used in records: the file-conduit name if there is one, else the device-layer name
// (0xE8000001 to 0xE8000028, where listed), else "Unknown Error (<code>)".
QString HLDStatusName(HLDStatus status);

// "HLDError: '<message>', hld_error = <code> (<name>)." in the domain "HLDError", code
// sign-extended. The message names the failed call, e.g. "HLDeviceConnect()".
// The caller owns the copy; with value records both functions answer the same record.
Error ErrorCopyFromHLDError(HLDStatus status, const QString& message);
Error ErrorFromHLDError(HLDStatus status, const QString& message);

// A record for a failed local file-system call: POSIX domain, the given system error number
// (by default the thread's errno), the failed path. It carries no description of its own.
Error ErrorFromPOSIXError(const QString& path, int errorNumber = errno);

// QFCFileRefOpen with a guard against half-opened files: on a non-zero status, a reference the
// library left valid in *outRef is closed on the same connection, and *outRef is set to
// kQFCInvalidFileRef. Returns the open's status unchanged. The path is relative to the media
// root and handed to the library in the file system's encoding.
HLDStatus QFCFileRefOpenChecked(QFCConnectionRef connection, const QString& path, uint64_t mode,
                                QFCFileRef* outRef);
