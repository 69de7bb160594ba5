#pragma once
// This user's host identifier, under which devices keep their pairing records.
#include <QString>

namespace handlink::client {

// The file: $HANDLINK_HOST_ID_FILE, else <GenericConfigLocation>/handlink/hostid.
QString hostIdFilePath();
// Reads the identifier from the file, making a new one (and the file) on first use. Read
// afresh on every call, so tests can point the variable elsewhere between runs. An empty text
// only when the file can be neither read nor written.
QString hostIdentifier();

}  // namespace handlink::client
