#pragma once
// The conduit's small wire helpers on the device side: the path of a request and file
// information as one CBOR array [st_size, st_blocks, st_nlink, S_IFMT bits, st_mtime ns,
// st_birthtime ns or null] (docs/protocol.md).
#include <QByteArray>
#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <string>

#include "handlink/emulator/qfc/FileStat.h"

namespace handlink::emu::qfc::codec {

inline std::string pathOf(const QCborMap& request) {
    const QByteArray bytes = request.value(QStringLiteral("path")).toByteArray();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

inline QCborArray infoArray(const FileStat& st) {
    QCborArray info;
    info.append(static_cast<qint64>(st.size));
    info.append(static_cast<qint64>(st.blocks));
    info.append(static_cast<qint64>(st.nlink));
    info.append(static_cast<qint64>(st.mode));
    info.append(static_cast<qint64>(st.mtimeNs));
    if (st.btimeNs)
        info.append(static_cast<qint64>(*st.btimeNs));
    else
        info.append(QCborValue(QCborValue::Null));
    return info;
}

}  // namespace handlink::emu::qfc::codec
